// How exits become links, and the code of register branches.
#include "bi/code/dispatcher.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/scanner.h"
#include "engine_fixture.h"

namespace ceilmeter::test {

SOURCE(one_branch);
SOURCE(one_ret);
SOURCE(branch_eq);
SOURCE(branch_both_same);
SOURCE(cbz_w3);
SOURCE(tbz_bit_5);
SOURCE(ret_x30);
SOURCE(br_x17);
SOURCE(blr_x30);
SOURCE(blr_x0);
SOURCE(br_x1);
SOURCE(blr_x2);
SOURCE(signed_return);
SOURCE(signed_branch_x5_x1);
SOURCE(signed_call_x2_x1);
SOURCE(signed_branch_x17);

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class dispatcher_links : public engine_test {
 protected:
  std::ptrdiff_t links_left() const {
    linked_pool* pool = thread->cc_link_pool;
    return pool->free_head == nullptr ? 0 : linked_pool_records(pool) + pool->capacity - pool->free_head;
  }
  std::uint32_t branch_word(const std::uint32_t* place, std::uint64_t to) const {
    return written(place, [to](std::uint32_t** write) { a64_branch((*write)++, to); })[0];
  }
  std::uint32_t b_cond_word(const std::uint32_t* place, const std::uint32_t* to, std::uint32_t cond) const {
    return written(place, [&](std::uint32_t** write) { a64_b_cond_to((*write)++, address_of(to), cond); })[0];
  }
};

TEST_F(dispatcher_links, an_unconditional_exits_reserved_word_becomes_a_branch_behind_the_targets_entry_word) {
  const std::int32_t id = scan_block(one_branch);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t found = dispatched(address_of(one_ret), id);
  EXPECT_EQ(found, hash_lookup_entry(thread, address_of(one_ret)));
  EXPECT_EQ(*exit, branch_word(exit, found + 4));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, found)), ElementsAre(address_of(exit)));
}

TEST_F(dispatcher_links, without_records_for_two_links_the_cache_is_flushed_and_nothing_is_linked) {
  const std::int32_t id = scan_block(one_branch);
  while (links_left() > 1) linked_pool_alloc(thread->cc_link_pool);
  dispatched(address_of(one_ret), id);
  EXPECT_NE(thread->flush_seen, 0u);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(one_branch)), HASH_MISS);
  EXPECT_EQ(links_left(), std::ptrdiff_t{LINK_POOL_CAPACITY});
}

TEST_F(dispatcher_links, two_records_are_enough) {
  const std::int32_t id = scan_block(one_branch);
  while (links_left() > 2) linked_pool_alloc(thread->cc_link_pool);
  dispatched(address_of(one_ret), id);
  EXPECT_EQ(thread->flush_seen, 0u);
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST);
}

TEST_F(dispatcher_links, the_taken_side_first_is_skipped_by_the_inverted_condition) {
  const std::int32_t id = scan_block(branch_eq);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t taken = dispatched(address_of(one_ret), id);
  constexpr std::uint32_t ne = 1;
  EXPECT_THAT(words(exit, 3),
              ElementsAre(b_cond_word(exit, exit + 2, ne), branch_word(exit + 1, taken + 4), PUSH_X0_X1));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST);

  const std::uint64_t skipped = dispatched(address_of(branch_eq) + 4, id);
  EXPECT_EQ(exit[2], branch_word(exit + 2, skipped + 4));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST | LINK_BOTH);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, skipped)), ElementsAre(address_of(exit + 2)));
}

TEST_F(dispatcher_links, the_fall_through_side_first_is_skipped_by_the_condition_itself) {
  const std::int32_t id = scan_block(branch_eq);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t skipped = dispatched(address_of(branch_eq) + 4, id);
  constexpr std::uint32_t eq = 0;
  EXPECT_THAT(words(exit, 3),
              ElementsAre(b_cond_word(exit, exit + 2, eq), branch_word(exit + 1, skipped + 4), PUSH_X0_X1));
  EXPECT_EQ(meta(id).link_state, LINK_SKIPPED_FIRST);
}

