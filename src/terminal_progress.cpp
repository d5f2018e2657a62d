// Written without a stream, and a failure is ignored: nothing depends on the line.
#include "terminal_progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string_view>

namespace ceilmeter {

namespace {

constexpr std::string_view clear_line = "\r\033[K";

void write_text(std::string_view text) {
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

// A terminal that cannot clear a line gets none.
bool can_clear_a_line() {
  const char* kind = std::getenv("TERM");
  return isatty(STDERR_FILENO) != 0 && kind != nullptr && std::string_view(kind) != "dumb";
}

}  // namespace

terminal_progress::terminal_progress() : m_is_terminal(can_clear_a_line()) {}

terminal_progress::~terminal_progress() { clear(); }

void terminal_progress::clear() {
  if (m_is_shown) write_text(clear_line);
  m_is_shown = false;
}

void terminal_progress::show(const std::string& text) {
  if (!m_is_terminal) return;
  std::string line = "CEILMETER: " + text;
  winsize size{};
  // A line that fills the width moves the cursor on.
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 && line.size() >= size.ws_col) {
    line.resize(size.ws_col - 1U);
  }
  write_text(std::string(clear_line) + line + '\r');
  m_is_shown = true;
}

std::uint64_t remaining_seconds(std::uint64_t done, std::uint64_t left, double elapsed) {
  const double each = done == 0 ? 1.0 : elapsed / static_cast<double>(done);
  return static_cast<std::uint64_t>(std::ceil(each * static_cast<double>(left)));
}

}  // namespace ceilmeter
