// The emission services for branches and calls; emission_test.cpp has the other services.
#include <functional>
#include <utility>

#include "bi/a64/a64.h"
#include "bi/code/stubs.h"
#include "emission_fixture.h"

namespace ceilmeter {
namespace {

using test::address_behind;
using test::expected;
using test::plugin_emission_test;
using test::some_function;
using test::words;

TEST_F(plugin_emission_test, branches_lead_to_their_targets) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_tbz(c, 3, 5, -0x8000); }), expected("tbz_back"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_tbz(c, 3, 63, 0x7ffc); }), expected("tbz_ahead"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_branch(c, address_behind(c, 16)); }), expected("b_ahead"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_branch_cond(c, address_behind(c, 16), 13); }),
            expected("b_le_ahead"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_cbz(c, address_behind(c, 16), 3); }), expected("cbz_ahead"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_cbnz(c, address_behind(c, 16), 3); }),
            expected("cbnz_ahead"));
}

TEST_F(plugin_emission_test, a_tbz_can_be_written_at_a_given_place) {
  ctx = scan_context();
  std::uint32_t* place = ctx.write_p;
  ctx.write_p += 3;
  EXPECT_EQ(mora_emit_tbz_at(&ctx, place, 3, 63, 0x7ffc), 0);
  EXPECT_EQ(*place, expected("tbz_ahead")[0]);
  EXPECT_EQ(ctx.write_p, place + 3);
}

TEST_F(plugin_emission_test, branches_out_of_reach_are_refused) {
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_tbz(c, 3, 5, -0x8004); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_tbz(c, 3, 5, 0x8000); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_tbz(c, 3, 5, 2); }));
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_tbz(c, 3, 64, 4); }));
  for (const std::int64_t beyond : {0x8000000LL, -0x8000004LL}) {
    EXPECT_TRUE(refuses([beyond](mora_context* c) { return mora_emit_branch(c, address_behind(c, beyond)); }))
        << beyond;
  }
  for (const std::int64_t beyond : {0x100000LL, -0x100004LL, 2LL}) {
    EXPECT_TRUE(refuses([beyond](mora_context* c) { return mora_emit_branch_cond(c, address_behind(c, beyond), 0); }))
        << beyond;
    EXPECT_TRUE(refuses([beyond](mora_context* c) { return mora_emit_cbz(c, address_behind(c, beyond), 3); }))
        << beyond;
    EXPECT_TRUE(refuses([beyond](mora_context* c) { return mora_emit_cbnz(c, address_behind(c, beyond), 3); }))
        << beyond;
  }
}

TEST_F(plugin_emission_test, the_furthest_targets_are_in_reach) {
  for (const std::int64_t furthest : {0x7fffffcLL, -0x8000000LL}) {
    EXPECT_FALSE(refuses([furthest](mora_context* c) { return mora_emit_branch(c, address_behind(c, furthest)); }))
        << furthest;
  }
  for (const std::int64_t furthest : {0xffffcLL, -0x100000LL}) {
    EXPECT_FALSE(
        refuses([furthest](mora_context* c) { return mora_emit_branch_cond(c, address_behind(c, furthest), 0); }));
    EXPECT_FALSE(refuses([furthest](mora_context* c) { return mora_emit_cbz(c, address_behind(c, furthest), 3); }));
  }
}

TEST_F(plugin_emission_test, a_reserved_word_does_nothing_until_it_is_patched) {
  mora_branch branch{};
  EXPECT_EQ(written([&](mora_context* c) { return mora_reserve_branch(c, &branch); }), expected("nop"));
  EXPECT_EQ(branch.place, start);
}

