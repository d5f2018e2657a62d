// Opening, starting, stopping and reading of the groups, with every step that the kernel sees in its order.
#include <cerrno>
#include <functional>
#include <thread>
#include <type_traits>

#include "perfmon_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class perfmon_events_test : public perfmon_test {};

// Runs `work` to its end on a thread of its own.
void on_another_thread(const std::function<void()>& work) { std::thread(work).join(); }

std::vector<std::pair<std::string, std::uint64_t>> names_and_codes(const std::vector<perfmon_event>& events) {
  std::vector<std::pair<std::string, std::uint64_t>> result;
  for (const perfmon_event& event : events) result.emplace_back(event.name, event.config);
  return result;
}

TEST_F(perfmon_events_test, at_level_warn_the_six_roofline_events_are_counted_by_rising_code) {
  const open_perfmon counted(true);
  ASSERT_EQ(counted.m_events.size(), 1u);
  EXPECT_THAT(names_and_codes(counted.m_events.at(4)),
              ElementsAre(Pair("L1D_CACHE", 4), Pair("LL_CACHE", 50), Pair("LL_CACHE_MISS", 51),
                          Pair("L2D_CACHE_REFILL_LD", 82), Pair("L2D_CACHE_REFILL_ST", 83), Pair("LSU_HIT_L2", 24587)));
}

TEST_F(perfmon_events_test, from_level_info_up_the_four_extra_events_follow_by_rising_code) {
  for (const int level : {LEVEL_INFO, LEVEL_DEBUG, LEVEL_TRACE, LEVEL_TRACE_DATA}) {
    SCOPED_TRACE(level);
    reset_log(level);
    const open_perfmon counted(true);
    ASSERT_EQ(counted.m_events.size(), 1u);
    EXPECT_THAT(
        names_and_codes(counted.m_events.at(4)),
        ElementsAre(Pair("L1D_CACHE", 4), Pair("LL_CACHE", 50), Pair("LL_CACHE_MISS", 51),
                    Pair("L2D_CACHE_REFILL_LD", 82), Pair("L2D_CACHE_REFILL_ST", 83), Pair("LSU_HIT_L2", 24587),
                    Pair("LDST_SPEC", 114), Pair("ASE_SPEC", 116), Pair("VFP_SPEC", 117), Pair("STREAM_OUT", 20515)));
  }
}

TEST_F(perfmon_events_test, at_level_fatal_the_extra_events_are_left_out) {
  reset_log(LEVEL_FATAL);
  EXPECT_EQ(open_perfmon(true).m_events.at(4).size(), 6u);
}

TEST_F(perfmon_events_test, the_log_level_is_looked_at_when_the_object_is_made_and_not_later) {
  open_perfmon quiet(true);
  reset_log(LEVEL_INFO);
  open_perfmon talkative(true);
  reset_log(LEVEL_WARN);
  quiet.start_roofline_events("r");
  EXPECT_EQ(kernel.opens().size(), 6u);
  talkative.start_roofline_events("r");
  EXPECT_EQ(kernel.opens().size(), 16u);
}

TEST_F(perfmon_events_test, events_and_their_descriptors_stay_apart_in_the_event_list) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  for (const perfmon_event& event : counted.m_events.at(4)) EXPECT_EQ(event.fd, -1) << event.name;
}

