// Compares the decoder and the extractors with LLVM's disassembler. Covers the classes on which the engine acts and
// those that it must tell from them: branches, exceptions, hints and barriers, system registers, literal loads, ADR.
// Words are compared by LLVM's text, operands included.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "../../support/llvm_disassembler.h"
#include "bi/a64/a64.h"
#include "bi/a64/class_table.h"
#include "support.h"

namespace ceilmeter {
namespace {

using test::class_name;
using test::hex;
using test::llvm_disassembler;

constexpr char FEATURES[] =
    "+v9.3a,+aes,+sha2,+sha3,+sm4,+fullfp16,+fp16fml,+mte,+ls64,+sme,+sve2,+mops,+hbc,+pauth,+el3,+wfxt,+xs,+brbe";

bool in_scope(int instruction) {
  return instruction <= A64_DRPS || instruction == A64_LDR_LITERAL || instruction == A64_ADR;
}

const std::map<std::string, a64_instruction> BY_MNEMONIC = {
    {"cbz", A64_CBZ},        {"cbnz", A64_CBZ},
    {"svc", A64_SVC},        {"hvc", A64_HVC},
    {"smc", A64_SMC},        {"brk", A64_BRK},
    {"hlt", A64_HLT},        {"dcps1", A64_DCPS1},
    {"dcps2", A64_DCPS2},    {"dcps3", A64_DCPS3},
    {"cfinv", A64_MSR_IMM},  {"xaflag", A64_MSR_IMM},
    {"axflag", A64_MSR_IMM}, {"smstart", A64_MSR_IMM},
    {"smstop", A64_MSR_IMM}, {"nop", A64_HINT},
    {"yield", A64_HINT},     {"wfe", A64_HINT},
    {"wfi", A64_HINT},       {"sev", A64_HINT},
    {"sevl", A64_HINT},      {"hint", A64_HINT},
    {"dgh", A64_HINT},       {"esb", A64_HINT},
    {"psb", A64_HINT},       {"tsb", A64_HINT},
    {"csdb", A64_HINT},      {"bti", A64_HINT},
    {"xpaclri", A64_HINT},   {"pacia1716", A64_HINT},
    {"pacib1716", A64_HINT}, {"autia1716", A64_HINT},
    {"autib1716", A64_HINT}, {"paciaz", A64_HINT},
    {"paciasp", A64_HINT},   {"pacibz", A64_HINT},
    {"pacibsp", A64_HINT},   {"autiaz", A64_HINT},
    {"autiasp", A64_HINT},   {"autibz", A64_HINT},
    {"autibsp", A64_HINT},   {"clrex", A64_CLREX},
    {"dsb", A64_DSB},        {"ssbb", A64_DSB},
    {"pssbb", A64_DSB},      {"dfb", A64_DSB},
    {"dmb", A64_DMB},        {"isb", A64_ISB},
    {"sys", A64_SYS},        {"ic", A64_SYS},
    {"dc", A64_SYS},         {"at", A64_SYS},
    {"tlbi", A64_SYS},       {"cfp", A64_SYS},
    {"dvp", A64_SYS},        {"cpp", A64_SYS},
    {"brb", A64_SYS},        {"sysl", A64_SYSL},
    {"mrs", A64_MRS_MSR},    {"tbz", A64_TBZ},
    {"tbnz", A64_TBZ},       {"b", A64_B},
    {"bl", A64_B},           {"br", A64_BR},
    {"blr", A64_BLR},        {"ret", A64_RET},
    {"eret", A64_ERET},      {"drps", A64_DRPS},
};

// The class in scope that LLVM's text stands for, or A64_NOT_RECOGNISED for any other instruction.
int class_of_text(const std::string& text) {
  const std::size_t tab = text.find('\t');
  const std::string mnemonic = text.substr(0, tab);
  const std::string operands = tab == std::string::npos ? "" : text.substr(tab + 1);
  const std::size_t comma = operands.find(", ");
  const std::string second = comma == std::string::npos ? "" : operands.substr(comma + 2);
  if (mnemonic.rfind("b.", 0) == 0 || mnemonic.rfind("bc.", 0) == 0) {
    return A64_B_COND;
  }
  if ((mnemonic == "msr" || mnemonic == "mrs") &&
      operands.find_first_of("01", operands.find("S")) == operands.find("S") + 1) {
    return A64_NOT_RECOGNISED;  // System registers begin at S2; LLVM prints unallocated words as if they went on below.
  }
  if (mnemonic == "msr") {
    return second[0] == '#' ? A64_MSR_IMM : A64_MRS_MSR;
  }
  if ((mnemonic == "ldr" || mnemonic == "ldrsw" || mnemonic == "prfm") && second[0] == '#') {
    return A64_LDR_LITERAL;
  }
  if (mnemonic == "adr" || mnemonic == "adrp") {
    return operands[0] == 'x' ? A64_ADR : A64_NOT_RECOGNISED;  // SVE has an ADR of vectors.
  }
  if (mnemonic == "dsb" && operands.find("nxs") != std::string::npos) {
    return A64_NOT_RECOGNISED;
  }
  const auto found = BY_MNEMONIC.find(mnemonic);
  return found == BY_MNEMONIC.end() ? static_cast<int>(A64_NOT_RECOGNISED) : found->second;
}

// Words of a class that LLVM does not take for an instruction, or that name a register that does not exist.
bool is_known_hole(std::uint32_t word, int instruction, const std::string& text) {
  if (instruction == A64_LDR_LITERAL) {
    return (word & 0xff000000) == 0xdc000000 && text.empty();  // Unallocated, and the scanner's to name.
  }
  // MSR immediate whose fields name no part of the processor state that LLVM knows.
  return instruction == A64_MSR_IMM && (text.empty() || text.rfind("msr\tS0_", 0) == 0);
}

std::string immediate(std::uint32_t value) {
  std::ostringstream text;
  text << "#" << std::showbase << std::hex << value;
  return text.str();
}

std::string general(std::uint32_t is_64, std::uint32_t number) {
  return (is_64 != 0 ? "x" : "w") + (number == 31 ? "zr" : std::to_string(number));
}

std::string offset(std::uint32_t field, int width, int scale) {
  return "#" + std::to_string(a64_sign_extend(field, width) * scale);
}

std::string literal_text(std::uint32_t word) {
  std::uint32_t opc, v, imm19, rt;
  a64_ldr_literal_decode(&word, &opc, &v, &imm19, &rt);
  const std::string target = ", " + offset(imm19, 19, 4);
  if (v != 0) {
    return "ldr\t" + std::string(1, "sdq"[opc]) + std::to_string(rt) + target;
  }
  return opc == 3 ? target : (opc == 2 ? "ldrsw\t" : "ldr\t") + general(opc, rt) + target;
}

// The text that LLVM has to print for a word, from the extractor of the word's class. For PRFM only the end of the
// text, because its operation has names. Empty for classes whose operands have too many names.
std::string text_by_fields(std::uint32_t word, int instruction) {
  static const char* const CONDITIONS[] = {"eq", "ne", "hs", "lo", "mi", "pl", "vs", "vc",
                                           "hi", "ls", "ge", "lt", "gt", "le", "al", "nv"};
  std::uint32_t a, b, c, d, e;
  switch (instruction) {
    case A64_CBZ:
      a64_cbz_decode(&word, &a, &b, &c, &d);
      return (b != 0 ? "cbnz\t" : "cbz\t") + general(a, d) + ", " + offset(c, 19, 4);
    case A64_B_COND:
      a64_b_cond_decode(&word, &a, &b);
      return std::string((word & 16) != 0 ? "bc." : "b.") + CONDITIONS[b] + "\t" + offset(a, 19, 4);
    case A64_TBZ:
      a64_tbz_decode(&word, &a, &b, &c, &d, &e);
      return (b != 0 ? "tbnz\t" : "tbz\t") + general(a, e) + ", #" + std::to_string(a * 32 + c) + ", " +
             offset(d, 14, 4);
    case A64_B: a64_b_decode(&word, &a, &b); return (a != 0 ? "bl\t" : "b\t") + offset(b, 26, 4);
    case A64_BR: a64_br_decode(&word, &a); return "br\t" + general(1, a);
    case A64_BLR: a64_blr_decode(&word, &a); return "blr\t" + general(1, a);
    case A64_RET: a64_ret_decode(&word, &a); return a == 30 ? "ret" : "ret\t" + general(1, a);
    case A64_SVC: a64_svc_decode(&word, &a); return "svc\t" + immediate(a);
    case A64_HVC: a64_hvc_decode(&word, &a); return "hvc\t" + immediate(a);
    case A64_BRK: a64_brk_decode(&word, &a); return "brk\t" + immediate(a);
    case A64_LDR_LITERAL: return literal_text(word);
    case A64_ADR:
      a64_adr_decode(&word, &a, &b, &c, &d);
      return (a != 0 ? "adrp\t" : "adr\t") + general(1, d) + ", " + offset(c << 2 | b, 21, a != 0 ? 4096 : 1);
    default: return "";
  }
}

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

struct tally {
  std::size_t in_scope = 0;
  std::size_t holes = 0;
  std::size_t with_operands = 0;
};

void compare(const llvm_disassembler& llvm, std::uint32_t word, tally& counts) {
  const int decoded = a64_decode(&word);
  const std::string text = llvm.text_of(word);
  const int expected = class_of_text(text);
  if (!in_scope(decoded)) {
    ASSERT_EQ(class_name(expected), "not recognised")
        << hex(word) << " '" << text << "' decoded as " << class_name(decoded);
    return;
  }
  ++counts.in_scope;
  if (is_known_hole(word, decoded, text)) {
    ++counts.holes;
    return;
  }
  ASSERT_EQ(class_name(decoded), class_name(expected)) << hex(word) << " '" << text << "'";
  const std::string by_fields = text_by_fields(word, decoded);
  if (!by_fields.empty()) {
    ++counts.with_operands;
    ASSERT_TRUE(by_fields[0] == ',' ? ends_with(text, by_fields) : text == by_fields)
        << hex(word) << " is '" << text << "', its fields say '" << by_fields << "'";
  }
}

class a64_against_disassembler : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(llvm.works()); }
  void TearDown() override {
    std::cout << counts.in_scope << " in the classes compared, " << counts.with_operands << " with their operands, "
              << counts.holes << " unallocated\n";
  }
  llvm_disassembler llvm{FEATURES};
  tally counts;
};

