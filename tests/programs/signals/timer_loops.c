// An interval timer at 1 kHz in loops of every kind: timer_loops [ROUNDS]. Each loop is left once three signals have
// found it in its own code; its registers are what they were, and the handlers have seen them.
#include <asm/hwcap.h>
#include <string.h>
#include <sys/auxv.h>
#include <ucontext.h>

#include "guard.h"

#define LOOP(name)                   \
  long loop_##name(volatile int*);   \
  extern char loop_##name##_begin[]; \
  extern char loop_##name##_end[];   \
  extern char loop_##name##_out[];
#define EVERY_LOOP(what)                                                                                          \
  what(compare_zero) what(condition) what(bit) what(two_blocks) what(br_x0) what(br_x1) what(br_x2) what(blr_x30) \
      what(call) what(system_call) what(long_block) what(forever) what(forever_register) what(signed_call)        \
          what(forever_signed)
EVERY_LOOP(LOOP)

struct loop {
  const char* name;
  long (*run)(volatile int*);
  const char* begin;
  const char* end;
  const char* out;
};
#define ENTRY(name) {#name, loop_##name, loop_##name##_begin, loop_##name##_end, loop_##name##_out},
static const struct loop loops[] = {EVERY_LOOP(ENTRY)};

static const struct loop* running;
static volatile int flag;
static volatile int inside;
static volatile int strange;

static void tick(int number, siginfo_t* info, void* context) {
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  timer_ticked();
  if (number != SIGALRM || info->si_signo != SIGALRM) ++strange;
  if (state->pc < (unsigned long)running->begin || state->pc >= (unsigned long)running->end) return;
  for (int reg = 3; reg < 30; ++reg) {
    if (reg != 8 && state->regs[reg] != ((0x2200UL + (unsigned long)reg) << 48 | (0x1100UL + (unsigned long)reg)))
      ++strange;
  }
  if (++inside < 3) return;
  flag = 1;
  if (strncmp(running->name, "forever", 7) == 0) state->pc = (unsigned long)running->out;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = tick;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (unsigned index = 0; index < sizeof loops / sizeof *loops; ++index) {
      if (strstr(loops[index].name, "signed") != NULL && (getauxval(AT_HWCAP) & HWCAP_PACA) == 0) continue;
      running = &loops[index];
      inside = 0;
      flag = 0;
      timer_set(1000);
      const long changed = running->run(&flag);
      timer_set(0);
      if (changed != 0 || strange != 0)
        fprintf(stderr, "%s: %ld changed, %d strange\n", running->name, changed, strange);
      CHECK(changed == 0 && strange == 0 && inside >= 3);
      if (round == 0) printf("%s left intact\n", running->name);
    }
  }
  return 0;
}