TEST_F(perfmon_events_test, neither_constructor_nor_destructor_calls_the_kernel) {
  { const open_perfmon counted(true); }
  EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(perfmon_events_test, the_destructor_closes_no_descriptor) {
  {
    open_perfmon counted(true);
    counted.start_roofline_events("r");
  }
  EXPECT_EQ(kernel.open_descriptors(), 6);
}

TEST_F(perfmon_events_test, a_perfmon_is_neither_copied_nor_assigned) {
  EXPECT_FALSE(std::is_copy_constructible_v<perfmon>);
  EXPECT_FALSE(std::is_copy_assignable_v<perfmon>);
}

TEST_F(perfmon_events_test, only_raw_events_are_opened_at_a_start) {
  open_perfmon counted(false, {{1, {{"FAULTS", 2, -1}}}, {4, {{"CYCLES", 0x11, -1}}}, {0, {{"INSTRUCTIONS", 1, -1}}}});
  counted.start_roofline_events("r");
  EXPECT_THAT(kernel.opened_configs(), ElementsAre(0x11));
}

TEST_F(perfmon_events_test, the_key_hash_is_the_string_hash_xor_twice_the_thread_id) {
  const std::size_t of_text = std::hash<std::string>{}("total");
  EXPECT_EQ((thread_region_key_hash{}({"total", 0})), of_text);
  EXPECT_EQ((thread_region_key_hash{}({"total", 5})), of_text ^ 10);
  EXPECT_EQ((thread_region_key_hash{}({"total", 4194304})), of_text ^ 8388608);
}

TEST_F(perfmon_events_test, keys_are_equal_when_region_and_thread_are) {
  const thread_region_key key{"total", 5};
  EXPECT_TRUE(key == (thread_region_key{"total", 5}));
  EXPECT_FALSE(key == (thread_region_key{"total", 6}));
  EXPECT_FALSE(key == (thread_region_key{"Total", 5}));
}

class perfmon_open_test : public perfmon_test {};

TEST_F(perfmon_open_test, a_group_is_opened_on_the_calling_thread_and_any_cpu_with_close_on_exec) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  ASSERT_EQ(kernel.opens().size(), 6u);
  for (const open_call& call : kernel.opens()) {
    EXPECT_EQ(call.attr[0] & 0xFFFFFFFF, 4u);
    EXPECT_EQ(call.pid, 0);
    EXPECT_EQ(call.cpu, -1);
    EXPECT_EQ(call.flags, 8u);
  }
}

TEST_F(perfmon_open_test, every_event_gets_the_inherit_flag_of_the_object) {
  open_perfmon inheriting(true);
  inheriting.start_roofline_events("r");
  open_perfmon lonely(false);
  lonely.start_roofline_events("r");
  ASSERT_EQ(kernel.opens().size(), 12u);
  for (std::size_t i = 0; i < 12; ++i) EXPECT_EQ(kernel.opens()[i].attr[5], i < 6 ? 0x200063u : 0x200061u) << i;
}

TEST_F(perfmon_open_test, the_first_event_leads_a_complete_group_and_each_id_is_asked_for_after_its_open) {
  open_perfmon counted(true);
  counted.open_roofline_events("r");
  EXPECT_THAT(kernel.calls(), ElementsAre("open 4 group -1", "ioctl 700000 80082407", "open 32 group 700000",
                                          "ioctl 700001 80082407", "open 33 group 700000", "ioctl 700002 80082407",
                                          "open 52 group 700000", "ioctl 700003 80082407", "open 53 group 700000",
                                          "ioctl 700004 80082407", "open 600b group 700000", "ioctl 700005 80082407"));
}

TEST_F(perfmon_open_test, the_record_holds_every_counter_under_the_kernels_id_the_leader_included) {
  open_perfmon counted(true);
  const thread_counters& counters = counted.open_roofline_events("r");
  EXPECT_EQ(counters.group_fd, fd(0));
  EXPECT_THAT(counters.time_intervals, IsEmpty());
  ASSERT_EQ(counters.events.size(), 6u);
  EXPECT_EQ(counters.events.at(7000000).fd, fd(0));
  EXPECT_EQ(counters.events.at(7000000).name, "L1D_CACHE");
  EXPECT_EQ(counters.events.at(7000050).fd, fd(5));
  EXPECT_EQ(counters.events.at(7000050).name, "LSU_HIT_L2");
}

TEST_F(perfmon_open_test, the_open_is_logged_at_debug_with_the_region) {
  reset_log(LEVEL_DEBUG);
  open_perfmon counted(true);
  counted.open_roofline_events("some region");
  EXPECT_THAT(logged_by("open_roofline_events", LEVEL_DEBUG),
              ElementsAre("open_roofline_events: region is some region"));
}