TEST_F(a64_against_disassembler, random_words_decode_to_the_same_class_and_operands) {
  const std::uint64_t seed = 0x11d15a5e;
  const std::size_t words = test::rounds(1'000'000, 10'000'000);
  std::cout << "seed " << seed << ", " << words << " words\n";
  std::mt19937_64 random(seed);
  for (std::size_t round = 0; round < words; ++round) {
    compare(llvm, static_cast<std::uint32_t>(random()), counts);
    if (HasFatalFailure()) {
      return;
    }
  }
  EXPECT_GT(counts.with_operands, words / 10);
}

TEST_F(a64_against_disassembler, words_in_and_beside_the_classes_decode_to_the_same_class_and_operands) {
  const std::uint64_t seed = 0x11d15a5f;
  const std::size_t words = test::rounds(500'000, 5'000'000);
  std::cout << "seed " << seed << ", " << words << " words\n";
  std::mt19937_64 random(seed);
  std::vector<int> scope;
  for (int value = 0; value < A64_NOT_RECOGNISED; ++value) {
    if (in_scope(value)) {
      scope.push_back(value);
    }
  }
  for (std::size_t round = 0; round < words; ++round) {
    std::uint32_t word = test::random_word(a64_classes[scope[round % scope.size()]], random);
    for (std::uint64_t flips = random() % 3; flips > 0; --flips) {
      word ^= 1u << (random() % 32);
    }
    compare(llvm, word, counts);
    if (HasFatalFailure()) {
      return;
    }
  }
  EXPECT_GT(counts.in_scope, words / 3);
}

}  // namespace
}  // namespace ceilmeter
