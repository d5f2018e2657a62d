// every_counted [GROUP...]: runs the groups of every_counted.S and prints for each how often its instructions ran,
// "absent" for what this processor does not have. Without arguments it runs all groups but the one for SME, which
// changes the processor's mode and so is for those who ask. The status is 1 for an unknown group.
#include "every_counted.h"

#include <stdio.h>
#include <string.h>
#include <sys/auxv.h>

struct group {
  const char* name;
  void (*run)(long loops);
  int features;
  int rounds;
};

#define ENTRY(name, features, rounds) {#name, name, features, rounds},
static const struct group groups[] = {FOR_EACH_GROUP(ENTRY)};
#undef ENTRY

enum { GROUPS = sizeof groups / sizeof groups[0] };

// Bits of the kernel's AT_HWCAP and AT_HWCAP2.
static int features_of_this_processor(void) {
  static const struct {
    unsigned long type, bits;
    int feature;
  } known[] = {
      {AT_HWCAP, 1UL << 9 | 1UL << 10, NEEDS_HALVES},    // fphp asimdhp
      {AT_HWCAP, 1UL << 13 | 1UL << 14, NEEDS_COMPLEX},  // jscvt fcma
      {AT_HWCAP, 1UL << 23, NEEDS_HALF_PRODUCTS},        // asimdfhm
      {AT_HWCAP2, 1UL << 8, NEEDS_ROUNDINGS},            // frint
      {AT_HWCAP2, 1UL << 14, NEEDS_BFLOAT},              // bf16
      {AT_HWCAP, 1UL << 22, NEEDS_SVE},                  // sve
      {AT_HWCAP2, 1UL << 1, NEEDS_SVE2},                 // sve2
      {AT_HWCAP2, 1UL << 23, NEEDS_SME},                 // sme
  };
  int found = 0;
  for (size_t index = 0; index < sizeof known / sizeof known[0]; ++index) {
    if ((getauxval(known[index].type) & known[index].bits) == known[index].bits) found |= known[index].feature;
  }
  return found;
}

static int chosen(const struct group* one, int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    if (strcmp(argv[index], one->name) == 0) return 1;
  }
  return argc == 1 && one->features != NEEDS_SME;
}

int main(int argc, char** argv) {
  const int present = features_of_this_processor();
  int found = 0;
  for (int index = 0; index < GROUPS; ++index) {
    const struct group* one = &groups[index];
    if (!chosen(one, argc, argv)) continue;
    ++found;
    if ((one->features & present) != one->features) {
      printf("%s absent\n", one->name);
      continue;
    }
    one->run(one->rounds);
    printf("%s %d\n", one->name, one->rounds);
  }
  return argc > 1 && found < argc - 1;
}
