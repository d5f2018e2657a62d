// What the handler of a fault finds: fault_places [ROUNDS]. The program counter is that of the access, and all
// registers are those of the access, in code that runs once and in loops. A handler that repairs the page and returns
// goes on with the same access; one that moves the program counter on skips it. A jump to memory that is not mapped
// faults at the target, and runs what is mapped there later.
#include <pthread.h>
#include <setjmp.h>
#include <stdint.h>
#include <string.h>
#include <ucontext.h>

#include "guard.h"

enum { PLACES = 1500, FIRST_BAD = 1000, STEP = 50 };

#define LOOPS(X) X(load) X(store) X(pair) X(vector) X(exclusive) X(structures)
#define DECLARE(name)                                \
  long loop_##name(char* const* places, long count); \
  extern char at_##name[];
LOOPS(DECLARE)
extern char at_call[];
long call_to(void* code, long argument);

struct fault_loop {
  const char* name;
  long (*run)(char* const* places, long count);
  char* at;
};
#define ROW(name) {#name, loop_##name, at_##name},
static const struct fault_loop loops[] = {LOOPS(ROW)};

static char* good;
static char* bad;
static long page;
static char* volatile expected_pc;
static volatile int skips;
static volatile int faults;
static volatile int wrong;
static sigjmp_buf out;

static void expect(int holds, const char* what) {
  if (holds) return;
  wrong = 1;
  dprintf(STDERR_FILENO, "in the handler: %s\n", what);
}

static void repair_or_skip(int number, siginfo_t* info, void* context) {
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  ++faults;
  expect(number == SIGSEGV && (char*)info->si_addr >= bad && (char*)info->si_addr < bad + page,
         "the address of the access");
  expect(state->pc == (uint64_t)expected_pc, "pc");
  expect(state->regs[2] == (uint64_t)bad, "x2");
  expect(state->regs[5] == (uint64_t)expected_pc, "x5");
  expect(state->regs[6] == (uint64_t)__builtin_thread_pointer(), "x6");
  expect(state->regs[7] == 0x123456789abcdef0, "x7");
  expect((state->regs[9] & 1) == 1 && state->regs[9] / 2 >= FIRST_BAD, "x9");
  if (skips) {
    state->pc += 4;
  } else {
    expect(mprotect(bad, (size_t)page, PROT_READ | PROT_WRITE) == 0, "mprotect");
  }
}

static void run_loop(const struct fault_loop* loop) {
  char* places[PLACES];
  int bad_ones = 0;
  for (int place = 0; place < PLACES; ++place) {
    const int is_bad = place >= FIRST_BAD && place % STEP == 0;
    places[place] = is_bad ? bad : good;
    bad_ones += is_bad;
  }
  for (skips = 0; skips < 2; ++skips) {
    faults = 0;
    expected_pc = loop->at;
    CHECK(mprotect(bad, (size_t)page, PROT_NONE) == 0);
    CHECK(loop->run(places, PLACES) == 2 * PLACES);
    CHECK(!wrong);
    CHECK(faults == (skips ? bad_ones : 1));
  }
}

static void leave_call(int number, siginfo_t* info, void* context) {
  const mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  ++faults;
  expect(number == SIGSEGV && info->si_addr == (void*)expected_pc, "the address of the code");
  expect(state->pc == (uint64_t)expected_pc, "pc");
  expect(state->regs[30] == (uint64_t)at_call + 4, "x30");
  expect(state->regs[0] == 77, "x0");
  for (int reg = 1; reg < 8; ++reg) expect(state->regs[reg] == 0x1100u + (unsigned)reg, "an argument of the call");
  siglongjmp(out, 1);
}

// Code that returns its argument plus `number`, in memory that was not executable before.
static void map_code(char* place, unsigned number) {
  CHECK(mprotect(place, (size_t)page, PROT_READ | PROT_WRITE) == 0);
  const uint32_t code[] = {0x91000000 | number << 10, 0xd65f03c0};  // add x0, x0, #number; ret
  memcpy(place, code, sizeof code);
  CHECK(mprotect(place, (size_t)page, PROT_READ | PROT_EXEC) == 0);
  __builtin___clear_cache(place, place + sizeof code);
}

static void call_nothing(void) {
  faults = 0;
  expected_pc = bad;
  if (sigsetjmp(out, 1) == 0) {
    call_to(bad, 77);
    CHECK(0);
  }
  CHECK(faults == 1 && !wrong);
}

static void call_what_is_not_there(void) {
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = leave_call;
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  for (unsigned number = 1; number <= 3; ++number) {
    CHECK(mprotect(bad, (size_t)page, PROT_NONE) == 0);
    call_nothing();
    map_code(bad, number);
    CHECK(call_to(bad, 77) == 77 + (long)number);
  }
}

static char* volatile brk_at;
extern char stop_one[], stop_two[];
static void pass_brk(int number, siginfo_t* info, void* context) {
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  ++faults;
  expect(number == SIGTRAP || number == SIGILL, "the number");
  expect(state->pc == (uint64_t)brk_at && info->si_addr == (void*)brk_at, "pc and address of a stop");
  state->pc += 4;
}

static void pass_stops(void) {
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = pass_brk;
  CHECK(sigaction(SIGTRAP, &action, NULL) == 0 && sigaction(SIGILL, &action, NULL) == 0);
  faults = 0;
  long sum = 0;
  for (int round = 0; round < 600; ++round) {
    brk_at = stop_one;
    __asm__ volatile("add %0, %0, #1\n.globl stop_one\nstop_one: brk #3\n\tadd %0, %0, #1" : "+r"(sum)::"memory");
    brk_at = stop_two;
    __asm__ volatile("add %0, %0, #1\n.globl stop_two\nstop_two: udf #9\n\tadd %0, %0, #1" : "+r"(sum)::"memory");
  }
  CHECK(sum == 2400 && faults == 1200 && !wrong);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  page = sysconf(_SC_PAGESIZE);
  good = mmap(NULL, (size_t)page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  bad = mmap(NULL, (size_t)page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(good != MAP_FAILED && bad != MAP_FAILED);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    struct sigaction action = {.sa_flags = SA_SIGINFO};
    action.sa_sigaction = repair_or_skip;
    CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
    for (size_t index = 0; index < sizeof loops / sizeof *loops; ++index) {
      run_loop(&loops[index]);
      if (round == 0) printf("%s: repaired and skipped\n", loops[index].name);
    }
    call_what_is_not_there();
    pass_stops();
  }
  puts("calls and stops are where they are");
  return 0;
}
