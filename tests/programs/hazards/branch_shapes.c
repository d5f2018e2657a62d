// Branches with one target on both sides, which is the next instruction, and branches to themselves. A branch to itself
// that is taken goes on until a signal's handler changes what it tests, or steps over it. The handler does so at the
// branch alone: on a busy machine the timer may fire before the branch is reached.
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <ucontext.h>

#include "../syscalls/check.h"

// Each: long name(void), returning x10 as it is behind the branch, which stands at name_branch.
#define SHAPE(name, before, branch)                                                                             \
  long name(void);                                                                                              \
  extern const unsigned name##_branch[];                                                                        \
  asm(".text\n.balign 4\n.globl " #name ", " #name "_branch\n" #name ":\n" before "\n" #name "_branch: " branch \
      "\n  mov x0, x10\n  ret\n")

SHAPE(next_b, "mov x10, #1", "b .+4");
SHAPE(next_cond, "mov x10, #2\n cmp x10, #2", "b.eq .+4");
SHAPE(next_cond_not, "mov x10, #3\n cmp x10, #2", "b.eq .+4");
SHAPE(next_cbz, "mov x10, #4", "cbz x10, .+4");
SHAPE(next_cbnz, "mov x10, #5", "cbnz w10, .+4");
SHAPE(next_tbz, "mov x10, #6", "tbz x10, #40, .+4");
SHAPE(next_bl, "mov x10, x30",
      "bl .+4\n sub x0, x30, #4\n adr x1, .-4\n mov x30, x10\n sub x10, x0, x1\n add x10, x10, #11");
SHAPE(itself_cond_not, "mov x10, #8\n cmp x10, #2", "b.eq .");
SHAPE(itself_cbz_not, "mov x10, #9", "cbz x10, .");
SHAPE(itself_tbnz_not, "mov x10, #10", "tbnz x10, #2, .");

SHAPE(itself_b, "mov x10, #1", "b .");
SHAPE(itself_cond, "mov x10, #2\n cmp x10, #2", "b.eq .");
SHAPE(itself_cbnz, "mov x10, #8", "cbnz w10, .");
SHAPE(itself_cbz, "mov x10, #0", "cbz x10, .");
SHAPE(itself_tbz, "mov x10, #0", "tbz w10, #3, .");
SHAPE(itself_tbnz, "mov x10, #8", "tbnz x10, #3, .");

struct loop {
  long (*run)(void);
  const unsigned* branch;
};

static const struct loop* running;
static unsigned long stepped_over;

static void set_timer(void) {
  const struct itimerval soon = {.it_value = {.tv_usec = 10000}};
  CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
}

static void handle(int number, siginfo_t* info, void* context) {
  mcontext_t* machine = &((ucontext_t*)context)->uc_mcontext;
  (void)number;
  (void)info;
  if (machine->pc != (unsigned long)running->branch) {
    set_timer();
  } else if (running->run == itself_b) {
    stepped_over = machine->pc;
    machine->pc += 4;
  } else if (running->run == itself_cond) {
    machine->pstate = 0;
  } else {
    machine->regs[10] ^= 8;
  }
}

static unsigned word_at(unsigned long address) {
  unsigned word;
  memcpy(&word, (const void*)address, sizeof word);
  return word;
}

int main(void) {
  long (*const shapes[])(void) = {next_b,   next_cond, next_cond_not,   next_cbz,       next_cbnz,
                                  next_tbz, next_bl,   itself_cond_not, itself_cbz_not, itself_tbnz_not};
  for (int round = 0; round < 300; ++round) {
    for (int index = 0; index < 10; ++index) CHECK(shapes[index]() == (index == 6 ? 7 : index + 1));
  }
  puts("sides that are the same, and branches to themselves not taken");

  struct sigaction action = {.sa_sigaction = handle, .sa_flags = SA_SIGINFO};
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  const struct loop loops[] = {{itself_b, itself_b_branch},       {itself_cond, itself_cond_branch},
                               {itself_cbnz, itself_cbnz_branch}, {itself_cbz, itself_cbz_branch},
                               {itself_tbz, itself_tbz_branch},   {itself_tbnz, itself_tbnz_branch}};
  for (int round = 0; round < 3; ++round) {
    for (int index = 0; index < 6; ++index) {
      running = &loops[index];
      set_timer();
      printf("%ld ", running->run());
    }
    CHECK(word_at(stepped_over) == 0x14000000);  // b .
    puts("left by a signal");
  }
  return 0;
}
