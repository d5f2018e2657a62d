// Items of arithmetic, constants, loads and stores, exclusives, and the stack.
#include "bi/a64/a64.h"
#include "generator.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t SP = 31;

// A base lies so that the longest offset in either direction stays within the memory.
constexpr std::uint64_t FIRST_BASE = MEMORY_OFFSET + 0x1000;
constexpr std::uint32_t BASE_RANGE = 0x2000;
static_assert(FIRST_BASE + BASE_RANGE + 4095 * 16 + 64 < MEMORY_END_OFFSET);

// The free room that every frame has above sp.
constexpr std::uint32_t FRAME_FREE = 16;
constexpr std::uint32_t FRAME_FREE_END = 0xe0;

std::uint32_t scale_of(std::uint32_t word, row_use use) {
  const bool vector = (word >> 26 & 1) != 0;
  if (use == row_use::PAIR) {
    const std::uint32_t opc = word >> 30;
    return vector ? 2 + opc : opc == 2 ? 3 : 2;
  }
  return vector && (word >> 23 & 1) != 0 ? 4 : word >> 30;
}

}  // namespace

// One of a row's words with other registers.
std::uint32_t generator::table_word(const encoding& row) {
  std::uint32_t word = random_.pick(row.words);
  for (const row_field& field : row.fields) {
    if (field.name[0] != 'R' || field.width != 5) continue;
    std::uint32_t reg = random_.one_in(16) ? 31 : any_register();
    if (reg == 31 && row.sp_destination && field.name == "Rd") reg = random_.below(31);
    word = with_field(row, word, field.name.c_str(), reg);
  }
  return word;
}

void generator::data_item() {
  const std::uint32_t chance = random_.below(100);
  row_use use = row_use::GENERAL;
  if (made_.has_sve && chance < 30) {
    use = row_use::SVE;
  } else if (chance < 60) {
    use = row_use::GENERAL;
  } else {
    use = chance < 88 ? row_use::VECTOR : row_use::FLOATING;
  }
  const encoding& row = encodings_.rows[random_.pick(encodings_.of(use))];
  start("data", row.name.c_str()).words.push_back(table_word(row));
  done();
}

void generator::constant_item() {
  start("constant").add_constant(any_register(), random_.value());
  done();
}

// All ways in which compilers make addresses.
void generator::load_base(item& to, std::uint32_t reg, std::uint64_t address) {
  switch (random_.below(3)) {
    case 0: to.add_constant(reg, address); break;
    case 1: to.add_to(fixup_kind::ADDRESS, NO_PLACE, address, a64_adr, 0, 0, 0, reg); break;
    default:
      to.add_to(fixup_kind::PAGE, NO_PLACE, address, a64_adr, 1, 0, 0, reg);
      to.add_to(fixup_kind::LOW_12, NO_PLACE, address, a64_add_sub_imm, 1, 0, 0, 0, 0, reg, reg);
      break;
  }
}

void generator::memory_item() {
  constexpr row_use uses[] = {row_use::OFFSET_9,  row_use::ORDERED_9, row_use::WRITEBACK_9, row_use::OFFSET_12,
                              row_use::OFFSET_12, row_use::INDEXED,   row_use::PAIR,        row_use::PAIR_WRITEBACK,
                              row_use::BASE,      row_use::CAS_PAIR,  row_use::STRUCTURE,   row_use::STRUCTURE_POST};
  const row_use use = random_.pick(uses);
  if (encodings_.of(use).empty()) return data_item();
  const encoding& row = encodings_.rows[random_.pick(encodings_.of(use))];
  std::uint32_t word = random_.pick(row.words);

  const std::uint32_t rt = use == row_use::CAS_PAIR ? 2 * random_.below(15) : random_.below(32);
  std::uint32_t rt2 = random_.below(32);
  if (rt2 == rt) rt2 = (rt + 1) & 31;
  const std::uint32_t base = other_register({rt, rt2});
  const std::uint32_t index = other_register({base});
  word = with_field(row, word, "Rt", rt);
  word = with_field(row, word, "Rt2", rt2);
  word = with_field(row, word, "Rs", use == row_use::CAS_PAIR ? 2 * random_.below(15) : random_.below(32));
  word = with_field(row, word, "Rn", base);
  word = with_field(row, word, "Rm", index);

  item& access = start("memory", row.name.c_str());
  const bool can_use_sp = use == row_use::OFFSET_9 || use == row_use::OFFSET_12 || use == row_use::PAIR;
  if (can_use_sp && random_.one_in(4)) {
    const std::uint32_t offset = random_.between(FRAME_FREE, FRAME_FREE_END);
    const std::uint32_t scaled = ((offset - 1) >> scale_of(word, use)) + 1;
    word = with_field(row, word, "imm9", offset);
    word = with_field(row, word, "imm12", scaled);
    word = with_field(row, word, "imm7", scaled);
    access.words.push_back(with_field(row, word, "Rn", SP));
    done();
    return;
  }
  std::uint64_t address = data_address(FIRST_BASE + random_.below(BASE_RANGE));
  const bool aligned = use == row_use::ORDERED_9 || use == row_use::BASE || use == row_use::CAS_PAIR;
  if (aligned || random_.one_in(2)) address &= ~std::uint64_t{15};
  if (use == row_use::ORDERED_9) word = with_field(row, word, "imm9", field_of(row, word, "imm9") & 0x1f0);
  load_base(access, base, address);
  if (use == row_use::INDEXED) {
    std::uint64_t offset = random_.below(0x1000);
    const std::uint32_t option = has_field(row, "option") ? field_of(row, word, "option") : 3;
    if ((option & 4) != 0 && random_.one_in(2)) offset = 0 - (offset & 0xff);
    // Only the low 32 bits of such an index count.
    if ((option & 1) == 0) offset = (offset & 0xffffffff) | random_.next() << 32;
    access.add_constant(index, offset);
  } else if (use == row_use::STRUCTURE_POST && has_field(row, "Rm")) {
    access.add_constant(index, random_.value());
  }
  access.words.push_back(word);
  done();
}

