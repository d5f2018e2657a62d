/* without_tool_lines COMMAND...: runs the command with a pipe as its standard output and hands on what comes, but for
   the lines that the tool itself prints. For everyone else it is the command: a signal that it gets goes on to the
   command, it ends as the command has ended, and descriptors, environment and process group are inherited.

   If a word of the command ends in /%p.json, where the tool writes its process id, and the command has ended with an
   exit status without such a file, that is told on standard error. The closing lines would not do: they are lost where
   the application has closed its standard output. REPLACES_ITSELF in the environment says that the application is known
   to go on as another program, which is not traced.

   A comparison also runs the native side in it, so that both have the same kind of standard output. If standard output
   and error are one file, they become one pipe: the order of what is written stays. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static const char line_start[] = "CEILMETER: ";
static const char* const tool_lines[] = {"Start collection for ", "Launch application to do binary instrumentation of ",
                                         "Processing all collected data", "Result is captured at ", "Run \"ceilview "};
enum { MARK = sizeof line_start - 1, LONGEST = 16384 };

static volatile pid_t child;
static volatile sig_atomic_t child_ended;
static char held[LONGEST]; /* What may be a line of the tool's, up to its newline. */
static size_t held_size;

static void hand_on(const char* text, size_t size) {
  while (size > 0) {
    const ssize_t written = write(STDOUT_FILENO, text, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return; /* The reader is gone, as it may be natively. */
    text += written;
    size -= (size_t)written;
  }
}

static bool is_tool_line(void) {
  for (size_t i = 0; i < sizeof tool_lines / sizeof *tool_lines; ++i) {
    const size_t size = strlen(tool_lines[i]);
    if (held_size >= MARK + size && memcmp(held + MARK, tool_lines[i], size) == 0) return true;
  }
  return false;
}

static void take(const char* text, size_t size) {
  size_t begin = 0; /* Of what is neither held nor handed on. */
  for (size_t i = 0; i < size; ++i) {
    if (held_size >= MARK || text[i] == line_start[held_size]) {
      if (held_size == 0) hand_on(text + begin, i - begin);
      held[held_size++] = text[i];
      begin = i + 1;
      const bool whole = held_size > MARK && text[i] == '\n';
      if (!whole && held_size < LONGEST) continue;
      if (!is_tool_line()) hand_on(held, held_size);
      held_size = 0;
    } else if (held_size > 0) { /* Only the first letter begins the mark, so no shorter start is in what was held. */
      hand_on(held, held_size);
      held_size = 0;
      --i;
    }
  }
  if (held_size == 0) hand_on(text + begin, size - begin);
}

static void on_signal(int number) {
  if (number == SIGCHLD) {
    child_ended = 1;
  } else {
    kill(child, number);
  }
}

/* Reads until the pipe has no writer, or the command has ended and left nothing in it: what it has started may live on
   and keep the pipe. */
static void relay(int from, const sigset_t* open_mask) {
  for (;;) {
    static char text[65536];
    struct pollfd ready = {.fd = from, .events = POLLIN};
    const struct timespec now = {0, 0};
    const bool ended = child_ended;
    if (ppoll(&ready, 1, ended ? &now : NULL, open_mask) < 0 && errno == EINTR) continue;
    if (ready.revents == 0) {
      if (ended) return;
      continue;
    }
    const ssize_t size = read(from, text, sizeof text);
    if (size <= 0) return;
    take(text, (size_t)size);
  }
}

static void catch_signals(void) {
  struct sigaction action = {.sa_handler = on_signal};
  sigfillset(&action.sa_mask);
  for (int number = 1; number < NSIG; ++number) {
    const bool own = number == SIGSEGV || number == SIGBUS || number == SIGILL || number == SIGFPE || number == SIGPIPE;
    if (!own && number != SIGTSTP && number != SIGCONT) sigaction(number, &action, NULL);
  }
  signal(SIGPIPE, SIG_IGN);
}

static bool lacks_result(char** words) {
  static const char name[] = "/%p.json";
  for (; *words != NULL; ++words) {
    const size_t size = strlen(*words);
    if (size < sizeof name || strcmp(*words + size - (sizeof name - 1), name) != 0) continue;
    char path[4096];
    snprintf(path, sizeof path, "%.*s/%d.json", (int)(size - (sizeof name - 1)), *words, (int)child);
    return access(path, F_OK) != 0;
  }
  return false;
}

static int end_as(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  const struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  signal(WTERMSIG(status), SIG_DFL);
  sigset_t mask;
  sigfillset(&mask);
  sigdelset(&mask, WTERMSIG(status));
  kill(getpid(), WTERMSIG(status));
  sigprocmask(SIG_SETMASK, &mask, NULL);
  return 128 + WTERMSIG(status);
}

int main(int argc, char** argv) {
  int ends[2];
  if (argc < 2 || pipe2(ends, O_CLOEXEC) != 0) return 125;
  struct stat out, err;
  const bool one_file = fstat(STDOUT_FILENO, &out) == 0 && fstat(STDERR_FILENO, &err) == 0 &&
                        out.st_dev == err.st_dev && out.st_ino == err.st_ino;
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &before);
  child = fork();
  if (child < 0) return 125;
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    if (one_file) dup2(ends[1], STDERR_FILENO);
    sigprocmask(SIG_SETMASK, &before, NULL);
    execvp(argv[1], argv + 1);
    perror(argv[1]);
    _exit(errno == ENOENT ? 127 : 126);
  }
  close(ends[1]);
  catch_signals();
  sigset_t open_mask;
  sigemptyset(&open_mask);
  relay(ends[0], &open_mask);
  close(ends[0]);
  hand_on(held, held_size);
  sigprocmask(SIG_SETMASK, &open_mask, NULL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  if (WIFEXITED(status) && getenv("REPLACES_ITSELF") == NULL && lacks_result(argv)) {
    fprintf(stderr, "no result of %s\n", argv[argc - 1]);
  }
  return end_as(status);
}
