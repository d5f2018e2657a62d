// Scalable vectors, on machines that have them. On other machines the program prints the same without them.
#include <asm/hwcap.h>
#include <string.h>
#include <sys/auxv.h>

#include "../syscalls/check.h"

enum { LONGEST = 256, ROOM = 32 * LONGEST + 17 * LONGEST / 8 };

long sve_state(const void* before, void* after);
long sve_length(void);
double sve_dot(const double* a, const double* b, long count);

static void check_state(void) {
  static unsigned char before[ROOM] __attribute__((aligned(16)));
  static unsigned char after[ROOM] __attribute__((aligned(16)));
  const size_t length = (size_t)sve_length();
  CHECK(length >= 16 && length <= LONGEST);
  for (size_t index = 0; index < ROOM; ++index) before[index] = (unsigned char)(index * 37 + (index >> 8));
  memset(before + 32 * length + 16 * (length / 8), 0xff, length / 16);  // FFR: what an FFR can be, a run of ones.
  memset(before + 32 * length + 16 * (length / 8) + length / 16, 0, length / 16);
  const size_t used = 32 * length + 17 * (length / 8);
  for (int round = 0; round < 3; ++round) {
    memset(after, 0, sizeof after);
    sve_state(before, after);
    CHECK(memcmp(before, after, used) == 0);
  }
}

static void check_sum(void) {
  double a[1001], b[1001];
  for (int index = 0; index < 1001; ++index) {
    a[index] = index;
    b[index] = 2;
  }
  for (long count = 1; count <= 1001; count += 40) CHECK(sve_dot(a, b, count) == (double)(count * (count - 1)));
}

int main(void) {
  if (getauxval(AT_HWCAP) & HWCAP_SVE) {
    check_state();
    check_sum();
  }
  puts("vectors are what they were");
  return 0;
}
