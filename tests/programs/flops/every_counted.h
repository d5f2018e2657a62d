// The groups of every_counted.S: X(group, features it needs, rounds that the program runs it). The rounds differ, so
// that a group that is counted in another's place shows.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  NEEDS_HALVES = 1,
  NEEDS_COMPLEX = 2,
  NEEDS_HALF_PRODUCTS = 4,
  NEEDS_ROUNDINGS = 8,
  NEEDS_BFLOAT = 16,
  NEEDS_SVE = 32,
  NEEDS_SVE2 = 64,
  NEEDS_SME = 128
};

#define FOR_EACH_GROUP(X)                             \
  X(counted_scalars, 0, 3)                            \
  X(counted_half_scalars, NEEDS_HALVES, 5)            \
  X(counted_simd_scalars, 0, 7)                       \
  X(counted_half_simd_scalars, NEEDS_HALVES, 11)      \
  X(counted_vectors, 0, 13)                           \
  X(counted_half_vectors, NEEDS_HALVES, 17)           \
  X(counted_sve, NEEDS_SVE, 19)                       \
  X(counted_sve_after_others, NEEDS_SVE, 23)          \
  X(uncounted_base, 0, 29)                            \
  X(uncounted_halves, NEEDS_HALVES, 31)               \
  X(uncounted_complex, NEEDS_COMPLEX, 37)             \
  X(uncounted_half_products, NEEDS_HALF_PRODUCTS, 41) \
  X(uncounted_bounded_roundings, NEEDS_ROUNDINGS, 43) \
  X(uncounted_bfloat, NEEDS_BFLOAT, 47)               \
  X(uncounted_sve, NEEDS_SVE, 53)                     \
  X(uncounted_sve2, NEEDS_SVE2, 59)                   \
  X(uncounted_sme, NEEDS_SME, 61)

// The code of a group, to read (up to GROUP_end) and to call.
#define DECLARE_GROUP(name, features, rounds) \
  void name(long loops);                      \
  extern const uint32_t name##_end[];
FOR_EACH_GROUP(DECLARE_GROUP)
#undef DECLARE_GROUP

#ifdef __cplusplus
}
#endif
