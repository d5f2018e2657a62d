// stack_end [ROUNDS]: code runs with its stack pointer at the very end of its stack, and needs no stack. If that faults
// all the same, the handler finds an instruction of that code, and the code's own registers. The handler extends the
// stack, and the code goes on.
#include <stdint.h>
#include <stdlib.h>
#include <ucontext.h>

#include "guard.h"

enum { ROOM = 0x20000, HALF = ROOM / 2 };

extern char run_at_end[];
long run_at(void* sp);

static char* stack;
static volatile uint64_t expected_sp;
static volatile int wrong;

static void expect(int holds, const char* what, uint64_t found) {
  if (holds) return;
  wrong = 1;
  dprintf(STDERR_FILENO, "in the handler: %s is 0x%llx\n", what, (unsigned long long)found);
}

static void hear(int number, siginfo_t* info, void* context) {
  (void)number;
  const mcontext_t* state = &((const ucontext_t*)context)->uc_mcontext;
  expect((char*)info->si_addr >= stack && (char*)info->si_addr < stack + HALF, "the address", (uint64_t)info->si_addr);
  expect(state->pc >= (uint64_t)run_at && state->pc < (uint64_t)run_at_end, "pc", state->pc);
  expect(state->sp == expected_sp, "sp", state->sp);
  for (uint64_t reg = 1; reg < 8; ++reg) {
    if (state->regs[1] == 0x101) expect(state->regs[reg] == 0x100 + reg, "a register", state->regs[reg]);
  }
  if (mprotect(stack, HALF, PROT_READ | PROT_WRITE) != 0 || wrong) _exit(1);
}

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? atoi(argv[1]) : 3;
  stack = mmap(NULL, ROOM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  static char other[65536];
  const stack_t place = {.ss_sp = other, .ss_size = sizeof other};
  CHECK(sigaltstack(&place, NULL) == 0);
  struct sigaction action = {.sa_flags = SA_SIGINFO | SA_ONSTACK};
  action.sa_sigaction = hear;
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    for (int room = 0; room < 0x400; room += 16) {
      CHECK(mprotect(stack, HALF, PROT_NONE) == 0);
      expected_sp = (uint64_t)(stack + HALF + room);
      CHECK(run_at(stack + HALF + room) == 0x1234);
    }
  }
  puts("it runs to the end");
  return 0;
}
