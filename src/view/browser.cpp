#include "view/browser.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

namespace ceilmeter::view {

namespace {

constexpr std::chrono::milliseconds patience{2000};
constexpr std::chrono::milliseconds pause_between_looks{10};

// The pieces of `text` between `separator`s, without the empty ones.
std::vector<std::string> pieces(std::string_view text, char separator) {
  std::vector<std::string> result;
  while (!text.empty()) {
    const std::size_t length = std::min(text.find(separator), text.size());
    if (length > 0) result.emplace_back(text.substr(0, length));
    text.remove_prefix(std::min(text.size(), length + 1));
  }
  return result;
}

// Starts a program in a session of its own, so that Ctrl-C in this terminal does not end the browser. What it prints
// for hours goes nowhere. Spawned, not forked: user-mode emulators do not always get through a fork. -1 on failure.
pid_t start(char* const* words) {
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&files) != 0) return -1;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&files);
    return -1;
  }
  bool good = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID) == 0;
  for (int standard = 0; good && standard <= 2; ++standard) {
    good = posix_spawn_file_actions_addopen(&files, standard, "/dev/null", O_RDWR, 0) == 0;
  }
  pid_t child = -1;
  if (!good || posix_spawnp(&child, words[0], &files, &attributes, words, environ) != 0) child = -1;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return child;
}

bool run(std::vector<std::string> command) {
  std::vector<char*> words;
  words.reserve(command.size() + 1);
  for (std::string& word : command) words.push_back(word.data());
  words.push_back(nullptr);
  const pid_t child = start(words.data());
  if (child < 0) return false;
  const auto end = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < end) {
    int status = 0;
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (ended < 0 && errno != EINTR) return false;
    std::this_thread::sleep_for(pause_between_looks);
  }
  return true;
}

}  // namespace

std::vector<std::vector<std::string>> browser_commands(const char* variable, const std::string& address) {
  std::vector<std::vector<std::string>> commands;
  for (const std::string& text : pieces(variable != nullptr ? variable : "", ':')) {
    std::vector<std::string> words = pieces(text, ' ');
    if (words.empty()) continue;
    bool placed = false;
    for (std::string& word : words) {
      const std::size_t at = word.find("%s");
      if (at == std::string::npos) continue;
      word.replace(at, 2, address);
      placed = true;
    }
    if (!placed) words.push_back(address);
    commands.push_back(std::move(words));
  }
  commands.push_back({"xdg-open", address});
  commands.push_back({"open", address});
  return commands;
}

std::string file_address(std::string_view absolute_path) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  constexpr std::string_view plain = "/-._~";
  std::string address = "file://";
  for (const char c : absolute_path) {
    const bool is_letter_or_digit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (is_letter_or_digit || plain.find(c) != std::string_view::npos) {
      address += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      address += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return address;
}

bool open_in_browser(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> absolute(realpath(path.c_str(), nullptr), std::free);
  if (absolute == nullptr) return false;
  const auto commands = browser_commands(std::getenv("BROWSER"), file_address(absolute.get()));
  return std::any_of(commands.begin(), commands.end(), [](const auto& command) { return run(command); });
}

}  // namespace ceilmeter::view