TEST_F(dispatcher_links, a_side_whose_block_is_there_is_linked_along_with_the_first_one) {
  const std::int32_t id = scan_block(branch_eq);
  const std::uint64_t skipped = scan(thread, address_of(branch_eq) + 4, 0);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t taken = dispatched(address_of(one_ret), id);
  EXPECT_THAT(words(exit + 1, 2), ElementsAre(branch_word(exit + 1, taken + 4), branch_word(exit + 2, skipped + 4)));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST | LINK_BOTH);
}

TEST_F(dispatcher_links, two_sides_at_one_address_are_linked_at_once) {
  const std::int32_t id = scan_block(branch_both_same);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t both = dispatched(address_of(branch_both_same) + 4, id);
  EXPECT_THAT(words(exit + 1, 2), ElementsAre(branch_word(exit + 1, both + 4), branch_word(exit + 2, both + 4)));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST | LINK_BOTH);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, both)), ElementsAre(address_of(exit + 2), address_of(exit + 1)));
}

TEST_F(dispatcher_links, compare_and_test_branches_are_inverted_by_their_sense) {
  const std::int32_t compare = scan_block(cbz_w3);
  dispatched(address_of(one_ret), compare);
  std::uint32_t sf = 9;
  std::uint32_t op = 9;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  ASSERT_EQ(a64_decode(meta(compare).exit_code_addr), A64_CBZ);
  a64_cbz_decode(meta(compare).exit_code_addr, &sf, &op, &imm19, &reg);
  EXPECT_EQ(sf, 0u);
  EXPECT_EQ(op, 1u);  // CBNZ skips the link.
  EXPECT_EQ(imm19, 2u);
  EXPECT_EQ(reg, 3u);

  const std::int32_t test = scan_block(tbz_bit_5);
  dispatched(address_of(tbz_bit_5) + 4, test);
  std::uint32_t b5 = 9;
  std::uint32_t b40 = 0;
  std::uint32_t imm14 = 0;
  ASSERT_EQ(a64_decode(meta(test).exit_code_addr), A64_TBZ);
  a64_tbz_decode(meta(test).exit_code_addr, &b5, &op, &b40, &imm14, &reg);
  EXPECT_EQ(op, 0u);  // TBZ, taken, skips the link of the fall-through side.
  EXPECT_EQ(b5 << 5 | b40, 5u);
  EXPECT_EQ(imm14, 2u);
}

TEST_F(dispatcher_links, a_search_that_flushes_leaves_the_source_unlinked_and_its_record_alone) {
  thread->next_block = 500;  // Not where the target's block will come to lie.
  const std::int32_t id = scan_block(one_branch);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const word_list before = words(exit, 8);
  thread->next_block = BB_FLUSH_THRESHOLD + 1;
  const std::uint64_t found = dispatched(address_of(one_ret), id);
  EXPECT_EQ(found, hash_lookup_entry(thread, address_of(one_ret)));
  EXPECT_EQ(words(exit, 8), before);
  EXPECT_EQ(meta(id).link_state, LINK_NONE);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, found)), IsEmpty());
}

TEST_F(dispatcher_links, an_arrival_without_a_source_links_nothing) {
  const std::uint64_t found = dispatched(address_of(one_ret), 0);
  EXPECT_EQ(found, hash_lookup_entry(thread, address_of(one_ret)));
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, found)), IsEmpty());
}

TEST_F(dispatcher_links, a_return_to_an_unseen_target_is_not_linked_and_finds_it_in_the_table_the_next_time) {
  const std::int32_t id = scan_block(ret_x30);
  const word_list before = words(block(id), BB_SIZE / 4);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(one_branch)), HASH_MISS);
  const std::uint64_t found = dispatched(address_of(one_branch), id);
  EXPECT_EQ(words(block(id), BB_SIZE / 4), before);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(one_branch)), found);  // Where the emitted lookup will find it.
}