// A load-exclusive and its store, repeated until the store succeeds; or a store without a load, which fails.
void generator::exclusive_item() {
  const std::uint32_t pair = random_.below(2);
  const std::uint32_t size = pair != 0 ? random_.between(2, 3) : random_.below(4);
  const std::uint32_t base = any_register();
  const std::uint32_t loaded = other_register({base});
  const std::uint32_t second = other_register({base, loaded});
  const std::uint32_t stored = other_register({base, loaded, second});
  const std::uint32_t status = other_register({base, loaded, second, stored});
  const std::uint32_t acquire = random_.below(2);
  const std::uint32_t release = random_.below(2);
  const std::uint32_t rt2 = pair != 0 ? second : 31;
  item& exclusive = start("exclusive");
  load_base(exclusive, base, data_address(FIRST_BASE + 16 * random_.below(BASE_RANGE / 16)));
  if (random_.one_in(8)) {
    exclusive.add(a64_clrex, 15);
    exclusive.add(a64_ldx_stx, size, 0, 0, pair, status, release, rt2, base, stored);
  } else {
    exclusive.add(a64_ldx_stx, size, 0, 1, pair, 31, acquire, rt2, base, loaded);
    exclusive.add(a64_add_sub_imm, 1, random_.below(2), random_.below(2), 0, random_.below(4096), loaded, stored);
    exclusive.add(a64_ldx_stx, size, 0, 0, pair, status, release, rt2, base, stored);
    exclusive.add(a64_cbz, 0, 1, static_cast<std::uint32_t>(-3) & 0x7ffff, status);
  }
  done();
}

// Stores some registers in a place of their own, so that values that do not live to the end are compared as well.
void generator::record_item() {
  if (made_.records == MOST_RECORDS) return data_item();
  const std::uint64_t address = data_address(RECORD_OFFSET + RECORD_SIZE * made_.records++);
  const std::uint32_t base = any_register();
  item& record = start("record");
  load_base(record, base, address);
  for (std::uint32_t pair = 0; pair < 3; ++pair) {
    record.add(a64_ldp_stp, 2, 0, 2, 0, 2 * pair, random_.below(31), base, random_.below(31));
  }
  record.add(a64_ldp_stp, 2, 1, 2, 0, 3, random_.below(32), base, random_.below(32));
  if (random_.one_in(4)) {
    const std::uint32_t reg = other_register({base});
    record.add(a64_mrs_msr, 1, 1, 3, 4, 2, 0, reg);  // mrs reg, nzcv
    record.add(a64_ldr_str_unsigned, 3, 0, 0, 10, base, reg);
  }
  done();
}

// An application keeps nothing below sp, and sp is a multiple of 16 whenever memory is accessed through it.
void generator::stack_item() {
  item& stack = start("stack");
  const encoding& row = encodings_.rows[random_.pick(encodings_.of(row_use::VECTOR))];
  switch (random_.below(3)) {
    case 0: {
      const std::uint32_t first = any_register();
      const std::uint32_t second = other_register({first});
      stack.add(a64_ldp_stp, 2, 0, 3, 0, 0x7e, any_register(), SP, any_register());
      stack.words.push_back(table_word(row));
      stack.add(a64_ldp_stp, 2, 0, 1, 1, 2, second, SP, first);
      break;
    }
    case 1:
      stack.add(a64_ldr_str_imm9, 3, 0, 0, 0x1f0, 3, SP, any_register());
      stack.words.push_back(table_word(row));
      stack.add(a64_ldr_str_imm9, 3, 0, 1, 16, 1, SP, any_register());
      break;
    default: {
      const std::uint32_t size = 16 * random_.between(1, 200);
      const std::uint32_t reg = any_register();
      stack.add(a64_add_sub_imm, 1, 1, 0, 0, size, SP, SP);
      stack.add(a64_ldr_str_unsigned, 3, 0, 0, random_.below(size / 8), SP, reg);
      stack.add(a64_add_sub_imm, 1, 0, 0, 0, size, SP, SP);
      stack.add(a64_add_sub_imm, 1, 0, 0, 0, 0, SP, reg);
      break;
    }
  }
  done();
}

}  // namespace ceilmeter