TEST_F(plugin_emission_test, a_reserved_word_becomes_each_kind_of_branch_to_the_place_reached) {
  using patch = std::function<int(mora_context*, const mora_branch*)>;
  const std::pair<const char*, patch> kinds[] = {
      {"reserved_b_eq", [](mora_context* c, const mora_branch* b) { return mora_patch_branch(c, b, 0); }},
      {"reserved_b", [](mora_context* c, const mora_branch* b) { return mora_patch_b(c, b); }},
      {"reserved_bl", [](mora_context* c, const mora_branch* b) { return mora_patch_bl(c, b); }},
      {"reserved_cbz", [](mora_context* c, const mora_branch* b) { return mora_patch_cbz(c, b, 9); }},
      {"reserved_cbnz", [](mora_context* c, const mora_branch* b) { return mora_patch_cbnz(c, b, 9); }}};
  for (const auto& [name, make] : kinds) {
    EXPECT_EQ(written([&make = make](mora_context* c) {
                mora_branch branch{};
                mora_reserve_branch(c, &branch);
                mora_emit_mov(c, 3, 4);
                mora_emit_mov(c, 3, 4);
                return make(c, &branch);
              }),
              expected(name))
        << name;
  }
}

TEST_F(plugin_emission_test, a_reserved_word_too_far_away_stays_as_it_is) {
  ctx = scan_context();
  mora_branch branch{};
  mora_reserve_branch(&ctx, &branch);
  ctx.write_p = branch.place + 0xffffc / 4;
  EXPECT_EQ(mora_patch_branch(&ctx, &branch, 0), 0) << "the last place in reach";
  ctx.write_p += 1;
  *branch.place = expected("nop")[0];
  EXPECT_EQ(mora_patch_branch(&ctx, &branch, 0), -1);
  EXPECT_EQ(mora_patch_cbz(&ctx, &branch, 3), -1);
  EXPECT_EQ(mora_patch_cbnz(&ctx, &branch, 3), -1);
  EXPECT_EQ(*branch.place, expected("nop")[0]);
}

TEST_F(plugin_emission_test, calls_are_direct_in_reach_and_through_x30_beyond) {
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_call(c, address_behind(c, 16)); }), expected("bl_ahead"));
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_call(c, 0x0000567800001230); }), expected("far_call"));
}

// The value that MOVZ and the MOVKs behind it give, and the words that are left.
std::uint64_t take_constant(words& code, std::uint32_t reg) {
  std::uint64_t value = 0;
  for (std::size_t index = 0; index < code.size();) {
    std::uint32_t sf = 0, opc = 0, hw = 0, imm16 = 0, rd = 0;
    a64_mov_wide_decode(&code[0], &sf, &opc, &hw, &imm16, &rd);
    if (a64_decode(&code[0]) != A64_MOV_WIDE || rd != reg || (opc == 2) != (value == 0)) break;
    value |= std::uint64_t{imm16} << (16 * hw);
    code.erase(code.begin());
  }
  return value;
}

bool take(words& code, const words& prefix) {
  if (code.size() < prefix.size() || !std::equal(prefix.begin(), prefix.end(), code.begin())) return false;
  code.erase(code.begin(), code.begin() + static_cast<std::ptrdiff_t>(prefix.size()));
  return true;
}

bool is_guarded_stub(std::uint64_t address) {
  return address == reinterpret_cast<std::uint64_t>(&guarded_call_stub) ||
         address == reinterpret_cast<std::uint64_t>(&guarded_call_stub_sve);
}

constexpr std::uint32_t BLR_X30 = 0xd63f03c0;  // blr x30

// The stub itself saves x1 to x7. The code here pushes at most 32 bytes onto the application's stack, and the stub 16
// more.
constexpr std::uint32_t PUSH_X8_X30 = 0xa9bf7be8;  // stp x8, x30, [sp, #-16]!
constexpr std::uint32_t POP_X8_X30 = 0xa8c17be8;   // ldp x8, x30, [sp], #16

TEST_F(plugin_emission_test, a_guarded_call_with_arguments_pushes_what_it_takes_for_itself_and_calls_through_the_stub) {
  words code = written([](mora_context* c) { return mora_emit_guarded_call(c, some_function, 2); });
  EXPECT_TRUE(take(code, {PUSH_X8_X30}));
  EXPECT_EQ(take_constant(code, 8), reinterpret_cast<std::uint64_t>(&some_function));
  EXPECT_TRUE(is_guarded_stub(take_constant(code, 30)));
  EXPECT_TRUE(take(code, {BLR_X30}));
  EXPECT_EQ(code, words{POP_X8_X30});
  EXPECT_EQ(ctx.plugin_stack_offset, 0u);
}

