// Fragments that begin between a load-exclusive and its store-exclusive. What the engine and plug-ins insert at the
// start of such a fragment must stand behind the store.
#include <algorithm>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/scanner.h"
#include "bi/code/source_map.h"
#include "common/log.h"
#include "plugin_fixture.h"

#define SOURCE(name) extern "C" const std::uint32_t name[]
SOURCE(source_plain);
SOURCE(source_direct);
SOURCE(source_between);
SOURCE(source_between_far);
SOURCE(source_between_further);
SOURCE(source_no_pair);
SOURCE(source_no_pair_end);
SOURCE(source_before_store);
SOURCE(source_before_store_end);
SOURCE(source_stores);
SOURCE(source_stores_end);

namespace ceilmeter {
namespace {

using test::plugin_test;
using test::words;

constexpr std::uint32_t MOV_X3_X4 = 0xaa0403e3;    // mov x3, x4
constexpr std::uint32_t POP_X0_X1 = 0xa8c107e0;    // ldp x0, x1, [sp], #16
constexpr std::uint32_t PUSH_X1_X30 = 0xa9bf7be1;  // stp x1, x30, [sp, #-16]!

int write_mov(mora_context* ctx) { return mora_emit_mov(ctx, 3, 4); }

std::vector<std::pair<std::uint32_t, std::ptrdiff_t>> seen;

int note(mora_context* ctx) {
  const bool is_end = ctx->event == MORA_POST_BB;
  seen.emplace_back(ctx->event, (is_end ? ctx->end_address : ctx->read_address) - source_between);
  return 0;
}

bool begins_between(const std::uint32_t* read) {
  source_window window{read};
  return begins_between_exclusives(window, read);
}

class exclusives_test : public plugin_test {
 protected:
  exclusives_test() {
    seen.clear();
    log_state::engine_log_level = LEVEL_WARN;
  }

  // The fragment's code, which fits into one block of the cache.
  words scanned(const std::uint32_t* from) {
    bb_id = allocate_bb(thread);
    thread->metas[bb_id].source_addr = address_of(from);
    thread->metas[bb_id].cache_entry = address_of(block(bb_id));
    const std::uint32_t length = scan_fragment(thread, from, bb_id, FRAGMENT_BLOCK, nullptr);
    return {block(bb_id), block(bb_id) + length / 4};
  }

