// A random program as a list of items, and its way into an ELF file. An item is a few instructions that make sense only
// together (a base address and the access by it); shrinking leaves items out or puts NOPs in their place, so that all
// references between items are by item and resolved when the program is laid out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ceilmeter {

// Where things stand, as offsets from the program's base, which is a multiple of 64 KiB (the largest page).
constexpr std::uint64_t CODE_OFFSET = 0x1000;
constexpr std::uint64_t DATA_OFFSET = 0x40000;       // Everything in the data segment is within an ADR of all code.
constexpr std::uint64_t TABLE_OFFSET = DATA_OFFSET;  // Addresses of code; the only part with content in the file.
constexpr std::uint64_t RESULT_OFFSET = DATA_OFFSET + 0x4000;
constexpr std::uint64_t COUNTER_OFFSET = DATA_OFFSET + 0x8000;
constexpr std::uint64_t MEMORY_OFFSET = DATA_OFFSET + 0xa000;
constexpr std::uint64_t MEMORY_END_OFFSET = DATA_OFFSET + 0x1e000;
constexpr std::uint64_t RECORD_OFFSET = DATA_OFFSET + 0x20000;  // What registers held on the way.
constexpr std::uint64_t STACK_OFFSET = DATA_OFFSET + 0x3fc00;   // The first value of sp.
constexpr std::uint64_t STACK_END_OFFSET = DATA_OFFSET + 0x40000;
constexpr std::uint64_t DATA_SIZE = 0x40000;
constexpr std::uint64_t MAPPING_OFFSET = 0x90000;  // For what the program maps itself.
constexpr std::uint32_t MOST_TABLE_ENTRIES = 0x4000 / 8;
constexpr std::uint32_t MOST_COUNTERS = 0x2000 / 8;
constexpr std::uint32_t RECORD_SIZE = 96;
constexpr std::uint32_t MOST_RECORDS = 0x10000 / RECORD_SIZE;

// The first word of an item.
struct place {
  std::uint32_t function;
  std::uint32_t item;
};

enum class fixup_kind : std::uint8_t {
  BRANCH,     // imm26 of B and BL.
  BRANCH_19,  // imm19 at bit 5: B.cond, CBZ, LDR (literal).
  BRANCH_14,  // TBZ.
  ADDRESS,    // ADR.
  PAGE,       // ADRP.
  LOW_12,     // The imm12 of an ADD after ADRP.
  WIDE,       // Four words, MOVZ and MOVK, which hold no value yet.
};

struct fixup {
  fixup_kind kind;
  std::uint32_t word;  // Within the item.
  place target;
  std::uint64_t addend;  // Added to the target's address; the address itself if the target is NO_PLACE.
};

constexpr std::uint32_t NO_FUNCTION = ~0u;
constexpr place NO_PLACE = {NO_FUNCTION, 0};
constexpr std::uint32_t LAST_ITEM = ~0u;  // As a place's item: the function's last one, its literals.

enum class item_state : std::uint8_t { KEPT, BLANK, GONE };

struct item {
  const char* kind;    // For listings.
  const char* detail;  // The table's name of what it is about, or "".
  bool fixed;          // May not be left out: the program's beginning and end.
  item_state state = item_state::KEPT;
  std::vector<std::uint32_t> words = {};
  std::vector<fixup> fixups = {};

  // Appends the word that an encoder of bi/a64/family.h makes of the fields.
  template <typename... F>
  void add(void (*encode)(std::uint32_t*, F...), std::type_identity_t<F>... fields) {
    std::uint32_t word = 0;
    encode(&word, fields...);
    words.push_back(word);
  }
  // The same, for a word that refers to a place.
  template <typename... F>
  void add_to(fixup_kind fix, place target, std::uint64_t addend, void (*encode)(std::uint32_t*, F...),
              std::type_identity_t<F>... fields) {
    fixups.push_back({fix, static_cast<std::uint32_t>(words.size()), target, addend});
    add(encode, fields...);
  }
  void add_constant(std::uint32_t reg, std::uint64_t value);
};

struct function {
  std::vector<item> items;
};

struct program {
  std::uint64_t seed = 0;
  std::uint64_t base = 0;
  bool has_sve = false;
  std::uint32_t main = 0;
  std::vector<function> functions = {};  // As they stand in memory.
  std::vector<place> table = {};
  std::uint32_t counters = 0;
  std::uint32_t records = 0;
};

// What a file of a program holds.
struct image {
  std::uint64_t base = 0;
  std::uint64_t entry = 0;
  bool has_sve = false;
  std::vector<std::uint32_t> code = {};
  std::vector<std::uint64_t> table = {};
};

image lay_out(const program& made);

// The address at which each item of each function stands, in their order.
std::vector<std::vector<std::uint64_t>> item_addresses(const program& made);

// Writes a static executable. False, with errno set, if that fails.
bool write_elf(const image& what, const std::string& path);

// What a program writes at its end: the registers in a record of this form, and with SVE the z and p registers behind.
constexpr std::uint32_t RESULT_SIZE = 0x400;
constexpr std::uint32_t RESULT_SIZE_SVE = 0x3400;
constexpr std::uint32_t RESULT_SP = 248;
constexpr std::uint32_t RESULT_NZCV = 256;
constexpr std::uint32_t RESULT_FPCR = 264;
constexpr std::uint32_t RESULT_FPSR = 272;
constexpr std::uint32_t RESULT_TPIDR = 280;
constexpr std::uint32_t RESULT_HASH = 288;
constexpr std::uint32_t RESULT_VECTORS = 0x200;
constexpr std::uint32_t RESULT_Z = 0x1000;
constexpr std::uint32_t RESULT_P = 0x3000;

}  // namespace ceilmeter
