// The classifier's mnemonics against LLVM's disassembler: wherever either of them names an instruction of the FLOP
// table, both must, apart from the exceptions that stand here one by one, each with its reason.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <iostream>
#include <string>
#include <vector>

#include "../support/llvm_disassembler.h"
#include "a64/classifier.h"
#include "a64/instr_flop.h"
#include "counted_by_hand.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::hex;
using test::llvm_disassembler;

constexpr char FEATURES[] =
    "+v9.3a,+aes,+sha2,+sha3,+sm4,+fullfp16,+fp16fml,+mte,+ls64,+sme,+sme-f64,+sve2,+sve2-aes,+sve2-sm4,+sve2-sha3,"
    "+sve2-bitperm,+f32mm,+f64mm,+bf16,+i8mm,+dotprod,+complxnum,+jsconv,+rand,+mops,+hbc,+pauth,+el3,+wfxt,+xs";

// LLVM's mnemonic as the classifier writes it: one name for both halves of a vector.
std::string mnemonic_of(const std::string& text) {
  std::string mnemonic = text.substr(0, text.find('\t'));
  if (mnemonic == "fcvtl2" || mnemonic == "fcvtn2" || mnemonic == "fcvtxn2") mnemonic.pop_back();
  return mnemonic;
}

struct shape {
  std::uint32_t precision;
  std::uint32_t fclass;
  std::uint32_t count;
  bool operator==(const shape&) const = default;
};

std::ostream& operator<<(std::ostream& out, const shape& value) {
  return out << "precision " << value.precision << " class " << value.fclass << " count " << value.count;
}

std::uint32_t precision_of(char letter) {
  return letter == 'h' ? FLOP_HALF : letter == 's' ? FLOP_SINGLE : FLOP_DOUBLE;
}

// The floating-point and SIMD registers among the operands.
std::vector<std::string> registers_of(const std::string& text) {
  std::istringstream rest(text.substr(text.find('\t') + 1));
  std::vector<std::string> found;
  for (std::string operand; std::getline(rest, operand, ',');) {
    operand.erase(0, operand.find_first_not_of(" ["));
    const bool is_register = std::string("vhsd").find(operand[0]) != std::string::npos && std::isdigit(operand[1]) != 0;
    if (is_register) found.push_back(operand);
  }
  return found;
}

// h0, v0.h[1] and v0.8h have elements of type h.
char element_of(const std::string& operand) {
  const std::size_t dot = operand.find('.');
  return dot == std::string::npos ? operand[0] : operand[operand.find_first_of("hsd", dot)];
}

// The work that the text's operands show. Conversions that change the size count what a register of their wide elements
// holds, although half of it may be what they read or write.
shape shape_of(const std::string& text) {
  const std::string mnemonic = mnemonic_of(text);
  const std::vector<std::string> registers = registers_of(text);
  const bool narrows = mnemonic == "fcvtn" || mnemonic == "fcvtxn";
  const bool is_vector = registers[0][0] == 'v' || (mnemonic.back() == 'v' && mnemonic != "fdiv");
  if (!is_vector) return {precision_of(element_of(registers.back())), FLOP_SCALAR, 1};
  if (narrows || mnemonic == "fcvtl") {
    const std::uint32_t precision = precision_of(element_of(registers[narrows ? 1 : 0]));
    const std::uint32_t whole = precision == FLOP_DOUBLE ? 2 : 4;
    return {precision, FLOP_VECTOR, text[mnemonic.size()] == '2' ? whole : whole / 2};
  }
  const std::string& vector = registers[registers[0][0] == 'v' ? 0 : 1];
  const auto lanes = static_cast<std::uint32_t>(std::stoul(vector.substr(vector.find('.') + 1)));
  return {precision_of(element_of(vector)), FLOP_VECTOR, lanes};
}

// Words that may differ: those of a pattern, named `ours` here where it is not empty, and `theirs` by LLVM.
struct exception {
  const char* reason;
  std::uint32_t mask;
  std::uint32_t value;
  std::string ours;
  std::string theirs;
};

bool covers(const exception& one, std::uint32_t word, const std::string& ours, const std::string& theirs) {
  return (word & one.mask) == one.value && (one.ours.empty() || one.ours == ours) && one.theirs == theirs;
}

