// small_stacks [BYTES]: handlers with hardly any stack. They run on signal stacks of the smallest size that a frame
// fits plus BYTES, with memory below that faults; on the usual stack with as much room; and where a frame does not fit.
#include <errno.h>
#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "syscalls/check.h"

#ifndef AT_MINSIGSTKSZ
#define AT_MINSIGSTKSZ 51
#endif

enum { ROOM = 256 * 1024, GUARD = 64 * 1024, LEAST = 5120 };
static char* room;  // Of ROOM bytes that can be written, behind GUARD bytes that cannot.
static volatile int seen;
static volatile int on_it;

static void note(int number) { seen = number; }

// The lowest address of a stack of that size, which lies just above memory that faults.
static size_t smallest(void) {
  const size_t told = getauxval(AT_MINSIGSTKSZ);
  return told > LEAST ? told : LEAST;
}

static void set(char* place, size_t size) {
  const stack_t wanted = {.ss_sp = place, .ss_size = size};
  CHECK(sigaltstack(&wanted, NULL) == 0);
}

static void handle(int number, void (*handler)(int), int flags) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = handler;
  action.sa_flags = flags;
  CHECK(sigaction(number, &action, NULL) == 0);
}

// The stack begins where writing faults, so that one byte too many shows.
static void on_smallest(size_t more) {
  handle(SIGUSR1, note, SA_ONSTACK);
  set(room, smallest() + more);
  for (int round = 0; round < 300; ++round) {
    seen = 0;
    raise(SIGUSR1);
    CHECK(seen == SIGUSR1);
  }
  puts("on the smallest stack");
}

// Signals that find the program in a loop and not in a call.
static void in_a_loop(size_t more) {
  handle(SIGALRM, note, SA_ONSTACK);
  set(room, smallest() + more);
  for (int round = 0; round < 20; ++round) {
    seen = 0;
    ualarm(1000, 0);
    volatile long steps = 0;
    while (seen == 0) ++steps;
  }
  puts("in loops");
}

static sigjmp_buf out;
static void overflow(int number, siginfo_t* info, void* context) {
  const char here = 0;
  (void)context;
  on_it = &here >= room && &here < room + ROOM;
  siglongjmp(out, number == SIGSEGV && info->si_addr != NULL ? 1 : 2);
}

__attribute__((noinline)) static long deeper(long depth) {
  volatile char space[512];
  space[0] = (char)depth;
  if (depth < 0) return 0;  // Not before the stack is at its end.
  return deeper(depth + 1) + space[0];
}

static void handle_overflow(int flags) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = overflow;
  action.sa_flags = SA_SIGINFO | flags;
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
}

static void out_of_overflow(void) {
  handle_overflow(SA_ONSTACK);
  set(room, ROOM);
  for (int round = 0; round < 3; ++round) {
    on_it = 0;
    const int result = sigsetjmp(out, 1);
    if (result == 0) printf("%ld\n", deeper(1));
    CHECK(result == 1 && on_it);
  }
  puts("out of an overflow");
}

// What becomes of a child whose signal stack is too small for its frame.
static void status_of(const char* what, void (*body)(void)) {
  fflush(stdout);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    body();
    fflush(stdout);
    _exit(0);
  }
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child);
  printf("%s: exit %d, signal %d\n", what, WIFEXITED(status) ? WEXITSTATUS(status) : -1,
         WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

// A stack whose lower part has been unmapped by the time the frame is written.
static void lose_stack(void) {
  char* part = mmap(NULL, ROOM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(part != MAP_FAILED);
  set(part, ROOM);
  CHECK(mprotect(part, ROOM, PROT_READ) == 0);
}

static void no_room(void) {
  lose_stack();
  handle(SIGUSR1, note, SA_ONSTACK);
  raise(SIGUSR1);
}

static void no_room_for_segv(void) {
  lose_stack();
  handle_overflow(SA_ONSTACK);
  if (sigsetjmp(out, 1) == 0) *(volatile char*)(room - 1) = 1;
}

// SIGSEGV itself finds room: it goes to the usual stack, with the place at which the lost signal had arrived.
static void told(int number, siginfo_t* info, void* context) {
  (void)context;
  printf("SIGSEGV in its place: %d, code %d, seen %d\n", number, info->si_code, seen);
  fflush(stdout);
  _exit(3);
}

static void room_for_segv(void) {
  lose_stack();
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = told;
  action.sa_flags = SA_SIGINFO;
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  handle(SIGUSR1, note, SA_ONSTACK);
  raise(SIGUSR1);
}

static void segv_blocked(void) {
  sigset_t segv;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  sigprocmask(SIG_BLOCK, &segv, NULL);
  room_for_segv();
}

static void deeper_without_stack(void) {
  handle_overflow(0);
  printf("%ld\n", deeper(1));
}

int main(int argc, char** argv) {
  const size_t more = argc > 1 ? strtoul(argv[1], NULL, 0) : 0;
  char* area = mmap(NULL, GUARD + ROOM, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(area != MAP_FAILED);
  room = area + GUARD;
  CHECK(mprotect(room, ROOM, PROT_READ | PROT_WRITE) == 0);
  on_smallest(more);
  in_a_loop(more);
  out_of_overflow();
  handle(SIGSEGV, SIG_DFL, 0);
  set(room, ROOM);
  status_of("no room", no_room);
  status_of("no room for SIGSEGV", no_room_for_segv);
  status_of("room for SIGSEGV", room_for_segv);
  status_of("SIGSEGV blocked", segv_blocked);
  status_of("an overflow without a stack", deeper_without_stack);
  return 0;
}