TEST_F(plugin_emission_test, a_guarded_call_without_arguments_keeps_x0_too) {
  words code = written([](mora_context* c) { return mora_emit_guarded_call(c, some_function, 0); });
  EXPECT_TRUE(take(code, {0xf81f0ffe, 0xa9bf23e0}));  // str x30, [sp, #-16]!; stp x0, x8, [sp, #-16]!
  EXPECT_EQ(take_constant(code, 8), reinterpret_cast<std::uint64_t>(&some_function));
  EXPECT_TRUE(is_guarded_stub(take_constant(code, 30)));
  EXPECT_TRUE(take(code, {BLR_X30}));
  EXPECT_EQ(code, (words{0xa8c123e0, 0xf84107fe}));  // ldp x0, x8, [sp], #16; ldr x30, [sp], #16
}

TEST_F(plugin_emission_test, constant_arguments_are_loaded_once_their_registers_are_in_the_threads_record) {
  words code = written([this](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 2, -1, this); });
  EXPECT_TRUE(take(code, {PUSH_X8_X30}));
  EXPECT_EQ(take_constant(code, 8), address_of(thread->guarded_arguments));
  EXPECT_TRUE(take(code, {0xa9000500}));  // stp x0, x1, [x8]
  EXPECT_EQ(take_constant(code, 0), ~std::uint64_t{0});
  EXPECT_EQ(take_constant(code, 1), reinterpret_cast<std::uint64_t>(this));
  EXPECT_EQ(take_constant(code, 8), reinterpret_cast<std::uint64_t>(&some_function));
  EXPECT_TRUE(is_guarded_stub(take_constant(code, 30)));
  EXPECT_TRUE(take(code, {BLR_X30}));
  EXPECT_EQ(take_constant(code, 8), address_of(thread->guarded_arguments));
  EXPECT_TRUE(take(code, {0xa9400500}));  // ldp x0, x1, [x8]
  EXPECT_EQ(code, words{POP_X8_X30});
}

TEST_F(plugin_emission_test, constant_arguments_of_no_number_are_a_plain_guarded_call) {
  const words plain = written([](mora_context* c) { return mora_emit_guarded_call(c, some_function, 0); });
  EXPECT_EQ(written([](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 0); }), plain);
}

TEST_F(plugin_emission_test, an_odd_number_of_constant_arguments_is_kept_to_the_last) {
  words code = written([](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 3, 1, 2, 3); });
  EXPECT_TRUE(take(code, {PUSH_X8_X30}));
  take_constant(code, 8);
  EXPECT_TRUE(take(code, {0xa9000500, 0xa9017d02}));  // stp x0, x1, [x8]; stp x2, xzr, [x8, #16]
}

TEST_F(plugin_emission_test, more_than_eight_arguments_are_refused) {
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_guarded_call(c, some_function, 9); }));
  EXPECT_TRUE(refuses(
      [](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 9, 1, 2, 3, 4, 5, 6, 7, 8, 9); }));
  EXPECT_FALSE(refuses(
      [](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 8, 1, 2, 3, 4, 5, 6, 7, 8); }));
}

TEST_F(plugin_emission_test, fewer_values_than_arguments_are_refused) {
  EXPECT_TRUE(refuses([](mora_context* c) { return mora_emit_guarded_call_args(c, some_function, 2, 1); }));
}

TEST_F(plugin_emission_test, an_indirect_branch_looks_its_target_up_and_leaves_to_the_dispatcher_without_a_source) {
  const words code = written([](mora_context* c) { return mora_emit_indirect_branch(c, 9); });
  ASSERT_GE(code.size(), 10u);
  EXPECT_EQ(code.front(), 0xa9bf07e0u);           // stp x0, x1, [sp, #-16]!
  EXPECT_EQ(code[code.size() - 2], 0xd2800001u);  // mov x1, #0
  EXPECT_EQ(a64_decode(&code.back()), A64_B);
}

}  // namespace
}  // namespace ceilmeter
