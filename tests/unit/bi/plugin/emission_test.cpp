// Each emission service, compared with what an assembler makes of the same instructions, and its refusals: registers,
// constants, arithmetic, memory and masks, and what holds for every service. emission_branches_test.cpp has branches
// and calls.
#include <functional>
#include <set>

#include "bi/a64/a64.h"
#include "emission_fixture.h"

namespace ceilmeter {
namespace {

using test::address_behind;
using test::expected;
using test::plugin_emission_test;
using test::some_function;
using test::words;

TEST_F(plugin_emission_test, one_register_is_pushed_and_popped_alone) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_save_regs(c, 1); }), expected("save_x0"));
  EXPECT_EQ(ctx.plugin_stack_offset, 2u);
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_restore_regs(c, 1); }), expected("restore_x0"));
}

TEST_F(plugin_emission_test, two_registers_are_pushed_and_popped_as_a_pair) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_save_regs(c, 0x300000); }), expected("save_x20_x21"));
  EXPECT_EQ(ctx.plugin_stack_offset, 2u);
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_restore_regs(c, 0x300000); }), expected("restore_x20_x21"));
}

TEST_F(plugin_emission_test, of_an_odd_number_the_highest_is_pushed_first_and_popped_last) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_save_regs(c, 0x2a); }), expected("save_x1_x3_x5"));
  EXPECT_EQ(ctx.plugin_stack_offset, 4u);
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_restore_regs(c, 0x2a); }), expected("restore_x1_x3_x5"));
}

TEST_F(plugin_emission_test, pairs_are_pushed_from_the_top_down_and_popped_from_the_bottom_up) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_save_regs(c, 0x400001ff); }), expected("save_0x400001ff"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_restore_regs(c, 0x400001ff); }),
            expected("restore_0x400001ff"));
}

TEST_F(plugin_emission_test, popping_what_was_pushed_leaves_no_slots) {
  for (const std::uint32_t mask : {0u, 1u, 3u, 7u, 0x80000001u, 0xffffffffu, 0x7fffffffu}) {
    mora_context context = scan_context();
    EXPECT_EQ(mora_emit_save_regs(&context, mask), 0);
    EXPECT_EQ(mora_emit_restore_regs(&context, mask), 0);
    EXPECT_EQ(context.plugin_stack_offset, 0u) << std::hex << mask;
  }
}

TEST_F(plugin_emission_test, no_register_is_no_code) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_save_regs(c, 0); }), words{});
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_restore_regs(c, 0); }), words{});
}

TEST_F(plugin_emission_test, constants_take_as_many_words_as_they_have_parts) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_load_const(c, 7, 0); }), expected("load_const_0"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_load_const(c, 7, 0x0000123400005678); }),
            expected("load_const_0x0000123400005678"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_load_const(c, 7, 0x0123456789abcdef); }),
            expected("load_const_all_parts"));
}

TEST_F(plugin_emission_test, moves_come_from_registers_and_the_stack_pointer) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_mov(c, 3, 4); }), expected("mov_x3_x4"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_mov(c, 3, 31); }), expected("mov_x3_sp"));
}

TEST_F(plugin_emission_test, immediates_are_added_by_their_halves) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, 0xabc); }), expected("add_low"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, 0xabc000); }), expected("add_high"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, 0xffffff); }), expected("add_both"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, -0xffffff); }), expected("sub_both"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, -0x1000); }), expected("sub_high"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 31, 31, 16); }), expected("add_sp"));
}

TEST_F(plugin_emission_test, adding_0_is_a_move_or_nothing) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, 0); }), expected("mov_x3_x4"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 31, 0); }), expected("mov_x3_sp"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_imm(c, 3, 3, 0); }), words{});
}

TEST_F(plugin_emission_test, immediates_of_more_than_24_bits_are_refused) {
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, 0x1000000); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, -0x1000000); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_add_imm(c, 3, 4, INT32_MIN); }));
}

TEST_F(plugin_emission_test, registers_are_added_and_negative_ones_subtracted) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_reg(c, 3, 4, 5); }), expected("add_registers"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_reg(c, 3, 4, -5); }), expected("sub_registers"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_shifted_reg(c, 3, 4, 5, 0, 63); }), expected("add_lsl"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_shifted_reg(c, 3, 4, 5, 1, 1); }), expected("add_lsr"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_add_shifted_reg(c, 3, 4, -5, 2, 7); }), expected("sub_asr"));
}

TEST_F(plugin_emission_test, shifts_by_more_than_63_and_rotations_are_refused) {
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_add_shifted_reg(c, 3, 4, 5, 0, 64); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_add_shifted_reg(c, 3, 4, 5, 3, 1); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_add_reg(c, 3, 4, 32); }));
}

