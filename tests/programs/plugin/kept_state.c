// Fills every register that code between two blocks could spoil, goes through a few blocks, and checks that all are
// unchanged: the integer registers, the flags, the whole vector state, FPCR and FPSR. Prints which ones are not.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/auxv.h>

#ifndef HWCAP_SVE
#define HWCAP_SVE (1 << 22)
#endif

struct state {
  uint64_t x[31];  // x0 to x30; x0 is the block's own, x29 and x30 are not filled.
  uint64_t flags;
  uint64_t fpcr;
  uint64_t fpsr;
  uint8_t q[32][16];
};

void through_blocks(struct state* state);         // Fills from the state, goes through blocks, and stores back.
void through_blocks_sve(uint8_t* z, uint8_t* p);  // The same with z0 to z31 at 256 bytes each, p0 to p15 and FFR at 32.

static int differs(const char* what, unsigned long index, const void* before, const void* after, size_t size) {
  if (memcmp(before, after, size) == 0) return 0;
  printf("%s %lu has changed\n", what, index);
  return 1;
}

static int check_state(void) {
  static struct state before, after;
  for (unsigned reg = 0; reg < 31; ++reg) before.x[reg] = 0x0123456789abcdef * (reg + 3);
  for (unsigned reg = 0; reg < 32; ++reg) memset(before.q[reg], (int)(reg * 7 + 1), 16);
  before.flags = UINT64_C(0xa0000000);
  before.fpcr = UINT64_C(0x00c00000);  // Round towards zero.
  before.fpsr = UINT64_C(0x00000010);  // Inexact, and nothing else.
  after = before;
  through_blocks(&after);
  int faults = differs("flags", 0, &before.flags, &after.flags, 8) + differs("fpcr", 0, &before.fpcr, &after.fpcr, 8) +
               differs("fpsr", 0, &before.fpsr, &after.fpsr, 8);
  for (unsigned reg = 1; reg < 29; ++reg) faults += differs("x", reg, &before.x[reg], &after.x[reg], 8);
  for (unsigned reg = 0; reg < 32; ++reg) faults += differs("q", reg, before.q[reg], after.q[reg], 16);
  return faults;
}

static int check_sve_state(void) {
  static uint8_t z[32][256], z_before[32][256], p[17][32], p_before[17][32];
  if ((getauxval(AT_HWCAP) & HWCAP_SVE) == 0) return 0;
  for (unsigned reg = 0; reg < 32; ++reg) {
    for (unsigned byte = 0; byte < 256; ++byte) z[reg][byte] = (uint8_t)(reg * 31 + byte);
  }
  for (unsigned reg = 0; reg < 16; ++reg) memset(p[reg], (int)(0x11 * (reg + 1)), 32);
  memset(p[16], 0xff, 32);
  p[16][1] = 0x7f;  // FFR: a run of ones from bit 0, as the architecture wants it.
  memset(&p[16][2], 0, 30);
  memcpy(z_before, z, sizeof z);
  memcpy(p_before, p, sizeof p);
  through_blocks_sve(&z[0][0], &p[0][0]);
  int faults = 0;
  for (unsigned reg = 0; reg < 32; ++reg) faults += differs("z", reg, z_before[reg], z[reg], 256);
  for (unsigned reg = 0; reg < 17; ++reg) faults += differs("p", reg, p_before[reg], p[reg], 32);
  return faults;
}

int main(void) {
  int faults = 0;
  for (int round = 0; round < 100; ++round) faults += check_state() + check_sve_state();
  puts(faults == 0 ? "kept" : "lost");
  return faults != 0;
}
