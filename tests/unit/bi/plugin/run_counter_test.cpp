// The words that count a block's runs for a plug-in, and how they take the place of the engine's own counter.
#include "bi/code/run_counter.h"

#include <algorithm>

#include "bi/a64/a64.h"
#include "bi/code/exit_branch.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"
#include "bi/code/traces.h"
#include "common/log.h"
#include "plugin_fixture.h"

#define SOURCE(name) extern "C" const std::uint32_t name[]
SOURCE(source_plain);
SOURCE(source_direct);
SOURCE(source_between);
SOURCE(source_syscall);

namespace ceilmeter {
namespace {

using test::plugin_test;
using test::words;

constexpr std::uint32_t PUSH_X1_X30 = 0xa9bf7be1;   // stp x1, x30, [sp, #-16]!
constexpr std::uint32_t POP_X1_X30 = 0xa8c17be1;    // ldp x1, x30, [sp], #16
constexpr std::uint32_t ADD_1_TO_X30 = 0x910007de;  // add x30, x30, #1
constexpr std::uint32_t MOV_X3_X4 = 0xaa0403e3;     // mov x3, x4
constexpr std::uint32_t NOP = 0xd503201f;

std::uint64_t first_counter;
std::uint64_t second_counter;

int count_first(mora_context* ctx) { return mora_count_runs(ctx, &first_counter); }
int count_second(mora_context* ctx) { return mora_count_runs(ctx, &second_counter); }

class run_counter : public plugin_test {
 protected:
  run_counter() {
    first_counter = 0;
    second_counter = 0;
    trace_options = {};
    log_state::engine_log_level = LEVEL_WARN;
  }
  ~run_counter() override { trace_options = {}; }

  words scanned(const std::uint32_t* from) {
    bb_id = allocate_bb(thread);
    thread->metas[bb_id].source_addr = address_of(from);
    thread->metas[bb_id].cache_entry = address_of(block(bb_id));
    const std::uint32_t length = scan_fragment(thread, from, bb_id, FRAGMENT_BLOCK, nullptr);
    return {block(bb_id), block(bb_id) + length / 4};
  }

  // The words of the block that test the count's bit.
  std::vector<std::uint32_t*> tests() {
    std::vector<std::uint32_t*> places;
    for (std::uint32_t* word = block(bb_id); word != block(bb_id) + BB_SIZE / 4; ++word) {
      if (a64_decode(word) == A64_TBZ) places.push_back(word);
    }
    return places;
  }
  static std::ptrdiff_t pushes(const words& code) { return std::count(code.begin(), code.end(), PUSH_X1_X30); }
  bool calls_stub(const std::uint32_t* word) {
    return branch_destination(*word, word) == thread->hot_counter_stub_addr && (*word & 0xfc000000) == 0x94000000;
  }

  std::int32_t bb_id = 0;
};

TEST_F(run_counter, in_a_block_that_may_become_a_head_there_is_one_counter_and_it_asks_before_it_stores) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  const words code = scanned(source_direct);
  EXPECT_EQ(pushes(code), 1);
  ASSERT_EQ(tests().size(), 1u);
  const std::uint32_t* test = tests()[0];
  EXPECT_EQ(test[-1], ADD_1_TO_X30);
  EXPECT_EQ(*test & 0xfff8001f, 0x3640001eu);  // tbz x30, #8, ...
  EXPECT_EQ(branch_destination(*test, test), address_of(test + 2));
  EXPECT_TRUE(calls_stub(test + 1));
  EXPECT_EQ(a64_decode(test + 2), A64_LDR_STR_UNSIGNED);
  EXPECT_EQ(test[3], POP_X1_X30);
  EXPECT_EQ(test[4], source_direct[0]);
}

TEST_F(run_counter, what_is_waited_for_is_a_change_of_the_bit) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  for (const std::uint64_t count : {std::uint64_t{0}, std::uint64_t{255}, std::uint64_t{256}, std::uint64_t{511},
                                    std::uint64_t{512}, ~std::uint64_t{0}}) {
    first_counter = count;
    scanned(source_direct);
    ASSERT_EQ(tests().size(), 1u) << count;
    const bool skips_if_set = (*tests()[0] & 0x01000000) != 0;
    EXPECT_EQ(skips_if_set, (count >> 8 & 1) != 0) << count;
  }
}

