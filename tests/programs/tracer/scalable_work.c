/* Scalable arithmetic in a loop, as a compiler makes it for SVE, beside as much that is not: 3000 scalable
 * instructions (a multiply-add, an addition and a product in each pass), and 1000 additions of scalars. */
#include <stdio.h>
#include <sys/auxv.h>

int main(void) {
  const unsigned long has_sve = 1UL << 22;
  if ((getauxval(AT_HWCAP) & has_sve) == 0) return 77;
  double sum = 0.0;
  unsigned long left = 1000;
  __asm__ volatile(
      ".arch armv8.2-a+sve\n"
      "ptrue p0.d\n"
      "1: fmla z0.d, p0/m, z1.d, z2.d\n"
      "fadd z3.d, z3.d, z1.d\n"
      "fmul z4.d, z4.d, z1.d\n"
      "fadd %d[sum], %d[sum], %d[sum]\n"
      "subs %[left], %[left], #1\n"
      "b.ne 1b\n"
      : [sum] "+w"(sum), [left] "+r"(left)
      :
      : "v0", "v1", "v2", "v3", "v4", "cc");
  puts("worked");
  return 0;
}