TEST_F(plugin_emission_test, loads_and_stores_have_each_form_of_address) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_ldr(c, 20, 21); }), expected("ldr"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_str(c, 20, 21); }), expected("str"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_ldr_offset(c, 20, 21, 32760); }), expected("ldr_offset"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_str_offset(c, 20, 31, 8); }), expected("str_offset"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_ldr_index(c, 20, 21, -256, false); }), expected("ldr_pre"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_ldr_index(c, 20, 21, 255, true); }), expected("ldr_post"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_str_index(c, 20, 21, 255, false); }), expected("str_pre"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_str_index(c, 20, 21, -256, true); }), expected("str_post"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_stp_offset(c, 20, 22, 21, -512); }), expected("stp_offset"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_ldp_post(c, 20, 22, 21, 504); }), expected("ldp_post"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_push_pair(c, 20, 22, 21); }), expected("push_pair"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_pop_pair(c, 20, 22, 21); }), expected("pop_pair"));
}

TEST_F(plugin_emission_test, offsets_that_no_load_or_store_can_hold_are_refused) {
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_ldr_offset(c, 20, 21, 32768); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_str_offset(c, 20, 21, 4); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_ldr_index(c, 20, 21, 256, true); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_str_index(c, 20, 21, -257, false); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_stp_offset(c, 20, 22, 21, 512); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_stp_offset(c, 20, 22, 21, -520); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_ldp_post(c, 20, 22, 21, 12); }));
}

TEST_F(plugin_emission_test, masks_are_registers_or_logical_immediates) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_and(c, 3, 4, 5); }), expected("and_registers"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_and_imm(c, 3, 4, 0x1ffffc); }), expected("and_0x1ffffc"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_and_imm(c, 3, 4, 0x5555555555555555); }),
            expected("and_0x5555555555555555"));
}

// A logical immediate as the architecture reads it; 0 for fields that are unallocated.
std::uint64_t decoded_mask(std::uint32_t n, std::uint32_t immr, std::uint32_t imms) {
  const std::uint32_t selector = n << 6 | (~imms & 0x3f);
  if (selector < 2) return 0;
  std::uint32_t size = 1;
  while (size * 2 <= selector) size *= 2;
  const std::uint32_t ones = (imms & (size - 1)) + 1;
  if (ones == size) return 0;
  std::uint64_t element = 0;
  for (std::uint32_t bit = 0; bit < ones; ++bit) {
    element |= std::uint64_t{1} << ((bit + size - (immr & (size - 1))) % size);
  }
  std::uint64_t mask = 0;
  for (std::uint32_t place = 0; place < 64; place += size) mask |= element << place;
  return mask;
}

TEST_F(plugin_emission_test, every_logical_immediate_is_encoded_as_what_the_architecture_reads) {
  std::set<std::uint64_t> masks;
  for (std::uint32_t fields = 0; fields < 0x2000; ++fields) {
    masks.insert(decoded_mask(fields >> 12, fields >> 6 & 0x3f, fields & 0x3f));
  }
  masks.erase(0);
  EXPECT_EQ(masks.size(), 5334u);  // The number that the architecture has.
  mora_context context = scan_context();
  for (const std::uint64_t mask : masks) {
    std::uint32_t* place = context.write_p;
    ASSERT_EQ(mora_emit_and_imm(&context, 3, 4, mask), 0) << std::hex << mask;
    context.write_p = place;
    std::uint32_t sf = 0, opc = 0, n = 0, immr = 0, imms = 0, rn = 0, rd = 0;
    a64_logical_imm_decode(place, &sf, &opc, &n, &immr, &imms, &rn, &rd);
    ASSERT_EQ(decoded_mask(n, immr, imms), mask) << std::hex << *place;
    ASSERT_EQ(sf, 1u);
    ASSERT_EQ(opc, 0u);
    ASSERT_EQ(rn, 4u);
    ASSERT_EQ(rd, 3u);
    // Every mask that differs from this one in one bit and is not encodable.
    for (int bit = 0; bit < 64; bit += 7) {
      const std::uint64_t neighbour = mask ^ std::uint64_t{1} << bit;
      if (masks.count(neighbour) != 0) continue;
      ASSERT_EQ(mora_emit_and_imm(&context, 3, 4, neighbour), -1) << std::hex << neighbour;
      ASSERT_EQ(context.write_p, place);
    }
  }
}

