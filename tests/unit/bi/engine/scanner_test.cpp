// What the scanner writes for each kind of instruction, word by word.
#include "bi/code/scanner.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "engine_fixture.h"

namespace ceilmeter::test {

SOURCE(one_branch);
SOURCE(one_ret);
SOURCE(call_to_next);
SOURCE(call_back);
SOURCE(branch_eq);
SOURCE(branch_al);
SOURCE(branch_nv);
SOURCE(cbnz_x0);
SOURCE(cbz_w3);
SOURCE(tbnz_bit_37);
SOURCE(far_literal_w5);
SOURCE(far_literal_x0);
SOURCE(far_literals);
SOURCE(literal_x0);
SOURCE(literal_w5);
SOURCE(literal_ldrsw);
SOURCE(literal_prfm);
SOURCE(literal_s);
SOURCE(literal_d);
SOURCE(literal_q);
SOURCE(literal_zero_register);
SOURCE(literals);
SOURCE(literal_unallocated);
SOURCE(unknown_first);
SOURCE(unknown_second);
SOURCE(prefixed);
SOURCE(prefix_predicated);
SOURCE(memory_copy);
SOURCE(memory_set);
SOURCE(prefix_alone);
SOURCE(prefixed_branch);
SOURCE(signed_return);
SOURCE(call_then_branch);
SOURCE(call_then_return);
SOURCE(reads_thread_pointer);
SOURCE(reads_thread_pointer_x0);
SOURCE(writes_thread_pointer);
SOURCE(reads_flags);
SOURCE(adr_here);
SOURCE(adrp_next_page);
SOURCE(copied_words);

namespace {

using testing::Contains;
using testing::ElementsAreArray;
using testing::Not;
using scanner = engine_test;
using scanner_death = engine_test;

class scanned : public engine_test {
 protected:
  // The words of the block of `source` behind the entry word and the counter code, if it has any.
  const std::uint32_t* body(const std::uint32_t* source, bool has_counter) {
    id = scan_block(source);
    EXPECT_EQ(*block(id), POP_X0_X1);
    const std::uint32_t* at = block(id) + 1;
    if (!has_counter) return at;
    const word_list counter = counter_code(id);
    EXPECT_THAT(words(at, counter.size()), ElementsAreArray(counter));
    return at + counter.size();
  }
  // a64_load_const does not depend on its place.
  static word_list load_const(std::uint32_t reg, std::uint64_t value) {
    std::uint32_t buffer[4];
    std::uint32_t* end = buffer;
    a64_load_const(&end, reg, value);
    return {buffer, end};
  }
  // What loads an address at this place.
  word_list load_address(const std::uint32_t* at, std::uint32_t reg, std::uint64_t address) const {
    return written(at, [&](std::uint32_t** write) { a64_load_address(write, reg, address); });
  }
  void expect_words(const std::uint32_t* at, const word_list& expected) {
    EXPECT_THAT(words(at, expected.size()), ElementsAreArray(expected));
  }