TEST_F(run_counter, another_number_of_runs_chooses_the_bit_that_it_does_not_exceed) {
  const std::pair<int, std::uint32_t> expected[] = {{0, 8}, {1, 0}, {2, 1}, {3, 2}, {4, 2}, {5, 3}, {128, 7}, {255, 8}};
  for (const auto& [runs, bit] : expected) {
    trace_options.hot_mark = static_cast<std::uint8_t>(runs);
    EXPECT_EQ(hot_bit(), bit) << runs;
  }
}

TEST_F(run_counter, a_block_that_ends_in_a_return_counts_and_does_not_ask) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  const words code = scanned(source_plain);
  EXPECT_EQ(pushes(code), 1);
  EXPECT_TRUE(tests().empty());
}

TEST_F(run_counter, without_traces_nobody_is_asked) {
  trace_options.off = true;
  mora_on_pre_bb(mora_add_plugin(), count_first);
  EXPECT_EQ(pushes(scanned(source_direct)), 1);
  EXPECT_TRUE(tests().empty());
}

TEST_F(run_counter, behind_other_code_of_plugins_it_stands_beside_the_engines_own) {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_fragment(plugin, [](mora_context* ctx) { return mora_emit_mov(ctx, 3, 4); });
  mora_on_pre_bb(plugin, count_first);
  const words code = scanned(source_direct);
  EXPECT_EQ(pushes(code), 2);
  EXPECT_TRUE(tests().empty());
  EXPECT_EQ(std::count(code.begin(), code.end(), MOV_X3_X4), 1);
}

TEST_F(run_counter, of_two_plugins_one_asks) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  mora_on_pre_bb(mora_add_plugin(), count_second);
  EXPECT_EQ(pushes(scanned(source_direct)), 2);
  EXPECT_EQ(tests().size(), 1u);
}

TEST_F(run_counter, behind_a_system_call_and_behind_a_store_exclusive_it_does_not_ask) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  EXPECT_EQ(pushes(scanned(source_syscall)), 2);
  EXPECT_TRUE(tests().empty());
  EXPECT_EQ(pushes(scanned(source_between)), 1);
  EXPECT_TRUE(tests().empty());
}

TEST_F(run_counter, in_a_trace_it_does_not_ask) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  auto* place = reinterpret_cast<std::uint32_t*>(thread->trace_write_cursor);
  const std::uint32_t length = scan_fragment(thread, source_direct, BB_COUNT, FRAGMENT_TRACE_HEAD, place);
  const words code(place, place + length / 4);
  EXPECT_EQ(pushes(code), 1);
  EXPECT_EQ(std::count_if(code.begin(), code.end(), [](std::uint32_t word) { return a64_decode(&word) == A64_TBZ; }),
            0);
}

TEST_F(run_counter, a_block_that_begins_no_trace_asks_no_more_and_one_that_does_stays_as_it_is) {
  mora_on_pre_bb(mora_add_plugin(), count_first);
  const std::uint64_t entry = scan(thread, address_of(source_direct), 0);
  bb_id = cc_addr_to_bb_id(thread, entry);
  std::uint32_t* const call = tests().at(0) + 1;
  const std::uint32_t before = *call;
  std::uint64_t next[2] = {};
  create_trace(thread, bb_id, next);
  EXPECT_TRUE(is_in_traces(thread, next[0]));
  EXPECT_EQ(*call, before);
  thread->active_trace.active = 0;
  trace_options.off = true;
  create_trace(thread, bb_id, next);
  EXPECT_EQ(next[0], entry);
  EXPECT_EQ(*call, NOP);
}

TEST_F(run_counter, the_engines_own_counter_goes_on_asking) {
  trace_options.off = true;
  const std::uint64_t entry = scan(thread, address_of(source_direct), 0);
  bb_id = cc_addr_to_bb_id(thread, entry);
  const words before(block(bb_id), block(bb_id) + 16);
  std::uint64_t next[2] = {};
  create_trace(thread, bb_id, next);
  EXPECT_EQ(words(block(bb_id), block(bb_id) + 16), before);
}

}  // namespace
}  // namespace ceilmeter
