// stack_end [ROUNDS]: code runs with its stack pointer at the very end of its stack, and needs no stack. It hears of no
// fault. A push of its own faults there, and its handler finds that push. A handler that leaves a stack overflow to
// code elsewhere may leave the stack pointer where it is. Signals reach code at the end of its stack, and find it
// there, also where they interrupt a call over and over.
#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "guard.h"

enum { ROOM = 0x20000, HALF = ROOM / 2 };

extern char the_push[];
void escape(void);
long run_at(void* sp);
long push_at(void* sp);
long spin_at(void* sp, volatile int* word);
long read_at(void* sp, int file, void* byte);
long call_and_keep(long (*function)(long));

static char* stack;
static volatile int faults;
static volatile uint64_t fault_pc;
static volatile uint64_t fault_sp;
static volatile uint64_t fault_address;
static volatile int leaves;       // The fault's handler goes on at `escape`,
static volatile uint64_t new_sp;  // with this stack pointer if it is not 0.

static void hear(int number, siginfo_t* info, void* context) {
  (void)number;
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  ++faults;
  fault_pc = state->pc;
  fault_sp = state->sp;
  fault_address = (uint64_t)info->si_addr;
  if (leaves) {
    state->pc = (uint64_t)escape;
    if (new_sp != 0) state->sp = new_sp;
  } else {
    state->pc += 4;
  }
}

static void handle(int number, void (*handler)(int, siginfo_t*, void*), int flags) {
  struct sigaction action = {.sa_flags = SA_SIGINFO | SA_ONSTACK | flags};
  action.sa_sigaction = handler;
  CHECK(sigaction(number, &action, NULL) == 0);
}

static void runs_at_the_end(char* end) {
  for (int room = 0; room < 0x60; room += 16) CHECK(run_at(end + room) == 0x1234);
  CHECK(faults == 0);
}

static void faults_by_its_own_push(char* end) {
  for (int room = 0; room < 0x40; room += 16) {
    faults = 0;
    CHECK(push_at(end + room) == 7);
    CHECK(faults == (room == 0));
    if (room == 0) CHECK(fault_pc == (uint64_t)the_push && fault_sp == (uint64_t)end);
    if (room == 0) CHECK(fault_address == (uint64_t)end - 16);
  }
  faults = 0;
}

static volatile long depth_wanted = -1;
__attribute__((noinline)) static long deeper(long depth) {
  volatile char space[176];
  space[0] = (char)depth;
  if (depth == depth_wanted) return 0;  // Never.
  return deeper(depth + 1) + space[0];
}

static ucontext_t outside;
static long result_of_escape;
static void overflow(void) { result_of_escape = call_and_keep(deeper); }

static long on_small_stack(void) {
  static ucontext_t inside;
  CHECK(getcontext(&inside) == 0);
  inside.uc_stack.ss_sp = stack + HALF;
  inside.uc_stack.ss_size = HALF;
  inside.uc_link = &outside;
  makecontext(&inside, overflow, 0);
  result_of_escape = 0;
  CHECK(swapcontext(&outside, &inside) == 0);
  return result_of_escape;
}

static void leaves_an_overflow(char* end) {
  leaves = 1;
  for (int room = -16; room < 0x40; room += 16) {
    new_sp = room < 0 ? 0 : (uint64_t)(end + room);  // The first time it stays where the overflow has left it.
    faults = 0;
    CHECK(on_small_stack() == 0x77);
    CHECK(faults == 1);
  }
  leaves = 0;
  faults = 0;
}

static volatile int heard;
static volatile uint64_t expected_sp;
static volatile int stop;
static const struct itimerval soon = {{0, 0}, {0, 1000}};
static void count(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  const uint64_t sp = ((ucontext_t*)context)->uc_mcontext.sp;
  CHECK(sp == expected_sp || sp < (uint64_t)stack || sp >= (uint64_t)stack + ROOM);
  if (sp == expected_sp) ++heard;
  stop = heard >= 10;
  if (!stop) CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
}

static void hears_signals(char* end) {
  handle(SIGALRM, count, 0);
  for (int room = 0; room < 0x40; room += 16) {
    heard = stop = 0;
    expected_sp = (uint64_t)(end + room);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    CHECK(spin_at(end + room, &stop) == (long)(end + room));
  }
  CHECK(faults == 0);
}

static volatile int ticks;
static void tick(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  const uint64_t sp = ((ucontext_t*)context)->uc_mcontext.sp;
  CHECK(sp == expected_sp || sp < (uint64_t)stack || sp >= (uint64_t)stack + ROOM);
  if (sp == expected_sp) ++ticks;
}

// A call sleeps, and signals that come faster than they are handled interrupt it. It is made again after each of them.
static void sleeps_in_a_flood(char* end) {
  handle(SIGALRM, tick, SA_RESTART);
  for (int room = 0; room < 0x40; room += 16) {
    int ends[2];
    CHECK(pipe(ends) == 0);
    const pid_t child = fork();
    CHECK(child >= 0);
    if (child == 0) {
      const struct timespec while_the_parent_reads = {0, 100000000};
      nanosleep(&while_the_parent_reads, NULL);
      _exit(write(ends[1], "x", 1) == 1 ? 0 : 1);
    }
    ticks = 0;
    expected_sp = (uint64_t)(end + room);
    const struct itimerval often = {{0, 50}, {0, 50}};
    CHECK(setitimer(ITIMER_REAL, &often, NULL) == 0);
    char byte = 0;
    CHECK(read_at(end + room, ends[0], &byte) == 1 && byte == 'x');
    const struct itimerval never = {{0, 0}, {0, 0}};
    CHECK(setitimer(ITIMER_REAL, &never, NULL) == 0);
    CHECK(ticks > 0);
    int status = -1;
    CHECK(waitpid(child, &status, 0) == child && status == 0);
    CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
  }
  CHECK(faults == 0);
}

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? atoi(argv[1]) : 3;
  stack = mmap(NULL, ROOM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  CHECK(mprotect(stack, HALF, PROT_NONE) == 0);
  char* const end = stack + HALF;
  static char other[65536];
  const stack_t place = {.ss_sp = other, .ss_size = sizeof other};
  CHECK(sigaltstack(&place, NULL) == 0);
  runs_at_the_end(end);  // Without a handler.
  handle(SIGSEGV, hear, 0);
  for (int round = 0; round < rounds; ++round) {
    runs_at_the_end(end);
    faults_by_its_own_push(end);
    leaves_an_overflow(end);
  }
  hears_signals(end);
  sleeps_in_a_flood(end);
  puts("it runs to the end");
  return 0;
}
