// Which scalable instructions are arithmetic that the table leaves out. Words are binutils' for the text beside them.
#include "a64/scalable_work.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace ceilmeter::test {
namespace {

using words = std::vector<std::pair<const char*, std::uint32_t>>;

TEST(scalable_work, predicated_and_unpredicated_arithmetic_is_left_out_of_the_table) {
  for (const auto& [text, word] : words{{"fadd z0.d, z1.d, z2.d", 0x65c20020},
                                        {"fadd z0.d, p0/m, z0.d, z1.d", 0x65c08020},
                                        {"fmla z0.d, p0/m, z1.d, z2.d", 0x65e20020},
                                        {"fmad z0.s, p0/m, z1.s, z2.s", 0x65a28020},
                                        {"fmul z0.s, z1.s, z2.s", 0x65820820},
                                        {"fsqrt z0.d, p0/m, z1.d", 0x65cda020},
                                        {"fneg z0.d, p0/m, z1.d", 0x04dda020},
                                        {"faddv d0, p0, z1.d", 0x65c02020},
                                        {"fmmla z0.d, z1.d, z2.d", 0x64e2e420},
                                        {"fmopa za0.s, p0/m, p1/m, z0.s, z1.s", 0x80812000}}) {
    EXPECT_TRUE(is_uncounted_scalable_work(word)) << text;
  }
}

TEST(scalable_work, what_the_table_counts_is_not_left_out) {
  for (const auto& [text, word] : words{{"fmla z0.d, z0.d, z0.d[0]", 0x64e00000},
                                        {"fmul z0.s, z0.s, z0.s[0]", 0x64a02000},
                                        {"fadd v0.2d, v1.2d, v2.2d", 0x4e62d420},
                                        {"fmadd d0, d1, d2, d3", 0x1f420c20}}) {
    EXPECT_FALSE(is_uncounted_scalable_work(word)) << text;
  }
}

TEST(scalable_work, moves_conversions_integers_and_words_without_an_instruction_are_none) {
  for (const auto& [text, word] : words{{"fmov z0.d, #1.0", 0x25f9ce00},
                                        {"fabd z0.d, p0/m, z0.d, z1.d", 0x65c88020},
                                        {"fcvt z0.d, p0/m, z1.s", 0x65cba020},
                                        {"frecpe z0.d, z1.d", 0x65ce3020},
                                        {"add z0.d, z1.d, z2.d", 0x04e20020},
                                        {"ld1d {z0.d}, p0/z, [x0]", 0xa5e0a000},
                                        {"fabd v0.4s, v1.4s, v2.4s", 0x6ea2d420},
                                        {"udf #0", 0x00000000}}) {
    EXPECT_FALSE(is_uncounted_scalable_work(word)) << text;
  }
}

}  // namespace
}  // namespace ceilmeter::test