TEST_F(perfmon_open_test, when_the_first_events_fail_the_next_one_that_opens_leads) {
  kernel.refused = {{4, ENOENT}, {0x32, ENOENT}};
  open_perfmon counted(true);
  const thread_counters& counters = counted.open_roofline_events("r");
  EXPECT_EQ(counters.group_fd, fd(0));
  EXPECT_EQ(counters.events.at(7000000).name, "LL_CACHE_MISS");
  EXPECT_THAT(kernel.calls(),
              ElementsAre("open 4 group -1", "open 32 group -1", "open 33 group -1", "ioctl 700000 80082407",
                          "open 52 group 700000", "ioctl 700001 80082407", "open 53 group 700000",
                          "ioctl 700002 80082407", "open 600b group 700000", "ioctl 700003 80082407"));
}

TEST_F(perfmon_open_test, an_event_that_fails_in_the_middle_leaves_the_group_one_counter_short) {
  kernel.refused = {{0x52, ENOENT}};
  open_perfmon counted(true);
  const thread_counters& counters = counted.open_roofline_events("r");
  EXPECT_EQ(counters.events.size(), 5u);
  for (const auto& [id, event] : counters.events) EXPECT_NE(event.name, "L2D_CACHE_REFILL_LD");
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("perf_event_open failed with No such file or directory"));
}

TEST_F(perfmon_open_test, a_descriptor_limit_in_the_middle_of_a_group_gives_two_warnings_for_each_missing_event) {
  kernel.open_limit = 4;
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  const std::string hint =
      "Hit the upper limit of files it's allowed to open, usually 1,024. Please temporarily increase the limit to, for "
      "example, 2,048 files, with the command \"ulimit -n 2048\"";
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("perf_event_open failed with Too many open files", hint,
                                                    "perf_event_open failed with Too many open files", hint));
  EXPECT_TRUE(kernel.enabled(fd(0)));
}

TEST_F(perfmon_open_test, of_two_counters_with_one_id_the_second_is_dropped_and_stays_open) {
  kernel.ids = {{0x32, 999}, {0x33, 999}};
  open_perfmon counted(true);
  const thread_counters& counters = counted.open_roofline_events("r");
  EXPECT_EQ(counters.events.size(), 5u);
  EXPECT_EQ(counters.events.at(999).fd, fd(1));
  EXPECT_EQ(counters.events.at(999).name, "LL_CACHE");
  counted.start_roofline_events("r");
  counted.finalize_roofline_events();
  EXPECT_EQ(kernel.open_descriptors(), 1);
}

TEST_F(perfmon_open_test, a_failed_id_request_records_the_counter_under_id_0) {
  kernel.open_result = 0x7ffffff0;  // A number that the fake kernel does not know, so that its id request fails.
  open_perfmon counted(false, {{4, {{"A", 1, -1}, {"B", 2, -1}}}});
  const thread_counters& counters = counted.open_roofline_events("r");
  ASSERT_EQ(counters.events.size(), 1u);
  EXPECT_EQ(counters.events.at(0).name, "A");
}

TEST_F(perfmon_open_test, records_keep_their_address_while_the_map_grows) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  std::vector<const thread_counters*> addresses;
  for (int i = 0; i < 500; ++i) addresses.push_back(&counted.open_roofline_events("region " + std::to_string(i)));
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(&counted.counters("region " + std::to_string(i)), addresses[static_cast<std::size_t>(i)]) << i;
  }
}

class perfmon_start_test : public perfmon_test {};

TEST_F(perfmon_start_test, the_time_stamp_is_taken_before_the_group_is_enabled) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl 700000 80082407", "clock", "ioctl 700000 2400 1",
                                          "read 700000 4096"));
}

TEST_F(perfmon_start_test, the_group_is_disabled_before_the_closing_time_stamp_is_taken) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl 700000 80082407", "clock", "ioctl 700000 2400 1",
                                          "read 700000 4096", "ioctl 700000 2401 1", "clock"));
}

TEST_F(perfmon_start_test, a_start_opens_an_interval_whose_end_is_its_begin) {
  kernel.clock = {5'000'000'123};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(5'000'000'123, 5'000'000'123)));
}

TEST_F(perfmon_start_test, a_stop_sets_the_end_of_the_last_interval) {
  kernel.clock = {5'000'000'123, 7'999'999'999};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(5'000'000'123, 7'999'999'999)));
}

