// Calls that the engine looks into, at the limits of their arguments. Prints every result and error. At the end the
// program executes itself once more, and that run tells what it has inherited.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

static void show(const char* what, long result) {
  printf("%s: %ld, %s\n", what, result, result == -1 ? strerror(errno) : "no error");
  fflush(stdout);
}
#define SHOW(call) (errno = 0, show(#call, (long)(call)))

// Hidden from the compiler, which knows that nothing lies at that address.
static void* at(volatile unsigned long address) { return (void*)address; }

static volatile int handled;
static volatile int depth;
static volatile int deepest;

static void count(int number) {
  (void)number;
  ++handled;
}

static void nest(int number) {
  if (++depth > deepest) deepest = depth;
  if (++handled < 3) raise(number);
  --depth;
}

static void set(int number, void (*handler)(int), int flags) {
  struct sigaction action = {.sa_flags = flags};
  action.sa_handler = handler;
  CHECK(sigaction(number, &action, NULL) == 0);
  handled = depth = deepest = 0;
}

static void handlers(void) {
  set(SIGUSR1, nest, SA_NODEFER);
  raise(SIGUSR1);
  printf("not deferred: %d deep\n", deepest);
  set(SIGUSR1, nest, 0);
  raise(SIGUSR1);
  while (handled < 3) continue;
  printf("deferred: %d deep\n", deepest);
  set(SIGUSR2, count, SA_RESETHAND);
  raise(SIGUSR2);
  struct sigaction now;
  CHECK(sigaction(SIGUSR2, NULL, &now) == 0);
  printf("once: handled %d, default again: %d\n", handled, now.sa_handler == SIG_DFL);
}

// With SIGUSR2 blocked and pending each time.
static void waiting(void) {
  sigset_t one, before, all;
  const struct timespec none = {0, 0};
  const struct timespec second = {1, 0};
  sigemptyset(&one);
  sigaddset(&one, SIGUSR2);
  sigfillset(&all);
  set(SIGUSR2, count, 0);
  CHECK(sigprocmask(SIG_BLOCK, &one, &before) == 0);
  raise(SIGUSR2);
  SHOW(sigtimedwait(&one, NULL, &none));
  SHOW(sigtimedwait(&one, NULL, &none));
  const int fd = signalfd(-1, &one, SFD_NONBLOCK);
  struct signalfd_siginfo info;
  raise(SIGUSR2);
  SHOW(read(fd, &info, sizeof info));
  SHOW(read(fd, &info, sizeof info));
  SHOW(close(fd));
  raise(SIGUSR2);
  SHOW(ppoll(NULL, 0, &second, &before));
  raise(SIGUSR2);
  SHOW(pselect(0, NULL, NULL, NULL, &second, &before));
  raise(SIGUSR2);
  SHOW(sigsuspend(&before));
  printf("handled %d\n", handled);
  raise(SIGUSR2);
  SHOW(pselect(0, NULL, NULL, NULL, &none, &all));
  sigset_t pending;
  SHOW(sigpending(&pending));
  printf("pending %d\n", sigismember(&pending, SIGUSR2));
  char* arguments[] = {NULL, NULL};
  SHOW(execve("/nonexistent", arguments, arguments));
  SHOW(execve("/dev/null", arguments, arguments));
  CHECK(sigprocmask(SIG_SETMASK, &before, NULL) == 0);
  printf("handled %d\n", handled);
}

static void refused_signal_calls(void) {
  unsigned long words[4] = {0, 0, 0, 0};
  SHOW(syscall(SYS_rt_sigprocmask, 99, words, 0, 8));
  SHOW(syscall(SYS_rt_sigprocmask, SIG_BLOCK, 8, 0, 8));
  SHOW(syscall(SYS_rt_sigprocmask, SIG_BLOCK, words, 0, 4));
  SHOW(syscall(SYS_rt_sigaction, 65, words, 0, 8));
  SHOW(syscall(SYS_rt_sigaction, SIGKILL, words, 0, 8));
  SHOW(syscall(SYS_rt_sigaction, SIGUSR1, 8, 0, 8));
  SHOW(syscall(SYS_rt_sigaction, SIGUSR1, words, 0, 4));
  SHOW(sigaltstack(&(stack_t){.ss_sp = words, .ss_size = sizeof words}, NULL));
}

static void memory(void) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  SHOW(mmap(at(1), page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0));
  SHOW(mmap(NULL, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  SHOW(mmap(NULL, page, PROT_READ, MAP_PRIVATE, -1, 0));
  SHOW(munmap(at(1), page));
  SHOW(mprotect(at(page), page, PROT_READ));
  SHOW(mremap(at(page), page, 2 * page, 0));
  SHOW(madvise(at(1), page, MADV_DONTNEED));
  char* end = sbrk(0);
  SHOW(brk(at(1)));
  SHOW(brk(end + 100));
  SHOW((char*)sbrk(0) - end);
  SHOW(brk(end));
  SHOW(brk(at(~0xffffUL)));
  SHOW((char*)sbrk(0) - end);
}

static void others(void) {
  char name[16];
  SHOW(prctl(PR_SET_NAME, "edges"));
  SHOW(prctl(PR_GET_NAME, name));
  puts(name);
  SHOW(personality(0xffffffff));
  SHOW(syscall(SYS_clone, 0x10000, 0, 0, 0, 0));  // A thread that shares nothing.
  SHOW(readlink("/proc/self/exe", at(8), 100));
  SHOW(dup2(1, 1));
  SHOW(dup3(1, 1, 0));
  SHOW(close(-1));
  SHOW(fcntl(999, F_GETFD));
}

static int tell_inherited(void) {
  sigset_t blocked, pending;
  CHECK(sigprocmask(SIG_BLOCK, NULL, &blocked) == 0 && sigpending(&pending) == 0);
  printf("inherited: blocked %d, pending %d, ignored %d, handled by default %d\n", sigismember(&blocked, SIGUSR1),
         sigismember(&pending, SIGUSR1), signal(SIGHUP, SIG_DFL) == SIG_IGN, signal(SIGUSR2, SIG_IGN) == SIG_DFL);
  return 0;
}

int main(int argc, char** argv) {
  if (argc > 1) return tell_inherited();
  handlers();
  waiting();
  refused_signal_calls();
  memory();
  others();
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, SIGUSR1);
  CHECK(sigprocmask(SIG_BLOCK, &one, NULL) == 0);
  raise(SIGUSR1);
  CHECK(signal(SIGHUP, SIG_IGN) != SIG_ERR);
  execl(argv[0], argv[0], "again", NULL);
  return 1;
}