TEST_F(plugin_emission_test, masks_that_no_logical_immediate_holds_are_refused) {
  for (const std::uint64_t bits : {std::uint64_t{0}, ~std::uint64_t{0}, std::uint64_t{5}, std::uint64_t{0x123456}}) {
    EXPECT_TRUE(refuses([bits](mora_context* c) { return mora_emit_and_imm(c, 3, 4, bits); })) << std::hex << bits;
  }
}

TEST_F(plugin_emission_test, a_counter_is_added_to_with_two_registers_saved) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_counter_add(c, 0x0000567800001230, 4095); }),
            expected("counter_add"));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_counter_add(c, 0x1230, 4096); }));
}

TEST_F(plugin_emission_test, runs_are_counted_with_two_registers_saved) {
  auto* const far = reinterpret_cast<std::uint64_t*>(0x0000567800001230);
  EXPECT_EQ(written([far](mora_context* c) { return mora_count_runs(c, far); }), expected("run_counter"));
}

// The words, with the two that have an address in them decoded.
TEST_F(plugin_emission_test, a_counter_near_the_code_is_reached_by_one_adrp) {
  constexpr std::size_t pages = 2;
  constexpr std::size_t words_of_page = 4096 / 8;
  auto* const counters =
      reinterpret_cast<std::uint64_t*>(thread->exit_counters + (-address_of(thread->exit_counters) & 4095));
  for (std::size_t index = 0; index < pages * words_of_page; index += 7) {
    std::uint64_t* const counter = counters + index;
    const words code = written([counter](mora_context* c) {
      c->write_p += 1 + address_of(counter) / 8 % 5;
      return mora_count_runs(c, counter);
    });
    const words run(code.end() - 6, code.end());
    EXPECT_EQ(run[0], 0xa9bf7be1U);               // stp x1, x30, [sp, #-16]!
    EXPECT_EQ(run[1] & 0x9f00001f, 0x90000001U);  // adrp x1, ...
    EXPECT_EQ(run[2] & 0xffc003ff, 0xf940003eU);  // ldr x30, [x1, ...]
    EXPECT_EQ(run[3], 0x910007deU);               // add x30, x30, #1
    EXPECT_EQ(run[4], run[2] - 0x400000);         // str x30, [x1, ...]
    EXPECT_EQ(run[5], 0xa8c17be1U);               // ldp x1, x30, [sp], #16
    const std::uint64_t field = (run[1] >> 5 & 0x7ffff) << 2 | (run[1] >> 29 & 3);
    const auto distance = static_cast<std::int64_t>(field << 43) >> 43;
    const std::uint64_t from = address_of(ctx.write_p - 5) & ~std::uint64_t{0xfff};
    const std::uint64_t reached = from + static_cast<std::uint64_t>(distance * 4096) + (run[2] >> 10 & 0xfff) * 8;
    ASSERT_EQ(reached, address_of(counter));
  }
}

TEST_F(plugin_emission_test, runs_are_counted_at_a_blocks_start_alone_and_in_aligned_words) {
  auto* const odd = reinterpret_cast<std::uint64_t*>(0x0000567800001234);
  EXPECT_TRUE(refuses([odd](mora_context* c) { return mora_count_runs(c, odd); }));
  std::uint64_t counter = 0;
  for (const mora_event event : {MORA_PRE_INST, MORA_POST_INST, MORA_PRE_FRAGMENT, MORA_PRE_FUNCTION}) {
    ctx = scan_context(event);
    start = ctx.write_p;
    EXPECT_EQ(mora_count_runs(&ctx, &counter), -1) << event;
    EXPECT_EQ(ctx.write_p, start) << event;
  }
}

TEST_F(plugin_emission_test, the_family_writes_at_the_context) {
  EXPECT_EQ(written([](mora_context* c) {
              emit_logical_shifted(c, 1, 1, 0, 0, 4, 0, 31, 3);
              return 0;
            }),
            expected("mov_x3_x4"));
}

