// Literal loads that fault: the handler finds all registers as before the load, the loaded one included. If it repairs
// the page, the load is made; if it skips the load, the register keeps its value.
#include <stdint.h>
#include <string.h>
#include <ucontext.h>

#include "guard.h"

enum { LARGEST_PAGE = 0x10000, BEFORE = 0x7654321 };

extern char literal[];

#define LOADS(X) X(x0, 0) X(x1, 1) X(x5, 5) X(w5, 5) X(sw17, 17) X(x30, 30)
#define DECLARE(name, number)    \
  long load_##name(long before); \
  extern char load_##name##_at[];
LOADS(DECLARE)

struct load {
  const char* name;
  long (*run)(long before);
  char* at;
  int number;
};
#define ROW(name, number) {#name, load_##name, load_##name##_at, number},
static const struct load loads[] = {LOADS(ROW)};

static const struct load* volatile current;
static volatile int skips;
static volatile int faults;
static volatile uint64_t seen[33];

static void hear(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  ++faults;
  for (int reg = 0; reg < 31; ++reg) seen[reg] = state->regs[reg];
  seen[31] = state->pc;
  if (skips) {
    state->pc += 4;
  } else if (mprotect(literal, LARGEST_PAGE, PROT_READ) != 0) {
    _exit(1);
  }
}

int main(void) {
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = hear;
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  for (size_t index = 0; index < sizeof loads / sizeof *loads; ++index) {
    current = &loads[index];
    for (skips = 0; skips < 2; ++skips) {
      CHECK(mprotect(literal, LARGEST_PAGE, PROT_NONE) == 0);
      faults = 0;
      const uint64_t result = (uint64_t)current->run(BEFORE);
      CHECK(faults == 1);
      CHECK(seen[31] == (uint64_t)current->at);
      CHECK(seen[current->number] == BEFORE);
      CHECK(seen[0] == BEFORE);
      const uint64_t value = 0x123456789abcdef0;
      const uint64_t loaded = current->name[0] == 'x'   ? value
                              : current->name[0] == 'w' ? (uint32_t)value
                                                        : (uint64_t)(int64_t)(int32_t)value;
      CHECK(result == (skips ? (uint64_t)BEFORE : loaded));
    }
    printf("%s: the registers are those before the load\n", current->name);
  }
  return 0;
}
