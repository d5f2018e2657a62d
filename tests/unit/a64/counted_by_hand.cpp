// The hand-written table: mnemonics by the kinds of encodings in which they count, and the SVE and SME encodings one by
// one.
#include "counted_by_hand.h"

#include <array>
#include <map>
#include <ostream>
#include <vector>

namespace ceilmeter::test {

namespace {

constexpr std::uint32_t HALF = 0;
constexpr std::uint32_t SINGLE = 1;
constexpr std::uint32_t DOUBLE = 2;
constexpr std::uint32_t SCALAR = 0;
constexpr std::uint32_t VECTOR = 1;

// Kinds of encodings.
constexpr unsigned FLOAT = 1;        // FP data-processing, the conversions to general registers among them.
constexpr unsigned SIMD_SCALAR = 2;  // One element of a SIMD register.
constexpr unsigned SIMD_VECTOR = 4;
constexpr unsigned PAIR = 8;            // SIMD scalar pairwise.
constexpr unsigned ELEMENT = 16;        // By element, all four.
constexpr unsigned FIXED = 32;          // To fixed-point, SIMD scalar and vector.
constexpr unsigned CHANGED_SIZE = 64;   // fcvtl, fcvtn.
constexpr unsigned ROUND_TO_ODD = 128;  // fcvtxn.

struct rule {
  unsigned kinds;
  std::uint32_t multiplier;
};

const std::map<std::string, rule>& rules() {
  static const std::map<std::string, rule> table = [] {
    std::map<std::string, rule> made;
    const auto add = [&made](std::vector<std::string> names, unsigned kinds, std::uint32_t multiplier) {
      for (const std::string& name : names) made[name] = {kinds, multiplier};
    };
    add({"fabs", "fadd", "fdiv", "fmax", "fmaxnm", "fmin", "fminnm", "fneg", "frinta", "frinti", "frintm", "frintn",
         "frintp", "frintx", "frintz", "fsqrt", "fsub"},
        SIMD_VECTOR | FLOAT, 1);
    add({"fccmp", "fccmpe", "fcmp", "fcsel"}, FLOAT, 1);
    add({"facge", "facgt", "fcmeq", "fcmge", "fcmgt", "fcmle", "fcmlt"}, SIMD_SCALAR | SIMD_VECTOR, 1);
    add({"faddp", "fmaxnmp", "fmaxp", "fminnmp", "fminp"}, PAIR | SIMD_VECTOR, 1);
    add({"fmaxnmv", "fmaxv", "fminnmv", "fminv"}, SIMD_VECTOR, 1);
    add({"fcvtas", "fcvtau", "fcvtms", "fcvtmu", "fcvtns", "fcvtnu", "fcvtps", "fcvtpu"},
        SIMD_SCALAR | SIMD_VECTOR | FLOAT, 1);
    add({"fcvtzs", "fcvtzu"}, SIMD_SCALAR | SIMD_VECTOR | FLOAT | FIXED, 1);
    add({"fcvtl", "fcvtn"}, CHANGED_SIZE, 1);
    add({"fcvtxn"}, ROUND_TO_ODD, 1);
    add({"fmul"}, SIMD_VECTOR | FLOAT | ELEMENT, 1);
    add({"fmulx"}, SIMD_SCALAR | SIMD_VECTOR | ELEMENT, 1);
    add({"fmadd", "fmsub", "fnmadd", "fnmsub", "fnmul"}, FLOAT, 2);
    add({"fmla", "fmls"}, SIMD_VECTOR | ELEMENT, 2);
    add({"frecps", "frsqrts"}, SIMD_SCALAR | SIMD_VECTOR, 2);
    return made;
  }();
  return table;
}

// FMLA's SVE and SME encodings, FMLS's value beside FMLA's. Singles and doubles by bit 22 where doubles is not 0.
struct scalable {
  std::uint32_t fmla;
  std::uint32_t fmls;
  std::uint32_t mask;
  std::uint32_t precision;
  std::uint32_t count;
  std::uint32_t doubles;
};

constexpr std::array<scalable, 17> SCALABLE = {{
    {0x64200000, 0x64200400, 0xffa0fc00, HALF, 16, 0},
    {0x64a00000, 0x64a00400, 0xffe0fc00, SINGLE, 8, 0},
    {0x64e00000, 0x64e00400, 0xffe0fc00, DOUBLE, 4, 0},
    {0xc1101000, 0xc1101010, 0xfff09030, HALF, 32, 0},
    {0xc1500000, 0xc1500010, 0xfff09038, SINGLE, 16, 0},
    {0xc1d00000, 0xc1d00010, 0xfff09838, DOUBLE, 8, 0},
    {0xc1109000, 0xc1109010, 0xfff09070, HALF, 32, 0},
    {0xc1508000, 0xc1508010, 0xfff09078, SINGLE, 16, 0},
    {0xc1d08000, 0xc1d08010, 0xfff09878, DOUBLE, 8, 0},
    {0xc1201800, 0xc1201808, 0xffb09c18, SINGLE, 16, 8},
    {0xc1201c00, 0xc1201c08, 0xfff09c18, HALF, 64, 0},
    {0xc1301800, 0xc1301808, 0xffb09c18, HALF, 128, 0},
    {0xc1301c00, 0xc1301c08, 0xfff09c18, HALF, 128, 0},
    {0xc1a01800, 0xc1a01808, 0xffa19c38, SINGLE, 16, 8},
    {0xc1a01008, 0xc1a01018, 0xffe19c38, HALF, 64, 0},
    {0xc1a11800, 0xc1a11808, 0xffa39c78, HALF, 128, 0},
    {0xc1a11008, 0xc1a11018, 0xffe39c78, HALF, 128, 0},
}};

constexpr std::array<scalable, 3> SVE_FMUL = {{
    {0x64202000, 0, 0xffa0fc00, HALF, 8, 0},
    {0x64a02000, 0, 0xffe0fc00, SINGLE, 4, 0},
    {0x64e02000, 0, 0xffe0fc00, DOUBLE, 2, 0},
}};

bool bit(std::uint32_t word, int position) { return (word >> position & 1) != 0; }

expected_work of_scalable(const scalable& one, std::uint32_t word) {
  if (one.doubles != 0 && bit(word, 22)) return {DOUBLE, VECTOR, one.doubles, 0};
  return {one.precision, VECTOR, one.count, 0};
}

std::optional<expected_work> scalable_by_hand(const std::string& mnemonic, const classifier_row& row,
                                              std::uint32_t word) {
  for (const scalable& one : SCALABLE) {
    if (mnemonic == "fmla" && row.value == one.fmla && row.mask == one.mask) return of_scalable(one, word);
    if (mnemonic == "fmls" && row.value == one.fmls && row.mask == one.mask) return of_scalable(one, word);
  }
  for (const scalable& one : SVE_FMUL) {
    if (mnemonic == "fmul" && row.value == one.fmla && row.mask == one.mask) return of_scalable(one, word);
  }
  if ((mnemonic == "fcvtl" || mnemonic == "fcvtn") && row.format_id == 25) return expected_work{HALF, SCALAR, 1, 1};
  return std::nullopt;
}

// Bits 28:25 are x111 in scalar floating-point and Advanced SIMD instructions, and in no others.
bool is_simd_or_float(const classifier_row& row) { return (row.value >> 25 & 7) == 7; }

unsigned kind_of(const std::string& mnemonic, const classifier_row& row) {
  if (mnemonic == "fcvtxn") return ROUND_TO_ODD;
  if (mnemonic == "fcvtl" || mnemonic == "fcvtn") return CHANGED_SIZE;
  switch (row.format_id) {
    case 65: return FLOAT;
    case 59:
    case 60: return SIMD_SCALAR;
    case 61:
    case 62: return SIMD_VECTOR;
    case 63:
    case 64: return row.mask == 0xffbffc00 ? PAIR : SIMD_VECTOR;
    case 83:
    case 84:
    case 85:
    case 86: return ELEMENT;
    case 1:
    case 2: return FIXED;
    default: return 0;
  }
}

std::uint32_t of_bit_22(std::uint32_t word) { return bit(word, 22) ? DOUBLE : SINGLE; }

std::uint32_t of_fixed_point(std::uint32_t word) { return bit(word, 22) ? DOUBLE : bit(word, 21) ? SINGLE : HALF; }

std::uint32_t vector_count(std::uint32_t precision, std::uint32_t word) {
  const std::uint32_t bits = bit(word, 30) ? 128 : 64;
  return bits / (precision == HALF ? 16 : precision == SINGLE ? 32 : 64);
}

expected_work of_vector(std::uint32_t precision, std::uint32_t word, std::uint32_t multiplier) {
  return {precision, VECTOR, vector_count(precision, word), multiplier};
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const expected_work& work) {
  return out << "precision " << work.precision << " class " << work.fclass << " count " << work.count << " multiplier "
             << work.multiplier;
}

bool has_counted_encodings(const std::string& mnemonic) { return rules().contains(mnemonic); }

std::optional<expected_work> counted_by_hand(const classifier_row& row, std::uint32_t word) {
  const std::string mnemonic = mnemonic_names.at(row.mnemonic_id);
  const auto found = rules().find(mnemonic);
  if (found == rules().end()) return std::nullopt;
  if (!is_simd_or_float(row)) return scalable_by_hand(mnemonic, row, word);
  const unsigned kind = kind_of(mnemonic, row);
  const std::uint32_t multiplier = found->second.multiplier;
  if ((found->second.kinds & kind) == 0) return std::nullopt;
  switch (kind) {
    case FLOAT: {
      static constexpr std::array<std::uint32_t, 4> precisions = {SINGLE, DOUBLE, ~0U, HALF};
      const std::uint32_t precision = precisions[word >> 22 & 3];
      if (precision == ~0U) return std::nullopt;
      return expected_work{precision, SCALAR, 1, multiplier};
    }
    case SIMD_SCALAR: return expected_work{row.format_id == 59 ? HALF : of_bit_22(word), SCALAR, 1, multiplier};
    case PAIR: return expected_work{row.format_id == 63 ? HALF : of_bit_22(word), SCALAR, 1, multiplier};
    case SIMD_VECTOR:
      return of_vector(row.format_id == 61 || row.format_id == 63 ? HALF : of_bit_22(word), word, multiplier);
    case ELEMENT:
      if (row.format_id == 83) return expected_work{HALF, SCALAR, 1, multiplier};
      if (row.format_id == 84) return expected_work{of_bit_22(word), SCALAR, 1, multiplier};
      return of_vector(row.format_id == 85 ? HALF : of_bit_22(word), word, multiplier);
    case FIXED:
      if (row.format_id == 1) return expected_work{of_fixed_point(word), SCALAR, 1, multiplier};
      // Without a shift amount the words of a signed conversion are FMOV of a constant to a vector of halves.
      if (mnemonic == "fcvtzs" && (word >> 19 & 0xf) == 0) return std::nullopt;
      return of_vector(of_fixed_point(word), word, multiplier);
    case ROUND_TO_ODD:
      if (row.format_id == 1) return expected_work{of_bit_22(word), SCALAR, 1, multiplier};
      return of_vector(of_bit_22(word), word, multiplier);
    default: return of_vector(of_bit_22(word), word, multiplier);
  }
}

}  // namespace ceilmeter::test