  std::int32_t id = 0;
};

TEST_F(scanned, a_block_of_one_branch_holds_the_entry_word_the_counter_code_and_the_stub) {
  const std::uint32_t* exit = body(one_branch, true);
  EXPECT_EQ(meta(id).exit_kind, EXIT_DIRECT);
  EXPECT_EQ(meta(id).exit_code_addr, exit);
  EXPECT_EQ(meta(id).taken_source_addr, address_of(one_ret));
  EXPECT_EQ(meta(id).link_state, LINK_NONE);
  expect_words(exit, joined({{NOP, PUSH_X0_X1}, branch_jump(exit + 2, address_of(one_ret), id)}));
}

TEST_F(scanned, a_branch_on_al_or_nv_which_have_no_inverse_has_one_side) {
  for (const std::uint32_t* source : {branch_al, branch_nv}) {
    const std::uint32_t* exit = body(source, true);
    EXPECT_EQ(meta(id).exit_kind, EXIT_DIRECT);
    EXPECT_EQ(meta(id).taken_source_addr, address_of(one_ret));
    expect_words(exit, joined({{NOP, PUSH_X0_X1}, branch_jump(exit + 2, address_of(one_ret), id)}));
  }
}

TEST_F(scanned, a_call_to_the_next_instruction_gives_x30_and_the_target_the_same_value) {
  const std::uint64_t next = address_of(call_to_next) + 4;
  const std::uint32_t* at = body(call_to_next, true);
  const word_list link = load_const(30, next);
  expect_words(at, link);
  const std::uint32_t* exit = at + link.size();
  EXPECT_EQ(meta(id).exit_code_addr, exit);
  EXPECT_EQ(meta(id).taken_source_addr, next);
  expect_words(exit, joined({{NOP, PUSH_X0_X1}, branch_jump(exit + 2, next, id)}));
}

TEST_F(scanned, a_call_backwards_has_its_target_below_it) {
  body(call_back, true);
  EXPECT_EQ(meta(id).taken_source_addr, address_of(one_ret));
}

TEST_F(scanned, a_conditional_branch_reserves_two_words_and_tests_the_inverted_condition) {
  const std::uint64_t skipped = address_of(branch_eq) + 4;
  const std::uint32_t* exit = body(branch_eq, true);
  EXPECT_EQ(meta(id).exit_kind, EXIT_B_COND);
  EXPECT_EQ(meta(id).exit_code_addr, exit);
  EXPECT_EQ(meta(id).taken_source_addr, address_of(one_ret));
  EXPECT_EQ(meta(id).skipped_source_addr, skipped);
  EXPECT_EQ(meta(id).exit_condition, 0u);
  const word_list expected = written(exit, [&](std::uint32_t** write) {
    for (const std::uint32_t word : {NOP, NOP, PUSH_X0_X1}) *(*write)++ = word;
    a64_load_const(write, 1, static_cast<std::uint64_t>(id));
    std::uint32_t* decision = (*write)++;
    a64_load_const(write, 0, address_of(one_ret));
    a64_branch((*write)++, thread->dispatcher_stub_addr);
    constexpr std::uint32_t ne = 1;
    a64_b_cond_to(decision, address_of(*write), ne);
    a64_load_const(write, 0, skipped);
    a64_branch((*write)++, thread->dispatcher_stub_addr);
  });
  expect_words(exit, expected);
}

TEST_F(scanned, cbnz_of_x0_becomes_cbz_of_x0_behind_the_push_and_before_x0_changes) {
  const std::uint32_t* exit = body(cbnz_x0, true);
  EXPECT_EQ(meta(id).exit_kind, EXIT_CBZ);
  EXPECT_EQ(meta(id).exit_condition, 1u);
  EXPECT_EQ(meta(id).rn, 0u | 1u << 5);
  const word_list taken = branch_jump(exit + 4, address_of(one_ret), id);
  const word_list skipped = branch_jump(exit + 4 + taken.size(), address_of(cbnz_x0) + 4, id);
  const word_list decision = written(
      exit + 3, [&](std::uint32_t** write) { a64_cbz_helper((*write)++, address_of(exit + 4 + taken.size()), 1, 0); });
  expect_words(exit, joined({{NOP, NOP, PUSH_X0_X1}, decision, taken, skipped}));
}

TEST_F(scanned, cbz_of_32_bits_has_no_size_bit_in_its_record) {
  body(cbz_w3, true);
  EXPECT_EQ(meta(id).exit_kind, EXIT_CBZ);
  EXPECT_EQ(meta(id).exit_condition, 0u);
  EXPECT_EQ(meta(id).rn, 3u);
}

TEST_F(scanned, tbnz_keeps_its_bit_and_inverts_its_sense) {
  const std::uint32_t* exit = body(tbnz_bit_37, true);
  EXPECT_EQ(meta(id).exit_kind, EXIT_TBZ);
  EXPECT_EQ(meta(id).exit_condition, 1u);
  EXPECT_EQ(meta(id).rn, 1u | 37u << 5);
  std::uint32_t b5 = 0;
  std::uint32_t op = 0;
  std::uint32_t b40 = 0;
  std::uint32_t imm14 = 0;
  std::uint32_t reg = 0;
  ASSERT_EQ(a64_decode(exit + 3), A64_TBZ);
  a64_tbz_decode(exit + 3, &b5, &op, &b40, &imm14, &reg);
  EXPECT_EQ(b5 << 5 | b40, 37u);
  EXPECT_EQ(op, 0u);
  EXPECT_EQ(reg, 1u);
}

TEST_F(scanned, a_return_has_no_counter_code) {
  body(one_ret, false);
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
  EXPECT_EQ(meta(id).exit_code_addr, block(id) + 1);
}

TEST_F(scanned, a_literal_load_of_a_general_register_uses_it_as_base) {
  constexpr std::uint32_t ldr_x0_x0 = 0xf9400000;
  expect_words(body(literal_x0, false), joined({load_const(0, address_of(literals)), {ldr_x0_x0}}));
  constexpr std::uint32_t ldr_w5_x5 = 0xb94000a5;
  expect_words(body(literal_w5, false), joined({load_const(5, address_of(literals)), {ldr_w5_x5}}));
  constexpr std::uint32_t ldrsw_x5_x5 = 0xb98000a5;
  expect_words(body(literal_ldrsw, false), joined({load_const(5, address_of(literals)), {ldrsw_x5_x5}}));
}

TEST_F(scanned, a_literal_load_that_may_fault_leaves_its_register_alone_until_it_is_made) {
  constexpr std::uint32_t push_x1 = 0xf81f0fe1;
  constexpr std::uint32_t pop_x1 = 0xf84107e1;
  constexpr std::uint32_t ldr_x0_x1 = 0xf9400020;
  expect_words(body(far_literal_x0, false),
               joined({{push_x1}, load_const(1, address_of(far_literals)), {ldr_x0_x1, pop_x1}}));
  constexpr std::uint32_t ldr_w5_x0 = 0xb9400005;
  expect_words(body(far_literal_w5, false),
               joined({{PUSH_X0}, load_const(0, address_of(far_literals)), {ldr_w5_x0, POP_X0}}));
}

TEST_F(scanned, a_prefetch_and_vector_loads_spill_x0) {
  const word_list base = load_const(0, address_of(literals));
  constexpr std::uint32_t prfm_pldl1keep_x0 = 0xf9800000;
  expect_words(body(literal_prfm, false), joined({{PUSH_X0}, base, {prfm_pldl1keep_x0, POP_X0}}));
  constexpr std::uint32_t ldr_s0_x0 = 0xbd400000;
  expect_words(body(literal_s, false), joined({{PUSH_X0}, base, {ldr_s0_x0, POP_X0}}));
  constexpr std::uint32_t ldr_d1_x0 = 0xfd400001;
  expect_words(body(literal_d, false), joined({{PUSH_X0}, base, {ldr_d1_x0, POP_X0}}));
  constexpr std::uint32_t ldr_q31_x0 = 0x3dc0001f;
  expect_words(body(literal_q, false), joined({{PUSH_X0}, base, {ldr_q31_x0, POP_X0}}));
}

TEST_F(scanned, a_literal_load_into_the_zero_register_does_not_take_the_stack_pointer_for_its_base) {
  constexpr std::uint32_t ldr_xzr_x0 = 0xf940001f;
  expect_words(body(literal_zero_register, false),
               joined({{PUSH_X0}, load_const(0, address_of(literals)), {ldr_xzr_x0, POP_X0}}));
}

TEST_F(scanner_death, the_unallocated_literal_load_ends_the_process) {
  EXPECT_DEATH(scan_block(literal_unallocated), "unallocated encoding");
}

TEST_F(scanned, an_unknown_word_in_the_first_position_is_copied) {
  const std::uint32_t* at = body(unknown_first, false);
  EXPECT_EQ(*at, 0u);
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
}

TEST_F(scanned, an_unknown_word_in_any_other_position_ends_the_block_before_it_as_a_branch_to_it_would) {
  const std::uint32_t* at = body(unknown_second, false);
  const std::uint64_t unknown = address_of(unknown_second) + 4;
  EXPECT_EQ(*at, NOP);  // The block's own.
  expect_words(at + 1, joined({{NOP, PUSH_X0_X1}, branch_jump(at + 3, unknown, id)}));
  EXPECT_EQ(meta(id).exit_kind, EXIT_DIRECT);
  EXPECT_EQ(meta(id).exit_code_addr, at + 1);
  EXPECT_EQ(meta(id).taken_source_addr, unknown);
  const std::uint64_t found = dispatched(unknown, id);
  const word_list link = written(at + 1, [found](std::uint32_t** write) { a64_branch((*write)++, found + 4); });
  expect_words(at + 1, joined({link, {PUSH_X0_X1}}));
}

TEST_F(scanned, a_prefix_and_the_word_it_belongs_to_stay_together) {
  expect_words(body(prefixed, false), words(prefixed, 2));
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
  const std::uint32_t* at = body(prefix_predicated, false);
  expect_words(at, words(prefix_predicated, 2));
  EXPECT_EQ(meta(id).taken_source_addr,
            address_of(prefix_predicated + 2));  // The next word of its kind begins a block.
}

TEST_F(scanned, the_three_words_of_a_memory_copy_or_set_stay_together) {
  for (const std::uint32_t* source : {memory_copy, memory_set}) {
    const std::uint32_t* at = body(source, false);
    expect_words(at, words(source, 3));
    EXPECT_EQ(meta(id).exit_code_addr, at + 3);
    EXPECT_EQ(meta(id).taken_source_addr, address_of(source + 3));  // The last word alone is one like any other.
    EXPECT_EQ(meta(scan_block(source + 1)).taken_source_addr, address_of(source + 2));
  }
}

TEST_F(scanned, a_prefix_in_front_of_a_word_that_is_rewritten_is_a_word_like_any_other) {
  EXPECT_EQ(*body(prefix_alone, false), *prefix_alone);
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
}

TEST_F(scanned, a_prefix_in_front_of_a_signed_branch_is_copied_alone) {
  const std::uint32_t* at = body(prefixed_branch, false);
  EXPECT_EQ(*at, *prefixed_branch);
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
  EXPECT_EQ(meta(id).exit_code_addr, at + 1);
}

TEST_F(scanned, a_return_to_a_signed_address_ends_its_block_and_is_not_copied) {
  const std::uint32_t* at = body(signed_return, false);
  EXPECT_EQ(*at, NOP);
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
  EXPECT_EQ(meta(id).exit_code_addr, at + 1);
  EXPECT_THAT(words(block(id), BB_SIZE / 4), Not(Contains(signed_return[1])));
}

TEST_F(scanned, a_system_call_stays_within_its_block_whose_end_decides_on_the_counter) {
  const std::uint32_t* at = body(call_then_branch, true) + 1;  // Behind the number of the call.
  const word_list next = load_const(29, address_of(call_then_branch) + 8);
  constexpr std::uint32_t push_x29_x30 = 0xa9bf7bfd;
  const word_list call =
      written(at + 1 + next.size(), [&](std::uint32_t** write) { a64_bl((*write)++, thread->syscall_wrapper_addr); });
  expect_words(at, joined({{push_x29_x30}, next, call, {POP_X0_X1, NOP}}));
  EXPECT_EQ(meta(id).exit_kind, EXIT_DIRECT);
}

TEST_F(scanned, a_system_calls_number_in_the_instruction_is_ignored) {
  const std::uint32_t* at = body(call_then_return, false) + 1;
  EXPECT_EQ(a64_decode(at + 1 + load_const(29, address_of(call_then_return) + 8).size()), A64_B);
}

TEST_F(scanned, a_call_without_a_number_beside_it_looks_whether_it_ends_the_thread) {
  constexpr std::uint32_t subtract_exit = 0xd1017508;  // sub x8, x8, #93
  EXPECT_EQ(*body(call_then_branch + 1, true), subtract_exit);
}

TEST_F(scanned, the_thread_pointer_is_read_from_and_written_to_the_record) {
  const std::uint64_t tls = address_of(&thread->tls);
  constexpr std::uint32_t ldur_x5_x0 = 0xf8400005;
  const std::uint32_t* at = body(reads_thread_pointer, false);
  expect_words(at, joined({{PUSH_X0}, load_address(at + 1, 0, tls), {ldur_x5_x0, POP_X0}}));
  constexpr std::uint32_t stur_x5_x0 = 0xf8000005;
  at = body(writes_thread_pointer, false);
  expect_words(at, joined({{PUSH_X0}, load_address(at + 1, 0, tls), {stur_x5_x0, POP_X0}}));
  constexpr std::uint32_t ldur_x0_x1 = 0xf8400020;
  at = body(reads_thread_pointer_x0, false);
  expect_words(at, joined({{PUSH_X1}, load_address(at + 1, 1, tls), {ldur_x0_x1, POP_X1}}));
}

TEST_F(scanned, any_other_system_register_is_left_to_the_processor) {
  EXPECT_EQ(*body(reads_flags, false), *reads_flags);
}

TEST_F(scanned, an_address_is_computed_from_where_the_code_stood) {
  const std::uint32_t* at = body(adr_here, false);
  expect_words(at, load_address(at, 4, address_of(adr_here)));
  at = body(adrp_next_page, false);
  expect_words(at, load_address(at, 4, (address_of(adrp_next_page) & ~0xfffULL) + 0x1000));
}

TEST_F(scanned, everything_else_is_copied_exclusive_accesses_barriers_and_vectors_included) {
  expect_words(body(copied_words, false), words(copied_words, 6));
}

TEST_F(scanned, a_trace_fragment_has_no_entry_word_and_no_counter_code) {
  auto* place = reinterpret_cast<std::uint32_t*>(thread->trace_write_cursor);
  meta(BB_COUNT).trampoline = 5;
  const std::uint32_t length = scan_a64(thread, one_branch, BB_COUNT, FRAGMENT_TRACE, place);
  EXPECT_EQ(meta(BB_COUNT).trampoline, 0);
  const word_list stub = branch_jump(place + 2, address_of(one_ret), BB_COUNT);
  expect_words(place, joined({{NOP, PUSH_X0_X1}, stub}));
  EXPECT_EQ(length, (2 + stub.size() + 1) * 4);
}

TEST_F(scanned, a_fragments_record_counts_the_words_that_the_scan_looked_at) {
  EXPECT_EQ(meta(scan_block(one_branch)).source_words, 2u);  // The branch, and the word behind it.
  EXPECT_EQ(meta(scan_block(copied_words)).source_words, count_source_words(copied_words) + 1);
}

TEST_F(scanned, the_two_names_of_a_scan_differ_by_4_bytes) {
  auto* place = reinterpret_cast<std::uint32_t*>(thread->trace_write_cursor);
  const std::uint32_t exact = scan_fragment(thread, one_branch, BB_COUNT, FRAGMENT_TRACE, place);
  EXPECT_EQ(scan_a64(thread, one_branch, BB_COUNT, FRAGMENT_TRACE, place), exact + 4);
}

TEST_F(scanned, a_trace_head_has_the_entry_word_and_no_counter_code) {
  auto* place = reinterpret_cast<std::uint32_t*>(thread->trace_write_cursor);
  scan_a64(thread, one_branch, BB_COUNT, FRAGMENT_TRACE_HEAD, place);
  expect_words(place, {POP_X0_X1, NOP, PUSH_X0_X1});
}

TEST_F(scanner, space_that_is_there_is_not_reserved_again) {
  const std::int32_t id = allocate_bb(thread);
  std::uint32_t* write = block(id);
  std::uint32_t* limit = block(id + 1);
  a64_reserve_block_space(thread, &write, &limit, BB_SIZE - 4);
  EXPECT_EQ(write, block(id));
  EXPECT_EQ(limit, block(id + 1));
  EXPECT_EQ(thread->next_block, id + 1);
}

TEST_F(scanner, space_in_the_adjacent_block_moves_the_limit_alone) {
  const std::int32_t id = allocate_bb(thread);
  std::uint32_t* write = block(id);
  std::uint32_t* limit = block(id + 1);
  a64_reserve_block_space(thread, &write, &limit, BB_SIZE);
  EXPECT_EQ(write, block(id));
  EXPECT_EQ(limit, block(id + 2));
  EXPECT_EQ(meta(id + 1).parent_block, id);
}

TEST_F(scanner, space_elsewhere_is_reached_by_a_branch) {
  const std::int32_t id = allocate_bb(thread);
  const std::int32_t between = allocate_bb(thread);
  std::uint32_t* write = block(id) + 50;
  std::uint32_t* limit = block(id + 1);
  a64_reserve_block_space(thread, &write, &limit, EXIT_SPACE);
  EXPECT_EQ(write, block(between + 1));
  EXPECT_EQ(limit, block(between + 2));
  EXPECT_EQ(meta(between + 1).parent_block, id);
  const word_list branch =
      written(block(id) + 50, [&](std::uint32_t** at) { a64_branch((*at)++, address_of(block(between + 1))); });
  EXPECT_EQ(block(id)[50], branch[0]);
}

}  // namespace
}  // namespace ceilmeter::test
