// The tokens are cached, except for the thread's id and the time: they stay what they were at the first call.
#include "common/file_pattern.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace ceilmeter {

namespace {

// What %p, %h and %r stand for; the same for the whole life of the process.
struct process_tokens {
  std::string pid;
  std::string host;
  std::string rank;
};

// Launchers tell a process its rank in a variable of their own; the two commonest first, then whatever is named like
// one. Only the first 256 bytes of a name are looked at.
const char* find_rank_variable() {
  if (const char* value = std::getenv("PMIX_RANK")) return value;
  if (const char* value = std::getenv("OMPI_COMM_WORLD_RANK")) return value;
  if (environ == nullptr) return nullptr;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    if (equals == nullptr) continue;
    const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(equals - *entry), 256);
    if (std::string(*entry, length).find("RANK") != std::string::npos) return equals + 1;
  }
  return nullptr;
}

process_tokens read_process_tokens() {
  process_tokens tokens;
  tokens.pid = std::to_string(getpid());
  std::array<char, 128 + 1> host{};
  gethostname(host.data(), host.size() - 1);
  tokens.host = host.data();
  const char* rank = find_rank_variable();
  tokens.rank = std::to_string(rank != nullptr ? static_cast<unsigned>(std::strtol(rank, nullptr, 10)) : 0U);
  return tokens;
}

const process_tokens& cached_process_tokens() {
  static std::mutex mutex;
  static bool filled = false;
  static process_tokens tokens;
  const std::lock_guard lock(mutex);
  if (!filled) {
    tokens = read_process_tokens();
    filled = true;
  }
  return tokens;
}

std::string format_time(const timeval& time) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%lu.%06lu", static_cast<unsigned long>(time.tv_sec),
                static_cast<unsigned long>(time.tv_usec));
  return text.data();
}

}  // namespace

bool mora_environment_shows_rank() { return find_rank_variable() != nullptr; }

char* mora_expand_file_pattern(const char* pattern, char* out, std::size_t size) {
  if (size == 0) return out;
  const process_tokens& tokens = cached_process_tokens();
  const std::string thread_id = std::to_string(gettid());
  timeval now{};
  gettimeofday(&now, nullptr);
  const std::string time = format_time(now);

  std::size_t position = 0;
  const auto append = [&](const char* text, std::size_t length) {
    const std::size_t copied = std::min(length, size - position);
    std::memcpy(out + position, text, copied);
    position += copied;
  };
  for (const char* cursor = pattern; *cursor != '\0' && position < size; ++cursor) {
    if (*cursor != '%') {
      append(cursor, 1);
      continue;
    }
    ++cursor;
    if (*cursor == '\0') break;  // A lone "%" at the end stands for nothing.
    const std::string* token = nullptr;
    switch (*cursor) {
      case 'p': token = &tokens.pid; break;
      case 'r': token = &tokens.rank; break;
      case 't': token = &thread_id; break;
      case 'T': token = &time; break;
      case 'h': token = &tokens.host; break;
      default: break;
    }
    if (token != nullptr) {
      append(token->data(), token->size());
    } else {
      append(cursor, 1);
    }
  }
  out[std::min(position, size - 1)] = '\0';
  return out;
}

}  // namespace ceilmeter
