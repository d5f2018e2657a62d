// Groups of fragments whose runs are counted together: who belongs to one, what the runs of each are, and what is taken
// back where a thread leaves a trace in its middle.
#include "bi/code/run_groups.h"

#include <map>

#include "bi/a64/a64.h"
#include "bi/code/drop_range.h"
#include "bi/code/exit_branch.h"
#include "bi/code/trace_check.h"
#include "bi/plugin.h"
#include "trace_sources.h"

namespace ceilmeter::test {
namespace {

std::map<std::uint64_t, std::uint64_t> counters;

class run_groups : public trace_test {
 protected:
  run_groups() {
    counters.clear();
    mora_on_pre_bb(mora_add_plugin(),
                   [](mora_context* ctx) { return mora_count_runs(ctx, &counters[mora_get_source_addr(ctx)]); });
  }
  ~run_groups() override { engine.plugin_count = 0; }

  std::uint64_t& counter(const std::uint32_t* source) const { return counters[address_of(source)]; }
  std::uint64_t& passes(std::int32_t id) const { return thread->run_records[id - BB_COUNT].passes; }
  std::int32_t trampoline_of(std::int32_t id) const { return meta(id).trampoline; }
  std::uint64_t exit_of(std::int32_t id) const { return address_of(meta(id).exit_code_addr); }

  // The trace of five blocks after its first pass: what its code would have counted.
  void build_and_pass() {
    build_five_blocks();
    passes(first) = 1;
    for (const std::uint32_t* member : members) ++counter(member);  // Their snippets.
  }
  std::vector<std::uint64_t> counts() {
    settle_runs(thread);
    std::vector<std::uint64_t> all = {counter(skipped_by_eq)};
    for (const std::uint32_t* member : members) all.push_back(counter(member));
    return all;
  }

