// The switches for developers: how they are read, and what their limits prevent.
#include "bi/engine_switches.h"

#include <cstdlib>

#include "trace_sources.h"

namespace ceilmeter::test {

namespace {

class engine_switches : public trace_test {
 protected:
  engine_switches() { clear(); }
  ~engine_switches() override {
    clear();
    debug_options = {};
    trace_options = {};
  }
  static void clear() {
    for (const char* name : {"MORA_BI_TRACES", "MORA_BI_HOT", "MORA_BI_MAX_TRACES", "MORA_BI_MAX_LINKS",
                             "MORA_BI_DUMP_TRACE", "MORA_BI_DUMP_LINK"}) {
      unsetenv(name);
    }
  }
  static void read_with(const char* name, const char* value) {
    setenv(name, value, 1);
    read_engine_switches();
  }
};

TEST_F(engine_switches, without_a_variable_nothing_changes) {
  trace_options.hot_mark = 7;
  read_engine_switches();
  EXPECT_FALSE(trace_options.off);
  EXPECT_EQ(trace_options.check, TRACE_CHECK_NONE);
  EXPECT_EQ(trace_options.hot_mark, 7);
  EXPECT_EQ(debug_options.max_traces, NO_LIMIT);
  EXPECT_EQ(debug_options.max_links, NO_LIMIT);
}

TEST_F(engine_switches, each_word_for_traces_sets_its_option) {
  read_with("MORA_BI_TRACES", "checked");
  EXPECT_EQ(trace_options.check, TRACE_CHECK_CHANGES);
  read_with("MORA_BI_TRACES", "checked-whole");
  EXPECT_EQ(trace_options.check, TRACE_CHECK_WHOLE);
  EXPECT_FALSE(trace_options.off);
  read_with("MORA_BI_TRACES", "off");
  EXPECT_TRUE(trace_options.off);
}

TEST_F(engine_switches, numbers_are_read) {
  setenv("MORA_BI_HOT", "3", 1);
  setenv("MORA_BI_MAX_TRACES", "0", 1);
  setenv("MORA_BI_DUMP_TRACE", "12", 1);
  setenv("MORA_BI_DUMP_LINK", "13", 1);
  read_with("MORA_BI_MAX_LINKS", "4000000000");
  EXPECT_EQ(trace_options.hot_mark, 3);
  EXPECT_EQ(debug_options.max_traces, 0u);
  EXPECT_EQ(debug_options.max_links, 4000000000u);
  EXPECT_EQ(debug_options.dump_trace, 12u);
  EXPECT_EQ(debug_options.dump_link, 13u);
}

TEST_F(engine_switches, a_value_that_is_not_known_is_warned_of_and_changes_nothing) {
  testing::internal::CaptureStderr();
  setenv("MORA_BI_HOT", "256", 1);
  setenv("MORA_BI_MAX_TRACES", "-1", 1);
  setenv("MORA_BI_MAX_LINKS", "5x", 1);
  setenv("MORA_BI_DUMP_TRACE", "", 1);
  read_with("MORA_BI_TRACES", "on");
  const std::string warnings = testing::internal::GetCapturedStderr();
  EXPECT_THAT(warnings, testing::HasSubstr("Incorrect value of MORA_BI_TRACES variable: on"));
  EXPECT_THAT(warnings, testing::HasSubstr("Incorrect value of MORA_BI_HOT variable: 256"));
  EXPECT_THAT(warnings, testing::HasSubstr("Incorrect value of MORA_BI_MAX_TRACES variable: -1"));
  EXPECT_EQ(trace_options.hot_mark, 0);
  EXPECT_EQ(debug_options.max_traces, NO_LIMIT);
  EXPECT_EQ(debug_options.max_links, NO_LIMIT);
  EXPECT_EQ(debug_options.dump_trace, 0u);
}

TEST_F(engine_switches, a_hot_block_for_which_there_is_no_trace_left_goes_on) {
  const std::int32_t id = block_of(path_end);
  debug_options.max_traces = 0;
  EXPECT_EQ(make_hot(id), address_of(block(id)));
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(thread->trace_id, BB_COUNT);
}

TEST_F(engine_switches, traces_are_numbered_as_they_are_begun) {
  make_hot(block_of(path_end));
  const std::uint64_t first = thread->trace_number;
  leave(path_end);
  debug_options.max_traces = first + 1;
  const std::uint64_t entry = make_hot(block_of(skipped_by_eq));
  EXPECT_EQ(thread->trace_number, first + 1);
  EXPECT_TRUE(is_in_traces(thread, entry));
  const std::int32_t over = block_of(direct);
  EXPECT_EQ(make_hot(over), address_of(block(over)));
}

TEST_F(engine_switches, an_exit_beyond_the_limit_of_links_stays_as_it_was_scanned) {
  const std::int32_t id = block_of(direct);
  debug_options.max_links = 0;
  const word_list before = words(meta(id).exit_code_addr, 3);
  EXPECT_EQ(dispatched(address_of(back_to_head), id), address_of(block(block_of(back_to_head))));
  EXPECT_EQ(words(meta(id).exit_code_addr, 3), before);
  EXPECT_EQ(meta(id).link_state, LINK_NONE);
  debug_options.max_links = NO_LIMIT;
  dispatched(address_of(back_to_head), id);
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST);
}

}  // namespace

}  // namespace ceilmeter::test
