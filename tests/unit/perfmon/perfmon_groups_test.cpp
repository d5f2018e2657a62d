// The events that are counted, and the opening of their groups, with every step that the kernel sees in its order.
#include <cerrno>
#include <type_traits>

#include "perfmon_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class perfmon_events_test : public perfmon_test {};

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

}  // namespace
}  // namespace ceilmeter::test
