// Reading of a group: what becomes of the kernel's values, and of readings that are cut short or fail.
#include <cerrno>

#include "perfmon_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

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