TEST_F(dispatcher_links, a_branch_that_reads_or_loads_the_lookups_registers_saves_x2) {
  for (const std::uint32_t* source : {blr_x30, blr_x0, br_x1}) {
    const std::int32_t id = scan_block(source);
    EXPECT_EQ(meta(id).exit_code_addr[1], PUSH_X2);
    EXPECT_EQ(meta(id).rn, 1u);
  }
}

TEST_F(dispatcher_links, any_other_register_branch_does_without_x2) {
  const std::pair<const std::uint32_t*, std::uint32_t> branches[] = {{blr_x2, 2}, {br_x17, 17}, {ret_x30, 30}};
  for (const auto& [source, reg] : branches) {
    const std::int32_t id = scan_block(source);
    EXPECT_THAT(words(block(id), BB_SIZE / 4), Not(Contains(PUSH_X2)));
    EXPECT_EQ(meta(id).rn, reg);
  }
}

TEST_F(dispatcher_links, the_lookup_of_a_return_is_a_loop_over_the_table_and_a_way_to_the_dispatcher) {
  const std::int32_t id = scan_block(ret_x30);
  const std::uint32_t* exit = meta(id).exit_code_addr;
  const word_list expected = written(exit, [&](std::uint32_t** write) {
    *(*write)++ = PUSH_X0_X1;
    // adrp x0: the table begins with a page.
    const auto pages =
        static_cast<std::uint32_t>((address_of(thread->entry_table.entries) >> 12) - (address_of(exit + 1) >> 12));
    *(*write)++ = 0x90000000 | (pages & 3) << 29 | (pages >> 2 & 0x7ffff) << 5;
    *(*write)++ = 0x927e4bc1;  // and x1, x30, #0x1ffffc
    *(*write)++ = 0x8b010800;  // add x0, x0, x1, lsl #2
    *(*write)++ = 0xf8410401;  // ldr x1, [x0], #16
    *(*write)++ = 0xb40000a1;  // cbz x1, 20 bytes on
    *(*write)++ = 0xcb1e0021;  // sub x1, x1, x30
    *(*write)++ = 0xb5ffffa1;  // cbnz x1, 12 bytes back
    *(*write)++ = 0xf85f8000;  // ldur x0, [x0, #-8]
    *(*write)++ = BR_X0;
    *(*write)++ = 0xaa1e03e0;  // mov x0, x30
    a64_load_const(write, 1, static_cast<std::uint64_t>(id));
    a64_branch((*write)++, thread->dispatcher_stub_addr);
  });
  EXPECT_EQ(words(exit, expected.size()), expected);
}

TEST_F(dispatcher_links, a_call_by_register_loads_x30_before_it_looks_up) {
  const std::int32_t id = scan_block(blr_x2);
  const std::uint32_t* exit = meta(id).exit_code_addr;
  const word_list link =
      written(exit + 1, [&](std::uint32_t** write) { a64_load_const(write, 30, address_of(blr_x2) + 4); });
  EXPECT_EQ(words(exit + 1, link.size()), link);
}

TEST_F(dispatcher_links, the_longest_lookup_fits_the_space_that_the_scanner_keeps_for_it) {
  // An address of 48 bits takes three words, in either constant.
  std::uint32_t* write = block(allocate_bb(thread));
  std::uint32_t* const start = write;
  a64_branch_reg(thread, 54999, &write, reinterpret_cast<std::uint32_t*>(0x0000222233334440), 30, true, false);
  EXPECT_LE(address_of(write) - address_of(start), REGISTER_BRANCH_SPACE);
}

