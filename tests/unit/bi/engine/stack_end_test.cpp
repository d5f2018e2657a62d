// Threads at the very end of their stack: which faults are those of the engine's own pushes, how the thread goes on,
// and what the blocks look like by which it does.
#include "bi/signals/stack_end.h"

#include <csignal>
#include <iterator>

#include "bi/code/code_cache.h"
#include "bi/code/scan_rules.h"
#include "bi/code/source_map.h"
#include "bi/code/spare_stack.h"
#include "signals_fixture.h"

namespace ceilmeter::test {

namespace {

constexpr std::uint32_t RAISE = 0xd4001302;  // hvc #152
constexpr std::uint32_t LOWER = 0xd40012e2;  // hvc #151
constexpr std::uint32_t PUSH_X0_X1_WORD = 0xa9bf07e0;
constexpr std::uint32_t STR_X1_SP = 0xf90003e1;       // str x1, [sp]
constexpr std::uint32_t ADD_X0_X1_X2 = 0x8b020020;    // add x0, x1, x2
constexpr std::uint32_t STP_X29_X30 = 0xa9bf7bfd;     // stp x29, x30, [sp, #-16]!
constexpr std::uint32_t B_EQ_TO_NEXT = 0x54000020;    // b.eq .+4
constexpr std::uint32_t STLXR_W2_W3_X1 = 0x8802fc23;  // stlxr w2, w3, [x1]
constexpr std::uint32_t RET = 0xd65f03c0;

alignas(16) const std::uint32_t uses_sp[] = {ADD_X0_X1_X2, STR_X1_SP, STR_X1_SP, ADD_X0_X1_X2, RET};
alignas(16) const std::uint32_t ends_in_branch[] = {ADD_X0_X1_X2, B_EQ_TO_NEXT, RET};
alignas(16) const std::uint32_t pushes[] = {STP_X29_X30, RET};
alignas(16) const std::uint32_t behind_load[] = {STLXR_W2_W3_X1, ADD_X0_X1_X2, RET};

class stack_ends : public signals_fixture {
 protected:
  const std::uint32_t* find_word(std::int32_t id, std::uint32_t word) const {
    const std::uint32_t* place = block(id);
    while (place < block(id) + BB_SIZE / 4 && *place != word) ++place;
    return place;
  }
  // The thread goes on at `source` with the spare stack, and no handler hears of the fault.
  void expect_to_go_on(const std::uint32_t* source, std::uint64_t sp) {
    EXPECT_EQ(context().pc, address_of(stub(redirect_stub)));
    EXPECT_EQ(thread->redirect_target, address_of(source));
    EXPECT_EQ(thread->spare_for_sp, sp);
    EXPECT_EQ(context().sp, spare_stack_end(thread));
  }
};

TEST_F(stack_ends, the_push_of_an_exit_goes_on_at_the_branch_in_a_block_that_is_not_counted_again) {
  engine.signal_handlers[SIGSEGV] = address_of(pushes);
  const std::int32_t id = scan_block(ends_in_branch);
  const std::uint64_t sp = context().sp;
  ASSERT_EQ(meta(id).exit_code_addr[2], PUSH_X0_X1_WORD);
  EXPECT_EQ(arrive(SIGSEGV, meta(id).exit_code_addr + 2), 0u);
  expect_to_go_on(ends_in_branch + 1, sp);
  EXPECT_EQ(thread->resumed.source, address_of(ends_in_branch + 1));
  EXPECT_EQ(thread->resumed.counts, 0u);
  EXPECT_EQ(block_key(thread, address_of(ends_in_branch + 1)), address_of(ends_in_branch + 1) | RESUMED_KEY);
}

TEST_F(stack_ends, the_push_of_a_counter_begins_the_block_anew) {
  const std::int32_t id = scan_block(ends_in_branch);
  const std::uint64_t sp = context().sp;
  EXPECT_EQ(arrive(SIGSEGV, block(id) + 1), 0u);  // The hot counter's.
  expect_to_go_on(ends_in_branch, sp);
  EXPECT_EQ(thread->resumed.source, 0u);
}

TEST_F(stack_ends, what_was_pushed_before_is_taken_back) {
  const std::int32_t id = scan_block(ends_in_branch);
  const std::uint64_t sp = context().sp;
  const std::uint64_t x1 = context().regs[1];
  // In the counter's stub: x1 and x30 are on the stack, and hold the block's number and where it goes on.
  auto* pushed = reinterpret_cast<std::uint64_t*>(sp) - 2;
  pushed[0] = x1;
  pushed[1] = 0x1e1e;
  context().sp = address_of(pushed);
  context().regs[1] = static_cast<std::uint64_t>(id);
  context().regs[30] = address_of(block(id) + 4);
  EXPECT_EQ(arrive(SIGSEGV, stub(hot_counter_stub)), 0u);
  expect_to_go_on(ends_in_branch, sp);
  EXPECT_EQ(context().regs[1], x1);
  EXPECT_EQ(context().regs[30], 0x1e1eu);
}

TEST_F(stack_ends, a_push_of_the_applications_is_its_own_fault) {
  engine.signal_handlers[SIGSEGV] = address_of(ends_in_branch);
  const std::int32_t id = scan_block(pushes);
  EXPECT_EQ(arrive(SIGSEGV, find_word(id, STP_X29_X30)), address_of(ends_in_branch));
  EXPECT_EQ(context().pc, address_of(pushes));
  EXPECT_FALSE(uses_spare_stack(thread));
}

TEST_F(stack_ends, blocks_have_traps_around_words_that_may_use_sp_and_nowhere_else) {
  begin_spare_stack(thread, address_of(stack));
  const std::int32_t id = scan_block(uses_sp);
  EXPECT_THAT(words(block(id) + 1, 6),
              testing::ElementsAre(ADD_X0_X1_X2, RAISE, STR_X1_SP, STR_X1_SP, ADD_X0_X1_X2, LOWER));
  EXPECT_EQ(hash_lookup_entry(thread, address_of(uses_sp)), HASH_MISS);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(uses_sp) | SPARE_STACK_KEY), address_of(block(id)));
}

