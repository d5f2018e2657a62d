// Four threads run one loop of 100,000 rounds each, at the same time. The loop stands between two symbols.
#include <pthread.h>

__asm__(
    "        .text\n"
    "        .global counted_begin, counted_end\n"
    "counted_begin:\n"
    "        subs    x0, x0, #1\n"
    "        b.ne    counted_begin\n"
    "        ret\n"
    "counted_end:\n");

void counted_begin(long rounds);

static void* run(void* rounds) {
  counted_begin(*(const long*)rounds);
  return NULL;
}

int main(void) {
  static long rounds = 100000;
  pthread_t threads[4];
  for (int index = 0; index < 4; ++index) {
    if (pthread_create(&threads[index], NULL, run, &rounds) != 0) return 1;
  }
  for (int index = 0; index < 4; ++index) {
    if (pthread_join(threads[index], NULL) != 0) return 1;
  }
  return 0;
}