TEST_F(dispatcher_links, a_signed_address_is_authenticated_in_x1_with_its_modifier_as_it_was_before_the_lookup) {
  constexpr std::uint32_t mov_x1_x5 = 0xaa0503e1;
  const std::uint32_t* exit = meta(scan_block(signed_return)).exit_code_addr;
  EXPECT_THAT(words(exit, 5), ElementsAre(PUSH_X0_X1, PUSH_X2, 0x910083e2 /* add x2, sp, #32 */,
                                          0xaa1e03e1 /* mov x1, x30 */, 0xdac11041 /* autia x1, x2 */));
  exit = meta(scan_block(signed_branch_x5_x1)).exit_code_addr;
  EXPECT_THAT(words(exit, 5), ElementsAre(PUSH_X0_X1, PUSH_X2, 0xaa0103e2 /* mov x2, x1 */, mov_x1_x5, 0xdac11041));
  const std::int32_t id = scan_block(signed_branch_x17);
  exit = meta(id).exit_code_addr;
  EXPECT_THAT(words(exit, 4),
              ElementsAre(PUSH_X0_X1, PUSH_X2, 0xaa1103e1 /* mov x1, x17 */, 0xdac137e1 /* autizb x1 */));
  EXPECT_EQ(meta(id).rn, 1u);  // Where a signal finds the target.
}

TEST_F(dispatcher_links, a_signed_target_in_x2_has_its_modifier_in_x0_and_the_link_comes_behind_both) {
  const std::uint32_t* exit = meta(scan_block(signed_call_x2_x1)).exit_code_addr;
  EXPECT_THAT(words(exit, 5), ElementsAre(PUSH_X0_X1, PUSH_X2, 0xaa0103e0 /* mov x0, x1 */, 0xaa0203e1 /* mov x1, x2 */,
                                          0xdac11401 /* autib x1, x0 */));
  const word_list link =
      written(exit + 5, [&](std::uint32_t** write) { a64_load_const(write, 30, address_of(signed_call_x2_x1) + 4); });
  EXPECT_EQ(words(exit + 5, link.size()), link);
}

TEST_F(dispatcher_links, the_longest_lookup_of_a_signed_address_fits_its_space) {
  const std::int32_t id = allocate_bb(thread);
  std::uint32_t* write = block(id);
  std::uint32_t* const start = write;
  a64_branch_authenticated(thread, id, &write, reinterpret_cast<std::uint32_t*>(0x0000222233334440), {1, 0, 0, 31, 2});
  // A block's index always takes one word.
  EXPECT_LE(address_of(write) - address_of(start), AUTHENTICATED_BRANCH_SPACE);
}

TEST_F(dispatcher_links, the_tag_of_an_address_of_the_applications_half_is_stripped_and_the_other_halfs_stays) {
  const std::int32_t id = scan_block(ret_x30);
  const std::uint64_t target = address_of(one_ret);
  EXPECT_EQ(dispatched(target | 0xa5ULL << 56, id), hash_lookup_entry(thread, target));
  EXPECT_EQ(source_of_next, target);
  EXPECT_NE(hash_lookup_entry(thread, target), HASH_MISS);
  EXPECT_EQ(hash_lookup_entry(thread, target | 0xa5ULL << 56), HASH_MISS);
  const std::uint64_t in_other_half = 0xff80000000000000;
  dispatched(in_other_half, id);
  EXPECT_EQ(source_of_next, in_other_half);
  EXPECT_NE(hash_lookup_entry(thread, in_other_half), HASH_MISS);
}

TEST_F(dispatcher_links, an_exit_that_has_no_skipping_branch_is_fatal) {
  bb_meta trampoline{};
  trampoline.exit_kind = EXIT_TRACE;
  std::uint32_t buffer[2] = {};
  std::uint32_t* write = buffer;
  EXPECT_DEATH(insert_cond_exit_branch(trampoline, &write, 0), "insert_cond_exit_branch\\(\\): unknown branch type");
  bb_meta direct{};
  direct.exit_kind = EXIT_DIRECT;
  insert_cond_exit_branch(direct, &write, 0);
  EXPECT_EQ(write, buffer);
}

TEST_F(dispatcher_links, the_source_address_0_is_never_in_the_table) {
  EXPECT_EQ(hash_lookup_entry(thread, 0), HASH_MISS);
}

}  // namespace
}  // namespace ceilmeter::test