TEST_F(stack_ends, the_traps_exchange_the_stack_pointers) {
  begin_spare_stack(thread, address_of(stack));
  const std::int32_t id = scan_block(uses_sp);
  context().sp = spare_stack_end(thread);
  const std::uint32_t* raise = find_word(id, RAISE);
  arrive(SIGILL, raise);
  EXPECT_EQ(context().sp, address_of(stack));
  EXPECT_EQ(context().pc, address_of(raise + 1));
  context().sp += 32;  // The application's word.
  arrive(SIGILL, find_word(id, LOWER));
  EXPECT_EQ(context().sp, spare_stack_end(thread));
  EXPECT_EQ(thread->spare_for_sp, address_of(stack) + 32);
}

TEST_F(stack_ends, a_fault_of_the_applications_finds_its_stack_pointer) {
  engine.signal_handlers[SIGSEGV] = address_of(ends_in_branch);
  begin_spare_stack(thread, address_of(stack));
  const std::int32_t id = scan_block(behind_load);
  context().sp = spare_stack_end(thread);
  EXPECT_EQ(arrive(SIGSEGV, find_word(id, STLXR_W2_W3_X1)), address_of(ends_in_branch));
  EXPECT_EQ(context().sp, address_of(stack));
  EXPECT_FALSE(uses_spare_stack(thread)) << "the handler's blocks are everybody's";
}

TEST(words_that_may_use_sp, are_told_from_those_with_the_zero_register) {
  const std::uint32_t with[] = {
      0xf90003e1,  // str x1, [sp]
      0xa9bf7bfd,  // stp x29, x30, [sp, #-16]!
      0x910003e0,  // mov x0, sp
      0x9100401f,  // add sp, x0, #16
      0xcb2063ff,  // sub sp, sp, x0
      0xf10003ff,  // cmp sp, #0
      0xeb2063ff,  // cmp sp, x0
      0x927cec1f,  // and sp, x0, #0xfffffffffffffff0
      0xd503233f,  // paciasp
      0x4c407be0,  // ld1 {v0.4s}, [sp]
      0x885f7fe0,  // ldxr w0, [sp]
      0xdac103e0,  // pacia x0, sp
      0x04bf503f,  // addvl sp, sp, #1
  };
  for (const std::uint32_t word : with) EXPECT_TRUE(may_use_sp(word)) << std::hex << word;
  const std::uint32_t without[] = {
      0xf9000021,  // str x1, [x1]
      0xf900003f,  // str xzr, [x1]
      0x885ffc20,  // ldaxr w0, [x1]
      0x8802fc23,  // stlxr w2, w3, [x1]
      0xaa0103e0,  // mov x0, x1
      0xeb01001f,  // cmp x0, x1
      0x7100001f,  // cmp w0, #0
      0x9a9f17e0,  // cset x0, eq
      0x9a8103e0,  // csel x0, xzr, x1, eq
      0xf2400c1f,  // tst x0, #0xf
      0xea01001f,  // tst x0, x1
      0x54000020,  // b.eq .+4
      0x35000062,  // cbnz w2, .+12
      0xd5033bbf,  // dmb ish
      0x1e222820,  // fadd s0, s1, s2
  };
  for (const std::uint32_t word : without) EXPECT_FALSE(may_use_sp(word)) << std::hex << word;
}

}  // namespace

}  // namespace ceilmeter::test