TEST_F(perfmon_start_test, start_stop_start_stop_opens_one_group_and_yields_two_intervals) {
  kernel.clock = {10, 20, 30, 50};
  open_perfmon counted(true);
  for (int i = 0; i < 2; ++i) {
    counted.start_roofline_events("r");
    counted.stop_roofline_events("r");
  }
  EXPECT_EQ(kernel.opens().size(), 6u);
  EXPECT_EQ(kernel.enables(fd(0)), 2);
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(10, 20), time_interval(30, 50)));
}

TEST_F(perfmon_start_test, a_start_never_resets_the_group) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  kernel.count(fd(0), 4, 40);
  counted.stop_roofline_events("r");
  counted.start_roofline_events("r");
  kernel.count(fd(0), 4, 2);
  counter_table totals;
  counted.read_counters_from_group(counted.counters("r"), totals);
  EXPECT_EQ(*totals.find("L1D_CACHE"), 42u);
}

TEST_F(perfmon_start_test, a_start_of_an_enabled_region_enables_again_and_leaves_the_first_interval_empty) {
  kernel.clock = {10, 20, 30};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_EQ(kernel.enables(fd(0)), 2);
  EXPECT_EQ(kernel.opens().size(), 6u);
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(10, 10), time_interval(20, 30)));
}

TEST_F(perfmon_start_test, two_regions_of_a_thread_have_a_group_each) {
  open_perfmon counted(true);
  counted.start_roofline_events("a");
  counted.start_roofline_events("b");
  EXPECT_EQ(kernel.opens().size(), 12u);
  EXPECT_EQ(counted.counters("a").group_fd, fd(0));
  EXPECT_EQ(counted.counters("b").group_fd, fd(6));
  counted.stop_roofline_events("a");
  EXPECT_FALSE(kernel.enabled(fd(0)));
  EXPECT_TRUE(kernel.enabled(fd(6)));
}

TEST_F(perfmon_start_test, a_group_that_fails_as_a_whole_gives_one_warning_more_and_no_interval) {
  kernel.open_result = -1;
  open_perfmon counted(false, {{4, {{"A", 1, -1}, {"B", 2, -1}}}});
  counted.start_roofline_events("some region");
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("perf_event_open failed with Invalid argument",
                                                    "perf_event_open failed with Invalid argument",
                                                    "failed to perfmon::open_roofline_events for some region region"));
  EXPECT_EQ(logged_by("start_roofline_events", LEVEL_WARN).size(), 1u);
  EXPECT_EQ(counted.counters("some region").group_fd, -1);
  EXPECT_THAT(counted.counters("some region").time_intervals, IsEmpty());
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "open 2 group -1"));
}

TEST_F(perfmon_start_test, after_a_full_failure_the_next_start_tries_again_on_the_same_record) {
  kernel.open_result = -1;
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  const thread_counters* record = &counted.counters("r");
  kernel.open_result.reset();
  counted.start_roofline_events("r");
  EXPECT_EQ(&counted.counters("r"), record);
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 1u);
  EXPECT_EQ(record->group_fd, fd(0));
  EXPECT_EQ(record->events.size(), 6u);
  EXPECT_EQ(record->time_intervals.size(), 1u);
  EXPECT_EQ(kernel.opens().size(), 12u);
  EXPECT_TRUE(kernel.enabled(fd(0)));
}

TEST_F(perfmon_start_test, without_an_event_to_open_the_start_fails_with_its_warning) {
  open_perfmon counted(false, {});
  counted.start_roofline_events("r");
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("failed to perfmon::open_roofline_events for r region"));
}

TEST_F(perfmon_start_test, a_negative_leader_other_than_minus_1_gets_an_interval_and_a_warning_in_place_of_the_enable) {
  kernel.open_result = -2;
  kernel.clock = {10};
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "start_roofline_events", LEVEL_WARN,
                                      "couldn't start_roofline_events for r region because group_fd was not set"}));
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(10, 10)));
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl -2 80082407", "clock"));
}

