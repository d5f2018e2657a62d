/* Works, and then ends by a signal that it does not handle:
 *
 *   ended WAY SIGNAL
 *
 * raise: raises it. waiting: tells "ready", and waits for it in the kernel. computing: tells "ready", and computes for
 * ever. among_threads: one of four threads sends it, while the others compute, sleep, and wait for a lock. blocked: it
 * comes while it is blocked, and strikes when that ends. once: a handler for a single time has run before.
 * default_again: it had a handler before. other_stack: on an alternative stack, out of a handler of SIGUSR2.
 *
 * overflow, write: a fault, on the main stack without room, and at address 8; with SIGNAL 1 there is an alternative
 * stack. child: a child ends by it, the program itself exits with its number. exec: another program is executed, and
 * reads its dispositions. actions: what the program reads of the signal's action. no_core: as raise, after it has
 * forbidden itself a core file. */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static volatile double sink = 1.0;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int number;
static char other_stack[1 << 16];

static void work(long rounds) {
  for (long round = 0; round < rounds; ++round) sink = sink * 0.5 + 1.0;
}

static void compute(void) {
  for (;;) work(1000);
}

static void nothing(int signum) { (void)signum; }

static void raise_it(int signum) {
  (void)signum;
  raise(number);
}

static void handle(int signum, void (*handler)(int), int flags) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = handler;
  action.sa_flags = flags;
  if (sigaction(signum, &action, NULL) != 0) exit(2);
}

static void use_other_stack(void) {
  const stack_t stack = {.ss_sp = other_stack, .ss_size = sizeof other_stack};
  if (sigaltstack(&stack, NULL) != 0) exit(2);
}

static void* computing_thread(void* argument) {
  compute();
  return argument;
}

static void* sleeping_thread(void* argument) {
  for (;;) pause();
  return argument;
}

static void* locked_thread(void* argument) {
  pthread_mutex_lock(&lock);
  return argument;
}

static void* sending_thread(void* argument) {
  usleep(50000);
  kill(getpid(), number);
  compute();
  return argument;
}

static void among_threads(void) {
  static void* (*const threads[])(void*) = {computing_thread, sleeping_thread, locked_thread, sending_thread};
  pthread_t thread;
  pthread_mutex_lock(&lock);
  for (int index = 0; index < 4; ++index)
    if (pthread_create(&thread, NULL, threads[index], NULL) != 0) exit(2);
  compute();
}

static void blocked(void) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  sigprocmask(SIG_BLOCK, &set, NULL);
  raise(number);
  work(1000);
  puts("blocked");
  fflush(stdout);
  sigprocmask(SIG_UNBLOCK, &set, NULL);
}

static int overflow(int depth) {
  volatile char room[4096];
  room[0] = (char)depth;
  return overflow(depth + 1) + room[0];
}

static int child(void) {
  const pid_t pid = fork();
  if (pid == 0) {
    work(1000);
    raise(number);
    _exit(5);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFSIGNALED(status)) exit(2);
  return WTERMSIG(status);
}

static void tell_actions(void) {
  struct sigaction action;
  if (sigaction(number, NULL, &action) != 0) exit(2);
  printf("%d %x\n", action.sa_handler == SIG_DFL, (unsigned)action.sa_flags);
  handle(number, SIG_DFL, SA_RESTART);
  if (sigaction(number, NULL, &action) != 0) exit(2);
  printf("%d %x\n", action.sa_handler == SIG_DFL, (unsigned)action.sa_flags);
}

static int end(const char* way) {
  const struct rlimit no_core = {0, 0};
  if (strcmp(way, "no_core") == 0) setrlimit(RLIMIT_CORE, &no_core);
  if (strcmp(way, "raise") == 0 || strcmp(way, "no_core") == 0) raise(number);
  if (strcmp(way, "waiting") == 0 || strcmp(way, "computing") == 0) {
    puts("ready");
    fflush(stdout);
    if (strcmp(way, "computing") == 0) compute();
    for (;;) pause();
  }
  if (strcmp(way, "among_threads") == 0) among_threads();
  if (strcmp(way, "blocked") == 0) blocked();
  if (strcmp(way, "once") == 0 || strcmp(way, "default_again") == 0) {
    const int once = strcmp(way, "once") == 0;
    handle(number, nothing, once ? (int)SA_RESETHAND : 0);
    raise(number);
    if (!once) handle(number, SIG_DFL, 0);
    puts("handled");
    fflush(stdout);
    raise(number);
  }
  if (strcmp(way, "other_stack") == 0) {
    use_other_stack();
    handle(SIGUSR2, raise_it, SA_ONSTACK);
    raise(SIGUSR2);
  }
  if ((strcmp(way, "overflow") == 0 || strcmp(way, "write") == 0) && number == 1) use_other_stack();
  if (strcmp(way, "overflow") == 0) return overflow(0);
  if (strcmp(way, "write") == 0) *(volatile int*)8 = 1;
  if (strcmp(way, "child") == 0) return child();
  if (strcmp(way, "actions") == 0) tell_actions();
  if (strcmp(way, "exec") == 0) execl("/bin/grep", "grep", "^SigCgt", "/proc/self/status", (char*)NULL);
  return 3;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  number = atoi(argv[2]);
  work(1000);
  return end(argv[1]);
}
