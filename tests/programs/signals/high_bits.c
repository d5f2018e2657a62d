// high_bits [ROUNDS]: signals in loops whose branches test the high half of a register, or all of it. Each loop is left
// once a timer of 1 kHz has interrupted it ten times. If a signal makes a branch go the wrong way, the loop ends before
// that.
#include "guard.h"

#define TESTS_OF_BIT(what) what(31) what(32) what(33) what(37) what(47) what(62) what(63)
#define DECLARE_BIT(bit)                              \
  long test_tbnz_##bit(unsigned long, volatile int*); \
  long test_tbz_##bit(unsigned long, volatile int*);
#define ROWS_OF_BIT(bit) {"tbnz " #bit, test_tbnz_##bit, 1UL << (bit)}, {"tbz " #bit, test_tbz_##bit, ~(1UL << (bit))},
TESTS_OF_BIT(DECLARE_BIT)
long test_cbnz_x(unsigned long, volatile int*);
long test_cbz_x(unsigned long, volatile int*);
long test_cbz_w(unsigned long, volatile int*);

static const struct {
  const char* name;
  long (*run)(unsigned long, volatile int*);
  unsigned long value;  // For which the loop goes on.
} tests[] = {{"cbnz of a high half", test_cbnz_x, 1UL << 32},
             {"cbz of a high half", test_cbz_x, 1UL << 32},
             {"cbz of a low half", test_cbz_w, 1UL << 32},
             TESTS_OF_BIT(ROWS_OF_BIT)};

static volatile int flag;
static volatile int ticks;

static void tick(int number) {
  (void)number;
  timer_ticked();
  if (++ticks >= 10) flag = 1;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  CHECK(signal(SIGALRM, tick) != SIG_ERR);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (unsigned index = 0; index < sizeof tests / sizeof *tests; ++index) {
      flag = 0;
      ticks = 0;
      timer_set(1000);
      const long wrong = tests[index].run(tests[index].value, &flag);
      timer_set(0);
      if (wrong != 0) fprintf(stderr, "%s has gone wrong after %d signals\n", tests[index].name, ticks);
      CHECK(wrong == 0);
      if (round == 0) printf("%s goes its way\n", tests[index].name);
    }
  }
  return 0;
}