TEST_F(perfmon_start_test, a_start_is_logged_at_debug_ahead_of_the_open) {
  reset_log(LEVEL_DEBUG);
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("some region");
  EXPECT_THAT(logged_texts(LEVEL_DEBUG),
              ElementsAre("start_roofline_events: region is some region", "open_roofline_events: region is some region",
                          "perf_event_open: type 4, config 1, inherit: 0, cpu -1, group_fd -1, flags 8, ret 700000"));
  EXPECT_THAT(logged_by("start_roofline_events", LEVEL_DEBUG),
              ElementsAre("start_roofline_events: region is some region"));
}

TEST_F(perfmon_start_test, start_and_stop_log_nothing_at_level_warn) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_start_test, a_start_after_finalisation_opens_a_new_group_on_the_same_record) {
  kernel.clock = {10, 20, 30};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  counted.finalize_roofline_events();
  const thread_counters* record = &counted.counters("r");
  counted.start_roofline_events("r");
  EXPECT_EQ(&counted.counters("r"), record);
  EXPECT_EQ(record->group_fd, fd(6));
  EXPECT_EQ(record->time_intervals.size(), 2u);
  EXPECT_TRUE(kernel.enabled(fd(6)));
}

class perfmon_stop_test : public perfmon_test {};

TEST_F(perfmon_stop_test, a_stop_without_a_start_gives_its_warning_and_changes_nothing) {
  open_perfmon counted(true);
  counted.stop_roofline_events("some region");
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "stop_roofline_events", LEVEL_WARN,
                                                      "roofline events don't exist for some region region"}));
  EXPECT_THAT(counted.m_counters_per_thread_map, IsEmpty());
  EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(perfmon_stop_test, a_stop_of_another_region_leaves_the_running_one_enabled) {
  open_perfmon counted(true);
  counted.start_roofline_events("a");
  counted.stop_roofline_events("b");
  EXPECT_TRUE(kernel.enabled(fd(0)));
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("roofline events don't exist for b region"));
}

TEST_F(perfmon_stop_test, a_stop_on_another_thread_than_the_start_leaves_the_group_enabled) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  on_another_thread([&] { counted.stop_roofline_events("r"); });
  EXPECT_TRUE(kernel.enabled(fd(0)));
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("roofline events don't exist for r region"));
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 1u);
}

TEST_F(perfmon_stop_test, the_lock_is_free_again_after_a_stop_without_a_start) {
  open_perfmon counted(true);
  counted.stop_roofline_events("r");
  counted.start_roofline_events("r");
  EXPECT_TRUE(kernel.enabled(fd(0)));
}

TEST_F(perfmon_stop_test, a_stop_of_a_region_whose_group_failed_gives_its_warning) {
  kernel.open_result = -1;
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  reset_log(LEVEL_WARN);
  counted.stop_roofline_events("r");
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "stop_roofline_events", LEVEL_WARN,
                                      "couldn't stop_roofline_events for r region because group_fd was not set"}));
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1"));
}

TEST_F(perfmon_stop_test, a_stop_of_a_group_that_was_opened_but_never_started_disables_it_and_warns) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.open_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "stop_roofline_events", LEVEL_WARN,
                                                      "start timestamp was not set for r region"}));
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl 700000 80082407", "ioctl 700000 2401 1"));
}

TEST_F(perfmon_stop_test, a_stop_is_logged_at_debug) {
  reset_log(LEVEL_DEBUG);
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("some region");
  counted.stop_roofline_events("some region");
  EXPECT_THAT(logged_by("stop_roofline_events", LEVEL_DEBUG),
              ElementsAre("stop_roofline_events: region is some region"));
}

class perfmon_read_test : public perfmon_test {
 protected:
  perfmon_read_test() : counted(false, {{4, {{"A", 1, -1}, {"B", 2, -1}, {"C", 3, -1}}}}) {
    counted.start_roofline_events("r");
  }

  void read() { counted.read_counters_from_group(counted.counters("r"), totals); }

  static std::vector<std::pair<std::string, std::uint64_t>> entries(const counter_table& table) {
    std::vector<std::pair<std::string, std::uint64_t>> result;
    for (const auto& [name, value] : table) result.emplace_back(name, value);
    return result;
  }

  open_perfmon counted;
  counter_table totals;
};