// Where `theirs` is empty LLVM knows no such instruction: the row disregards bits of which the architecture reserves
// some values, or the encoding is younger than LLVM 14.
const std::array<exception, 19> EXCEPTIONS = {{
    {"fcmpe has no row of its own", 0xff20fc17, 0x1e202010, "fcmp", "fcmpe"},
    {"fmov of a half-precision constant is fcvtzs's row with no shift", 0xbff8fc00, 0x0f00fc00, "fcvtzs", "fmov"},
    {"scalar floating-point: 10 in bits 23:22 is no precision", 0x7ec00000, 0x1e800000, "", ""},
    {"32-bit register to fixed-point with more than 32 fraction bits", 0xff3e8000, 0x1e180000, "", ""},
    {"double elements in a 64-bit vector", 0xdf600000, 0x0e600000, "", ""},
    {"double elements in a 64-bit vector, by element", 0xdfc00000, 0x0fc00000, "", ""},
    {"by element, doubles: bit L is 0", 0x8fe00000, 0x0fe00000, "", ""},
    {"reductions: singles only from a 128-bit vector", 0xff3fcc00, 0x2e30c800, "", ""},
    {"reductions: not of doubles", 0xbf7fcc00, 0x2e70c800, "", ""},
    {"fcvtxn only to singles", 0xaffffc00, 0x2e216800, "fcvtxn", ""},
    {"fixed-point: elements have at least 16 bits", 0x8ff0fc00, 0x0f00fc00, "", ""},
    {"fixed-point: doubles in a 64-bit vector", 0xdfc0fc00, 0x0f40fc00, "", ""},
    {"pairwise of halves: bit 22 is 0", 0xff7fcc00, 0x5e70c800, "", ""},
    {"SVE: bytes are no floating-point elements", 0xfec00000, 0x64000000, "", ""},
    {"SVE, fabs: the same", 0xffffe000, 0x041ca000, "fabs", ""},
    {"SVE, fneg: the same", 0xffffe000, 0x041da000, "fneg", ""},
    {"SME2: indexed multiply-add", 0xff000000, 0xc1000000, "fmla", ""},
    {"SME2: indexed multiply-subtract", 0xff000000, 0xc1000000, "fmls", ""},
    {"SME2: the other arithmetic on several vectors", 0xff000000, 0xc1000000, "", ""},
}};

class a64_disassembler : public testing::TestWithParam<int> {};

TEST_P(a64_disassembler, names_the_counted_instructions_as_llvm_but_for_the_listed_exceptions) {
  if (test::skips_batch(GetParam())) GTEST_SKIP() << "runs with CEILMETER_LONG=1";
  const std::uint32_t seed = 4242 + static_cast<std::uint32_t>(GetParam());
  const int words = test::words_of_batch();
  const llvm_disassembler llvm(FEATURES);
  ASSERT_TRUE(llvm.works());
  test::random_words random(seed);
  std::array<int, EXCEPTIONS.size()> excused{};
  int agreed = 0;
  for (int count = 0; count < words; ++count) {
    const std::uint32_t word = random.next();
    const std::string ours = instruction_mnemonic(word);
    const std::string text = llvm.text_of(word);
    const std::string theirs = mnemonic_of(text);
    if (!test::has_counted_encodings(ours) && !test::has_counted_encodings(theirs)) continue;
    if (ours == theirs) {
      ++agreed;
      continue;
    }
    const auto* found =
        std::ranges::find_if(EXCEPTIONS, [&](const exception& one) { return covers(one, word, ours, theirs); });
    ASSERT_NE(found, EXCEPTIONS.end()) << hex(word) << " is " << ours << ", LLVM: " << text << ", seed " << seed;
    ++excused[static_cast<std::size_t>(found - EXCEPTIONS.begin())];
  }
  EXPECT_GT(agreed, words / 100) << "the random words hardly reach the counted instructions";
  for (std::size_t index = 0; index < EXCEPTIONS.size(); ++index) {
    EXPECT_GT(excused[index], 0) << "no word needs the exception: " << EXCEPTIONS[index].reason;
  }
  std::cout << words << " words, " << agreed << " of them counted mnemonics on both sides" << std::endl;
}

// What each of them counts is what its text says: LLVM prints the operands' shapes.
TEST_P(a64_disassembler, counts_advanced_simd_and_scalars_by_the_shapes_that_llvm_prints) {
  if (test::skips_batch(GetParam())) GTEST_SKIP() << "runs with CEILMETER_LONG=1";
  const std::uint32_t seed = 99 + static_cast<std::uint32_t>(GetParam());
  const int words = test::words_of_batch();
  const llvm_disassembler llvm(FEATURES);
  ASSERT_TRUE(llvm.works());
  test::random_words random(seed);
  int compared = 0;
  for (int count = 0; count < words; ++count) {
    const std::uint32_t word = random.next();
    instr_flop work{};
    if (get_instr_flop(word, work) != 0) continue;
    const std::string text = llvm.text_of(word);
    if (text.empty() || text[text.find('\t') + 1] == 'z') continue;
    ASSERT_EQ(shape_of(text), (shape{work.precision, work.fclass, work.count})) << hex(word) << " " << text;
    ++compared;
  }
  EXPECT_GT(compared, words / 100);
}

INSTANTIATE_TEST_SUITE_P(seeds, a64_disassembler, testing::Range(0, test::BATCHES));

}  // namespace
}  // namespace ceilmeter