TEST_F(plugin_emission_test, no_service_writes_where_no_code_is_allowed) {
  using service = std::function<int(mora_context*)>;
  mora_branch branch{};
  std::uint64_t counter = 0;
  const service services[] = {
      [](mora_context* c) { return mora_emit_save_regs(c, 3); },
      [](mora_context* c) { return mora_emit_restore_regs(c, 3); },
      [](mora_context* c) { return mora_emit_load_const(c, 3, 1); },
      [](mora_context* c) { return mora_emit_mov(c, 3, 4); },
      [](mora_context* c) { return mora_emit_add_imm(c, 3, 4, 1); },
      [](mora_context* c) { return mora_emit_add_reg(c, 3, 4, 1); },
      [](mora_context* c) { return mora_emit_ldr(c, 3, 4); },
      [](mora_context* c) { return mora_emit_str(c, 3, 4); },
      [](mora_context* c) { return mora_emit_ldr_offset(c, 3, 4, 8); },
      [](mora_context* c) { return mora_emit_str_offset(c, 3, 4, 8); },
      [](mora_context* c) { return mora_emit_ldr_index(c, 3, 4, 8, true); },
      [](mora_context* c) { return mora_emit_str_index(c, 3, 4, 8, true); },
      [](mora_context* c) { return mora_emit_stp_offset(c, 3, 4, 5, 8); },
      [](mora_context* c) { return mora_emit_ldp_post(c, 3, 4, 5, 8); },
      [](mora_context* c) { return mora_emit_push_pair(c, 3, 4, 31); },
      [](mora_context* c) { return mora_emit_pop_pair(c, 3, 4, 31); },
      [](mora_context* c) { return mora_emit_and(c, 3, 4, 5); },
      [](mora_context* c) { return mora_emit_and_imm(c, 3, 4, 1); },
      [](mora_context* c) { return mora_emit_tbz(c, 3, 4, 8); },
      [](mora_context* c) { return mora_emit_tbz_at(c, c->write_p, 3, 4, 8); },
      [](mora_context* c) { return mora_emit_branch(c, address_behind(c, 8)); },
      [](mora_context* c) { return mora_emit_branch_cond(c, address_behind(c, 8), 0); },
      [](mora_context* c) { return mora_emit_cbz(c, address_behind(c, 8), 0); },
      [](mora_context* c) { return mora_emit_cbnz(c, address_behind(c, 8), 0); },
      [&](mora_context* c) { return mora_reserve_branch(c, &branch); },
      [&](mora_context* c) { return branch.place = c->write_p, mora_patch_branch(c, &branch, 0); },
      [&](mora_context* c) { return mora_patch_b(c, &branch); },
      [&](mora_context* c) { return mora_patch_bl(c, &branch); },
      [&](mora_context* c) { return mora_patch_cbz(c, &branch, 0); },
      [&](mora_context* c) { return mora_patch_cbnz(c, &branch, 0); },
      [](mora_context* c) { return mora_emit_call(c, 8); },
      [](mora_context* c) { return mora_emit_guarded_call(c, some_function, 0); },
      [](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 1, 1); },
      [](mora_context* c) { return mora_emit_indirect_branch(c, 9); },
      [](mora_context* c) { return mora_emit_counter_add(c, 8, 1); },
      [&](mora_context* c) { return mora_count_runs(c, &counter); }};
  for (std::size_t index = 0; index < std::size(services); ++index) {
    ctx = scan_context(MORA_POST_BB);
    ctx.code_allowed = false;
    std::uint32_t* place = ctx.write_p;
    const words before(place, place + 64);
    EXPECT_EQ(services[index](&ctx), -1) << "service " << index;
    EXPECT_EQ(ctx.write_p, place) << "service " << index;
    EXPECT_EQ(words(place, place + 64), before) << "service " << index;
  }
}

TEST_F(plugin_emission_test, code_that_outgrows_a_block_goes_on_in_the_next) {
  ctx = scan_context();
  const std::uint32_t* first = ctx.write_p;
  for (int count = 0; count < 200; ++count) ASSERT_EQ(mora_emit_mov(&ctx, 3, 4), 0);
  EXPECT_EQ(ctx.write_p - first, 200);  // Adjacent blocks: no branch between.
  for (int count = 0; count < 200; ++count) ASSERT_EQ(first[count], expected("mov_x3_x4")[0]) << count;
  EXPECT_GT(ctx.write_limit, ctx.write_p);
}

TEST_F(plugin_emission_test, code_that_meets_a_flush_goes_on_behind_a_branch) {
  thread->next_block = 100;  // Not in the block that is the first one after the flush as well.
  ctx = scan_context();
  thread->next_block = BB_FLUSH_THRESHOLD + 1;
  std::uint32_t* last = nullptr;
  std::uint32_t* block_end = ctx.write_limit;
  while (ctx.write_limit == block_end) {
    last = ctx.write_p;
    ASSERT_EQ(mora_emit_mov(&ctx, 3, 4), 0);
  }
  // The branch stands in the place of the word that did not fit.
  ASSERT_EQ(a64_decode(last), A64_B);
  std::uint32_t link = 0, imm26 = 0;
  a64_b_decode(last, &link, &imm26);
  EXPECT_EQ(last + a64_sign_extend(imm26, 26), ctx.write_p - 1);
  EXPECT_EQ(ctx.write_p - 1, block(stub_block_count()));
}

}  // namespace
}  // namespace ceilmeter
