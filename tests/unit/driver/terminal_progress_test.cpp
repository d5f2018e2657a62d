// The line on a terminal, seen from the terminal's other end.
#include "terminal_progress.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "../support/captured_log.h"

namespace ceilmeter {
namespace {

// While one lives, standard error is a terminal of `width` columns.
class terminal {
 public:
  explicit terminal(unsigned short width) : m_own(posix_openpt(O_RDWR | O_NOCTTY)), m_before(dup(STDERR_FILENO)) {
    grantpt(m_own);
    unlockpt(m_own);
    const int end = open(ptsname(m_own), O_RDWR | O_NOCTTY);
    const winsize size = {25, width, 0, 0};
    ioctl(end, TIOCSWINSZ, &size);
    dup2(end, STDERR_FILENO);
    close(end);
    fcntl(m_own, F_SETFL, O_NONBLOCK);
    setenv("TERM", "xterm", 1);
  }
  ~terminal() {
    dup2(m_before, STDERR_FILENO);
    close(m_before);
    close(m_own);
  }
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  // Compares the text on the screen with `expected`. The kernel hands text from one end of a terminal to the other by a
  // thread of its own, so on a busy machine the end of the text may take a while to come.
  void expect_text(const std::string& expected) const {
    std::string text;
    char buffer[4096];
    pollfd readable = {m_own, POLLIN, 0};
    while (text.size() < expected.size() && poll(&readable, 1, 30'000) == 1) {
      const ssize_t got = read(m_own, buffer, sizeof buffer);
      if (got <= 0) break;
      text.append(buffer, static_cast<std::size_t>(got));
    }
    const ssize_t more = read(m_own, buffer, sizeof buffer);
    if (more > 0) text.append(buffer, static_cast<std::size_t>(more));
    EXPECT_EQ(text, expected);
  }

 private:
  int m_own;
  int m_before;
};

TEST(terminal_progress, line_overwrites_the_one_before_and_is_gone_at_the_end) {
  const terminal screen(80);
  {
    terminal_progress progress;
    progress.show("first");
    progress.show("second");
  }
  screen.expect_text("\r\033[KCEILMETER: first\r\r\033[KCEILMETER: second\r\r\033[K");
}

TEST(terminal_progress, line_is_cut_to_the_terminals_width) {
  const terminal screen(16);
  terminal_progress progress;
  progress.show("first");
  screen.expect_text("\r\033[KCEILMETER: firs\r");
}

TEST(terminal_progress, nothing_is_written_where_there_is_no_terminal) {
  const test::captured_log captured;
  {
    terminal_progress progress;
    progress.show("first");
  }
  EXPECT_EQ(captured.text(), "");
}

TEST(terminal_progress, nothing_is_written_to_a_terminal_that_cannot_clear_a_line) {
  const terminal screen(80);
  setenv("TERM", "dumb", 1);
  terminal_progress progress;
  progress.show("first");
  ASSERT_EQ(write(STDERR_FILENO, ".", 1), 1);  // When it has come, all that was written before it has come, too.
  screen.expect_text(".");
}

TEST(remaining_seconds, is_a_second_a_step_at_first_and_then_what_the_steps_took) {
  EXPECT_EQ(remaining_seconds(0, 13, 0.0), 13U);
  EXPECT_EQ(remaining_seconds(3, 10, 6.0), 20U);
  EXPECT_EQ(remaining_seconds(3, 1, 3.3), 2U);
  EXPECT_EQ(remaining_seconds(13, 0, 13.0), 0U);
}

}  // namespace
}  // namespace ceilmeter