  static constexpr std::int32_t first = BB_COUNT;
  const std::uint32_t* const members[4] = {taken_by_cbnz, taken_by_tbz, direct, back_to_head};
  using list = std::vector<std::uint64_t>;
};

TEST_F(run_groups, the_head_leads_and_the_others_have_no_code) {
  build_five_blocks();
  EXPECT_FALSE(is_member(thread, first));
  EXPECT_EQ(at(meta(first).cache_entry)[1], PUSH_X1_X30);
  for (std::int32_t id = first + 1; id < first + 5; ++id) {
    EXPECT_TRUE(is_member(thread, id));
    EXPECT_EQ(*at(meta(id).cache_entry), members[id - first - 1][0]);
  }
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(run_groups, exits_that_a_member_follows_count_in_their_trampolines_and_the_last_does_not) {
  build_five_blocks();
  for (std::int32_t id = first; id < first + 3; ++id) {
    const bb_meta& trampoline = meta(trampoline_of(id));
    EXPECT_TRUE(is_counting_trampoline(trampoline)) << id;
    EXPECT_EQ(*at(trampoline.cache_entry), PUSH_X1_X30);
    EXPECT_EQ(address_of(trampoline.exit_code_addr), trampoline.cache_entry + 24);
  }
  EXPECT_FALSE(is_counting_trampoline(meta(trampoline_of(first + 4))));
}

TEST_F(run_groups, every_pass_to_the_end_is_a_run_of_each) {
  build_and_pass();
  EXPECT_EQ(counts(), (list{1, 1, 1, 1, 1}));
  passes(first) += 10;
  EXPECT_EQ(counts(), (list{11, 11, 11, 11, 11}));
  EXPECT_EQ(counts(), (list{11, 11, 11, 11, 11})) << "what was settled is not settled again";
}

TEST_F(run_groups, a_pass_that_is_left_early_is_no_run_of_those_behind) {
  build_and_pass();
  passes(first) += 10;
  passes(trampoline_of(first)) += 3;
  passes(trampoline_of(first + 1)) += 2;
  passes(trampoline_of(first + 2)) += 1;
  EXPECT_EQ(counts(), (list{11, 8, 6, 5, 5}));
}

TEST_F(run_groups, sums_wrap) {
  build_and_pass();
  counter(direct) = ~std::uint64_t{0} - 1;
  passes(first) += 3;
  EXPECT_EQ(counts()[3], 2u);
}

TEST_F(run_groups, a_thread_that_leaves_at_an_exit_takes_back_those_behind) {
  build_and_pass();
  ++passes(first);
  left_trace(thread, exit_of(first + 1));
  EXPECT_EQ(counts(), (list{2, 2, 1, 1, 1}));
}

TEST_F(run_groups, at_the_push_of_the_leaders_counter_nothing_is_taken_back_and_behind_it_all_are) {
  build_and_pass();
  left_trace(thread, meta(first).cache_entry + 4);
  EXPECT_EQ(counts(), (list{1, 1, 1, 1, 1}));
  ++passes(first);
  left_trace(thread, meta(first).cache_entry + 4 + 6 * 4);  // The head's own first word.
  EXPECT_EQ(counts(), (list{2, 1, 1, 1, 1}));
}

TEST_F(run_groups, at_the_push_of_a_trampoline_those_behind_its_exit_are_taken_back_and_behind_it_none) {
  build_and_pass();
  ++passes(first);
  const std::uint64_t trampoline = meta(trampoline_of(first + 1)).cache_entry;
  left_trace(thread, trampoline + 4);
  EXPECT_EQ(counts(), (list{2, 2, 2, 2, 2}));
  ++passes(first);
  left_trace(thread, trampoline);
  EXPECT_EQ(counts(), (list{3, 3, 2, 2, 2}));
}

TEST_F(run_groups, outside_of_traces_nothing_is_taken_back) {
  build_and_pass();
  left_trace(thread, address_of(block(head)) + 8);
  left_trace(thread, address_of(thread->code_cache));
  left_trace(thread, address_of(direct));
  EXPECT_EQ(counts(), (list{1, 1, 1, 1, 1}));
}

TEST_F(run_groups, a_member_whose_snippet_has_not_run_has_not_run) {
  make_hot(block_of(skipped_by_eq));
  passes(first) = 1;
  leave(taken_by_cbnz);
  settle_runs(thread);
  EXPECT_EQ(counter(taken_by_cbnz), 0u);
  EXPECT_EQ(counter(skipped_by_eq), 1u);
}

TEST_F(run_groups, an_abandoned_traces_runs_are_kept_when_another_takes_its_indices) {
  make_hot(block_of(skipped_by_eq));
  passes(first) = 1;
  leave(taken_by_cbnz);
  ++counter(taken_by_cbnz);
  make_hot(block_of(path_end));
  EXPECT_EQ(counter(skipped_by_eq), 1u);
  EXPECT_EQ(counter(taken_by_cbnz), 1u);
  EXPECT_EQ(passes(first), 0u);
}

TEST_F(run_groups, code_that_runs_on_behind_a_flush_is_counted) {
  build_and_pass();
  flush_code_cache(thread);
  EXPECT_EQ(counter(back_to_head), 1u);
  passes(first) += 2;
  make_hot(block_of(path_end));
  EXPECT_EQ(counter(back_to_head), 3u);
}

TEST_F(run_groups, a_trampoline_that_counts_goes_on_doing_so_when_a_trace_takes_its_blocks_place) {
  build_five_blocks();
  const std::int32_t trampoline = trampoline_of(first);
  const word_list before = words(at(meta(trampoline).cache_entry), 6);
  const std::uint64_t second = make_hot(block_of(path_end));
  leave(path_end);
  const std::uint32_t* exit = meta(first).exit_code_addr;
  EXPECT_EQ(branch_destination(*exit, exit), meta(trampoline).cache_entry);
  EXPECT_EQ(words(at(meta(trampoline).cache_entry), 6), before);
  EXPECT_EQ(branch_destination(*meta(trampoline).exit_code_addr, meta(trampoline).exit_code_addr), second + 4);
  check_trace_cache(thread, BB_COUNT);
  drop_fragments(thread, address_of(path_end), address_of(path_end) + 4);
  EXPECT_EQ(words(at(meta(trampoline).cache_entry), 6), before);
  EXPECT_EQ(branch_destination(*meta(trampoline).exit_code_addr, meta(trampoline).exit_code_addr),
            hash_lookup_entry(thread, address_of(path_end)) + 4);
}

TEST_F(run_groups, a_thread_whose_code_calls_functions_makes_none) {
  EXPECT_FALSE(stop_grouping(thread));
  build_five_blocks();
  for (std::int32_t id = first; id < first + 5; ++id) EXPECT_FALSE(is_member(thread, id));
  EXPECT_EQ(*at(meta(first + 1).cache_entry), PUSH_X1_X30);
}

}  // namespace
}  // namespace ceilmeter::test