TEST_F(perfmon_read_test, the_leader_is_read_once_with_4096_bytes) {
  read();
  EXPECT_EQ(kernel.calls().back(), "read 700000 4096");
}

TEST_F(perfmon_read_test, each_value_is_added_under_its_events_name) {
  kernel.count(fd(0), 1, 10);
  kernel.count(fd(0), 2, 0xFFFFFFFFFFFF);
  totals.find_or_insert("A") = 5;
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 15), Pair("B", 0xFFFFFFFFFFFF), Pair("C", 0)));
}

TEST_F(perfmon_read_test, values_are_told_by_their_id_and_not_by_their_position) {
  kernel.reading = {3, 1, 1, 30, 7000020, 10, 7000000, 20, 7000010};
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 10), Pair("B", 20), Pair("C", 30)));
}

TEST_F(perfmon_read_test, an_unknown_id_is_skipped) {
  kernel.reading = {3, 1, 1, 10, 7000000, 99, 12345, 20, 7000010};
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 10), Pair("B", 20)));
}

TEST_F(perfmon_read_test, an_id_that_comes_twice_is_added_twice) {
  kernel.reading = {2, 1, 1, 10, 7000000, 20, 7000000};
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 30)));
}

TEST_F(perfmon_read_test, sums_wrap_like_unsigned_64_bit_numbers) {
  kernel.reading = {2, 1, 1, 0xFFFFFFFFFFFFFFFF, 7000000, 3, 7000000};
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 2)));
}

TEST_F(perfmon_read_test, multiplexing_gives_one_warning_per_read_and_unscaled_values) {
  kernel.time_enabled = 200;
  kernel.time_running = 50;
  kernel.count(fd(0), 1, 10);
  read();
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "read_counters_from_group", LEVEL_WARN,
                                                      "core counters have multiplexing!"}));
  EXPECT_EQ(*totals.find("A"), 10u);
  read();
  EXPECT_THAT(logged_texts(LEVEL_WARN),
              ElementsAre("core counters have multiplexing!", "core counters have multiplexing!"));
}

TEST_F(perfmon_read_test, equal_times_give_no_warning) {
  read();
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_read_test, a_failed_read_gives_its_warning_and_leaves_the_totals) {
  kernel.read_error = ENOSPC;
  totals.find_or_insert("A") = 5;
  read();
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "read_counters_from_group", LEVEL_WARN,
                                      "failed to read counter_values for core events with No space left on device"}));
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 5)));
}

TEST_F(perfmon_read_test, an_empty_read_counts_as_failed) {
  kernel.read_bytes = 0;
  errno = EIO;
  read();
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("failed to read counter_values for core events with Success"));
  EXPECT_TRUE(totals.empty());
}

TEST_F(perfmon_read_test, a_record_without_a_group_is_not_read) {
  const thread_counters none;
  const std::size_t before = kernel.calls().size();
  counted.read_counters_from_group(none, totals);
  EXPECT_TRUE(totals.empty());
  EXPECT_THAT(logged_lines(), IsEmpty());
  EXPECT_EQ(kernel.calls().size(), before);
}

TEST_F(perfmon_read_test, a_count_of_pairs_beyond_what_was_delivered_reads_only_what_was_delivered) {
  kernel.reading = {0x1000000000000001, 1, 1, 10, 7000000, 20, 7000010};
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 10), Pair("B", 20)));
}

TEST_F(perfmon_read_test, a_reading_cut_in_the_middle_of_a_pair_counts_the_whole_pairs) {
  kernel.reading = {2, 1, 1, 10, 7000000, 20, 7000010};
  kernel.read_bytes = 6 * 8 + 5;
  read();
  EXPECT_THAT(entries(totals), UnorderedElementsAre(Pair("A", 10)));
}

TEST_F(perfmon_read_test, a_reading_shorter_than_its_header_counts_nothing) {
  kernel.reading = {2, 1, 0};
  for (std::size_t bytes = 1; bytes < 24; ++bytes) {
    SCOPED_TRACE(bytes);
    kernel.read_bytes = bytes;
    read();
    EXPECT_TRUE(totals.empty());
    EXPECT_THAT(logged_lines(), IsEmpty());
  }
}

}  // namespace
}  // namespace ceilmeter::test