  std::int32_t bb_id = 0;
};

TEST_F(exclusives_test, code_for_the_start_of_a_block_between_the_two_stands_behind_the_store) {
  mora_on_pre_bb(mora_add_plugin(), write_mov);
  const words code = scanned(source_between);
  EXPECT_EQ(words(code.begin(), code.begin() + 4), (words{POP_X0_X1, source_between[0], source_between[1], MOV_X3_X4}));
  EXPECT_EQ(thread->metas[bb_id].exit_code_addr, block(bb_id) + 4);
}

TEST_F(exclusives_test, the_same_holds_for_a_fragment_of_a_trace) {
  mora_on_pre_bb(mora_add_plugin(), write_mov);
  auto* place = reinterpret_cast<std::uint32_t*>(thread->trace_write_cursor);
  scan_fragment(thread, source_between, BB_COUNT, FRAGMENT_TRACE, place);
  EXPECT_EQ(words(place, place + 3), (words{source_between[0], source_between[1], MOV_X3_X4}));
}

TEST_F(exclusives_test, a_block_between_the_two_has_no_hot_counter_also_without_plugins) {
  EXPECT_EQ(scanned(source_direct)[1], PUSH_X1_X30);
  const words code = scanned(source_between);
  EXPECT_EQ(words(code.begin(), code.begin() + 3), (words{POP_X0_X1, source_between[0], source_between[1]}));
  EXPECT_EQ(std::count(code.begin(), code.end(), PUSH_X1_X30), 0);
}

TEST_F(exclusives_test, the_events_of_the_start_come_behind_the_store_and_tell_the_blocks_own_start) {
  mora_context* plugin = mora_add_plugin();
  for (std::uint32_t event = MORA_PRE_INST; event <= MORA_POST_FRAGMENT; ++event) mora_bind_event(plugin, event, note);
  scanned(source_between);
  const decltype(seen) expected = {
      {MORA_PRE_INST, 0}, {MORA_POST_INST, 0}, {MORA_PRE_INST, 1},  {MORA_POST_INST, 1}, {MORA_PRE_FRAGMENT, 0},
      {MORA_PRE_BB, 0},   {MORA_PRE_INST, 2},  {MORA_POST_INST, 2}, {MORA_POST_BB, 3},   {MORA_POST_FRAGMENT, 3}};
  EXPECT_EQ(seen, expected);
}

TEST_F(exclusives_test, a_plugin_that_ends_the_fragment_before_the_store_is_told_of_its_start) {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_inst(plugin, [](mora_context* ctx) {
    mora_replace_inst(ctx);
    return mora_stop_scan(ctx);
  });
  mora_on_pre_bb(plugin, [](mora_context* ctx) {
    note(ctx);
    EXPECT_LT(mora_emit_mov(ctx, 3, 4), 0);
    return 0;
  });
  mora_on_post_bb(plugin, note);
  scanned(source_between);
  EXPECT_EQ(seen, (decltype(seen){{MORA_PRE_BB, 0}, {MORA_POST_BB, 1}}));
}

TEST_F(exclusives_test, a_fault_in_code_behind_the_store_stands_for_the_word_behind_the_store) {
  mora_on_pre_bb(mora_add_plugin(), write_mov);
  scanned(source_between);
  const std::uint32_t* code = block(bb_id);
  EXPECT_EQ(source_of_cache_address(thread, address_of(code + 1)), address_of(source_between));
  EXPECT_EQ(source_of_cache_address(thread, address_of(code + 2)), address_of(source_between + 1));
  EXPECT_EQ(source_of_cache_address(thread, address_of(code + 3)), address_of(source_between + 2));
  EXPECT_EQ(source_of_cache_address(thread, address_of(code + 4)), address_of(source_between + 2));
}

TEST_F(exclusives_test, the_entry_code_of_a_watched_function_stays_at_its_start) {
  mora_on_pre_function(mora_add_plugin(), write_mov);
  function_watch_add(address_of(source_between));
  const words code = scanned(source_between);
  EXPECT_EQ(std::count(code.begin(), code.end(), PUSH_X1_X30), 1);
  const auto mov = std::find(code.begin(), code.end(), MOV_X3_X4);
  const auto store = std::find(code.begin(), code.end(), source_between[1]);
  EXPECT_LT(mov - code.begin(), store - code.begin());
}

TEST_F(exclusives_test, a_store_is_looked_for_over_32_words) {
  EXPECT_TRUE(begins_between(source_between_far));
  EXPECT_FALSE(begins_between(source_between_further));
}

TEST_F(exclusives_test, stores_of_every_width_are_known) {
  for (const std::uint32_t* word = source_stores; word != source_stores_end; ++word) {
    EXPECT_TRUE(is_store_exclusive(*word)) << word - source_stores;
    EXPECT_FALSE(is_load_exclusive(*word)) << word - source_stores;
    EXPECT_TRUE(begins_between(word)) << word - source_stores;
  }
}

TEST_F(exclusives_test, what_begins_a_pair_gives_one_up_or_may_lead_elsewhere_ends_the_look) {
  for (const std::uint32_t* word = source_no_pair; word != source_no_pair_end; word += 2) {
    EXPECT_FALSE(begins_between(word)) << std::hex << *word;
    EXPECT_FALSE(is_store_exclusive(*word)) << std::hex << *word;
  }
}

TEST_F(exclusives_test, other_accesses_that_order_memory_do_not_end_the_look) {
  for (const std::uint32_t* word = source_before_store; word != source_before_store_end; word += 2) {
    EXPECT_TRUE(begins_between(word)) << std::hex << *word;
    EXPECT_FALSE(is_store_exclusive(*word) || is_load_exclusive(*word)) << std::hex << *word;
  }
}

}  // namespace
}  // namespace ceilmeter
