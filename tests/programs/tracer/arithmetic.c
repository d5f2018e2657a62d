// Scalar, vector and half-precision arithmetic on fixed data: the same instructions run every time, also those of the C
// library's printing and of its mathematics.
#include <arm_neon.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

enum { size = 1000 };

static double doubles[size];
static float singles[size];
static __fp16 halves[size];

static double scalar_sum(void) {
  double sum = 0;
  for (int index = 0; index < size; ++index) {
    sum += doubles[index] * doubles[size - 1 - index] - doubles[index] / 3.0;
    if (sum > 1e6) sum -= 1e6;
  }
  return sum;
}

static float vector_sum(void) {
  float32x4_t sum = vdupq_n_f32(0);
  for (int index = 0; index < size; index += 4) {
    sum = vfmaq_f32(sum, vld1q_f32(singles + index), vld1q_f32(singles + index));
    sum = vmaxq_f32(sum, vabsq_f32(sum));
  }
  return vaddvq_f32(sum);
}

__attribute__((target("arch=armv8.2-a+fp16"))) static float half_sum(void) {
  float16x8_t sum = vdupq_n_f16(0);
  for (int index = 0; index < size; index += 8) {
    sum = vaddq_f16(sum, vmulq_f16(vld1q_f16(halves + index), vdupq_n_f16(0.5)));
  }
  float total = 0;
  for (int lane = 0; lane < 8; ++lane) total += sum[lane];
  return total;
}

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? atoi(argv[1]) : 20;
  for (int index = 0; index < size; ++index) {
    doubles[index] = index * 0.25;
    singles[index] = (float)index * 0.5f;
    halves[index] = (__fp16)(index % 7);
  }
  double total = 0;
  for (int round = 0; round < rounds; ++round) total += scalar_sum() + vector_sum() + half_sum();
  for (int index = 1; index < 50; ++index) total += sin(index) + exp(1.0 / index) + pow(index, 0.3) + sqrt(index);
  printf("%.6f\n", total);
  return 0;
}
