// Items whose instructions depend on their address: all that the engine rewrites, except system calls.
#include "bi/a64/a64.h"
#include "generator.h"

namespace ceilmeter {

namespace {

std::uint32_t back_by(std::int32_t words, std::uint32_t width) {
  return static_cast<std::uint32_t>(-words) & ((1u << width) - 1);
}

}  // namespace

// An item a little further on. finish_function limits it to the function's end.
place generator::ahead() {
  const std::uint32_t distance = random_.one_in(4) ? 1 : random_.between(1, random_.one_in(8) ? 60 : 12);
  return {current_index_, static_cast<std::uint32_t>(current_->items.size()) - 1 + distance};
}

std::uint32_t generator::table_entry(place where) {
  made_.table.push_back(where);
  return static_cast<std::uint32_t>(made_.table.size() - 1);
}

void generator::load_place(item& to, std::uint32_t reg, place where) {
  const bool table_has_room = made_.table.size() < MOST_TABLE_ENTRIES;
  switch (random_.below(table_has_room ? 5 : 3)) {
    case 0: to.add_to(fixup_kind::ADDRESS, where, 0, a64_adr, 0, 0, 0, reg); break;
    case 1:
      to.add_to(fixup_kind::PAGE, where, 0, a64_adr, 1, 0, 0, reg);
      to.add_to(fixup_kind::LOW_12, where, 0, a64_add_sub_imm, 1, 0, 0, 0, 0, reg, reg);
      break;
    case 2:
      to.add_to(fixup_kind::WIDE, where, 0, a64_mov_wide, 1, 2, 0, 0, reg);
      for (std::uint32_t hw = 1; hw < 4; ++hw) to.add(a64_mov_wide, 1, 3, hw, 0, reg);
      break;
    case 3:
      load_base(to, reg, data_address(TABLE_OFFSET + 8 * table_entry(where)));
      to.add(a64_ldr_str_unsigned, 3, 0, 1, 0, reg, reg);
      break;
    default:
      to.add_to(fixup_kind::BRANCH_19, NO_PLACE, data_address(TABLE_OFFSET + 8 * table_entry(where)), a64_ldr_literal,
                1, 0, 0, reg);
      break;
  }
}

void generator::conditional_branch(item& to, place where, std::uint64_t addend) {
  const std::uint32_t reg = random_.one_in(16) ? 31 : any_register();
  const std::uint32_t op = random_.below(2);
  switch (random_.below(3)) {
    case 0: to.add_to(fixup_kind::BRANCH_19, where, addend, a64_b_cond, 0, random_.below(16)); break;
    case 1: to.add_to(fixup_kind::BRANCH_19, where, addend, a64_cbz, random_.below(2), op, 0, reg); break;
    default:
      to.add_to(fixup_kind::BRANCH_14, where, addend, a64_tbz, random_.below(2), op, random_.below(32), 0, reg);
      break;
  }
}

void generator::conditional_branch_back(item& to, std::int32_t words) {
  const std::uint32_t reg = random_.one_in(4) ? 31 : any_register();
  const std::uint32_t op = random_.below(2);
  switch (random_.below(3)) {
    case 0: to.add(a64_b_cond, back_by(words, 19), random_.below(16)); break;
    case 1: to.add(a64_cbz, random_.below(2), op, back_by(words, 19), reg); break;
    default: to.add(a64_tbz, random_.below(2), op, random_.below(32), back_by(words, 14), reg); break;
  }
}

void generator::branch_item() {
  item& branch = start("branch");
  if (random_.one_in(6)) {
    branch.add_to(fixup_kind::BRANCH, ahead(), 0, a64_b, random_.below(2), 0);  // B or BL.
  } else {
    conditional_branch(branch, ahead(), 0);
  }
  done();
}

void generator::register_branch_item() {
  item& branch = start("register branch");
  const std::uint32_t reg = any_register();
  load_place(branch, reg, ahead());
  branch.add(random_.pick({a64_br, a64_blr, a64_ret}), reg);
  done();
}

// A switch: two, four or eight ways by the low bits of a register.
void generator::table_branch_item() {
  if (made_.table.size() + 8 > MOST_TABLE_ENTRIES) return branch_item();
  const std::uint32_t bits = random_.between(1, 3);
  const std::uint32_t base = any_register();
  const std::uint32_t index = other_register({base});
  const std::uint32_t reg = any_register();
  item& branch = start("table branch");
  const auto first = static_cast<std::uint32_t>(made_.table.size());
  for (std::uint32_t i = 0; i < 1u << bits; ++i) table_entry(ahead());
  branch.add(a64_logical_imm, 1, 0, 1, 0, bits - 1, random_.below(31), index);
  load_base(branch, base, data_address(TABLE_OFFSET + 8 * first));
  branch.add(a64_ldr_str_register, 3, 0, 1, index, 3, 1, base, reg);  // ldr reg, [base, index, lsl #3]
  branch.add(random_.pick({a64_br, a64_blr, a64_ret}), reg);
  done();
}

void generator::call_item() {
  if (callees_.empty()) return branch_item();
  const callee& called = random_.pick(callees_);
  if (called.cost * rounds_ > room()) return make_item();
  const place entry = {called.function, 0};
  item& call = start("call");
  if (random_.one_in(2)) {
    call.add_to(fixup_kind::BRANCH, entry, 0, a64_b, 1, 0);
  } else {
    const std::uint32_t reg = any_register();
    load_place(call, reg, entry);
    call.add(a64_blr, reg);
  }
  cost_ += called.cost * rounds_;
  done();
}

// A branch forwards, one back and one out. Both ways of every backward branch lead on.
void generator::backward_item() {
  item& zigzag = start("backward branch");
  zigzag.add(a64_b, 0, 2);
  switch (random_.below(4)) {
    case 0:
      zigzag.add(a64_b, 0, 2);
      zigzag.add(a64_b, random_.below(2), back_by(1, 26));
      break;
    case 1: {
      const std::uint32_t reg = any_register();
      zigzag.add(a64_b, 0, 3);
      zigzag.add(a64_adr, 0, 0, back_by(1, 19), reg);  // The word before.
      zigzag.add(random_.pick({a64_br, a64_blr, a64_ret}), reg);
      break;
    }
    default:
      zigzag.add(a64_b, 0, 2);
      conditional_branch_back(zigzag, 1);
      break;
  }
  done();
}

// Words between instructions that are no instructions, like the literals and tables of compilers.
void generator::island_item() {
  item& island = start("island");
  const std::uint32_t words = random_.between(1, 8);
  island.add(a64_b, 0, 1 + words);
  for (std::uint32_t i = 0; i < words; ++i) island.words.push_back(static_cast<std::uint32_t>(random_.next()));
  done();
}

void generator::literal_item() {
  constexpr std::uint32_t forms = 7;  // W, X, SW, PRFM; S, D, Q.
  const std::uint32_t form = random_.below(forms);
  const std::uint32_t reg = random_.one_in(12) ? 31 : any_register();
  item& literal = start("literal");
  place where = {current_index_, LAST_ITEM};
  std::uint64_t addend = 4 * random_.below(28);
  if (random_.one_in(3)) {
    where = NO_PLACE;
    addend = data_address(MEMORY_OFFSET + 4 * random_.below(0x4000));
  } else if (random_.one_in(3)) {
    where = {current_index_, random_.below(static_cast<std::uint32_t>(current_->items.size()))};  // Code as data.
    addend = 0;
  }
  literal.add_to(fixup_kind::BRANCH_19, where, addend, a64_ldr_literal, form & 3, form >> 2, 0, reg);
  done();
}

// Any offset, the limits included, because nothing is accessed at the address.
void generator::address_item() {
  constexpr std::uint32_t limits[] = {0, 1, 0xfffff, 0x100000, 0x1fffff};
  const std::uint32_t offset = random_.one_in(4) ? random_.pick(limits) : random_.below(1u << 21);
  const std::uint32_t reg = random_.one_in(16) ? 31 : any_register();
  start("address").add(a64_adr, random_.below(2), offset & 3, offset >> 2, reg);
  done();
}

}  // namespace ceilmeter
