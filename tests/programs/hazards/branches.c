// Runs every conditional branch of branches.S on values that take it and on values that do not, again and again and in
// both orders: the side that is reached first decides how the exit is linked.
#include "../syscalls/check.h"

enum { B_COND, COMPARE_32, COMPARE_64, TEST_BIT, ON_ZERO, KINDS };

extern const struct branch {
  long (*run)(unsigned long value);
  long kind;
  long sense;  // The condition of B_COND; 1 for the branches on not zero.
  long bit;
} branches[], branches_end[];

static int holds(unsigned long nzcv, long condition) {
  const int n = nzcv >> 31 & 1, z = nzcv >> 30 & 1, c = nzcv >> 29 & 1, v = nzcv >> 28 & 1;
  const int results[] = {z, c, n, v, c && !z, n == v, n == v && !z};
  if (condition >= 14) return 1;  // AL, and NV too.
  return results[condition / 2] ^ (condition & 1);
}

static int is_taken(const struct branch* branch, unsigned long value) {
  switch (branch->kind) {
    case B_COND: return holds(value, branch->sense);
    case COMPARE_32: return ((unsigned)value != 0) == branch->sense;
    case COMPARE_64: return (value != 0) == branch->sense;
    case TEST_BIT: return (long)(value >> branch->bit & 1) == branch->sense;
    default: return branch->sense == 0;
  }
}

static int values_for(const struct branch* branch, unsigned long* values) {
  if (branch->kind == B_COND) {
    for (unsigned long index = 0; index < 16; ++index) values[index] = index << 28;
    return 16;
  }
  const unsigned long bit = 1ul << branch->bit;
  const unsigned long some[] = {0, ~0ul, bit, ~bit, bit << 1, 1ul << 63, 1ul << 32, 0xffffffff};
  for (int index = 0; index < 8; ++index) values[index] = some[index];
  return 8;
}

int main(void) {
  static const char* const names[KINDS] = {"b.cond", "cbz and cbnz, 32 bits", "cbz and cbnz, 64 bits", "tbz and tbnz",
                                           "on the zero register"};
  int runs[KINDS] = {0};
  int taken[KINDS] = {0};
  for (const struct branch* branch = branches; branch < branches_end; ++branch) {
    unsigned long values[16];
    const int count = values_for(branch, values);
    for (int index = 0; index < 3 * count; ++index) {
      const int place = (branch - branches) / 2 % 2 == 0 ? index % count : count - 1 - index % count;
      const long result = branch->run(values[place]);
      if (result != is_taken(branch, values[place])) {
        printf("row %ld, kind %ld, sense %ld, bit %ld: taken is %ld for %#lx\n", (long)(branch - branches),
               branch->kind, branch->sense, branch->bit, result, values[place]);
        return 1;
      }
      ++runs[branch->kind];
      taken[branch->kind] += (int)result;
    }
  }
  for (int kind = 0; kind < KINDS; ++kind) printf("%s: taken %d times in %d\n", names[kind], taken[kind], runs[kind]);
  return 0;
}
