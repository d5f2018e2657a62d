// The map of executable ranges, case by case: what merges, what splits, who owns which descriptor, and the oddities.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "../../support/captured_log.h"
#include "common/log.h"
#include "interval_map_support.h"

namespace ceilmeter {
namespace {

using test::captured_log;
using test::file_of;
using test::range;
using test::scratch_descriptor;
using test::scratch_interval_map;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class interval_map_test : public ::testing::Test {
 protected:
  ~interval_map_test() override { log_state::engine_log_level = LEVEL_WARN; }

  int add(std::uint64_t start, std::uint64_t end, int fd = -1) { return interval_map_add(map, start, end, fd); }
  std::int64_t remove(std::uint64_t start, std::uint64_t end) { return interval_map_delete(map, start, end); }
  std::vector<range> ranges() const { return scratch.ranges(); }

  scratch_descriptor file_a, file_b, file_c;
  scratch_interval_map scratch{8};
  interval_map* map = &scratch.map;
};

TEST_F(interval_map_test, init_makes_an_empty_map) {
  EXPECT_EQ(map->capacity, 8);
  EXPECT_EQ(map->count, 0);
  EXPECT_NE(map->entries, nullptr);
}

TEST_F(interval_map_test, init_of_a_negative_capacity_fails) {
  interval_map other;
  EXPECT_EQ(interval_map_init(&other, -1), -1);
}

TEST_F(interval_map_test, ranges_that_touch_are_not_merged) {
  EXPECT_EQ(add(0x2000, 0x3000), 0);
  EXPECT_EQ(add(0x3000, 0x4000), 0);
  EXPECT_EQ(add(0x1000, 0x2000), 0);
  EXPECT_THAT(ranges(), ElementsAre(range(0x2000, 0x3000), range(0x3000, 0x4000), range(0x1000, 0x2000)));
}

TEST_F(interval_map_test, add_keeps_a_duplicate_and_leaves_the_callers_descriptor_alone) {
  ASSERT_EQ(add(0x1000, 0x2000, file_a.fd()), 0);
  EXPECT_NE(map->entries[0].fd, file_a.fd());
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_a.fd()));
  EXPECT_EQ(scratch.opened(), 1);
}

TEST_F(interval_map_test, duplicate_of_a_descriptor_is_closed_on_exec) {
  ASSERT_EQ(add(0x1000, 0x2000, file_a.fd()), 0);
  EXPECT_EQ(fcntl(map->entries[0].fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(interval_map_test, add_without_a_descriptor_opens_none) {
  ASSERT_EQ(add(0x1000, 0x2000, -1), 0);
  EXPECT_LT(map->entries[0].fd, 0);
  EXPECT_EQ(scratch.opened(), 0);
}

TEST_F(interval_map_test, add_of_a_descriptor_that_is_not_open_keeps_the_range_without_one) {
  ASSERT_EQ(add(0x1000, 0x2000, 1000000), 0);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x2000)));
  EXPECT_LT(map->entries[0].fd, 0);
}

TEST_F(interval_map_test, add_with_start_equal_to_end_returns_minus_one_and_does_not_duplicate_the_descriptor) {
  EXPECT_EQ(add(0x1000, 0x1000, file_a.fd()), -1);
  EXPECT_EQ(add(0x1001, 0x1000, file_a.fd()), -1);
  EXPECT_THAT(ranges(), IsEmpty());
  EXPECT_EQ(scratch.opened(), 0);
}

TEST_F(interval_map_test, overlapping_add_widens_the_entry_to_the_union) {
  add(0x2000, 0x3000);
  add(0x2800, 0x4000);
  EXPECT_THAT(ranges(), ElementsAre(range(0x2000, 0x4000)));
  add(0x1000, 0x2001);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x4000)));
  add(0x1800, 0x1900);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x4000)));
  add(0, 0x10000);
  EXPECT_THAT(ranges(), ElementsAre(range(0, 0x10000)));
}

TEST_F(interval_map_test, merged_range_keeps_its_descriptor_and_the_new_duplicate_stays_open_and_unused) {
  add(0x2000, 0x3000, file_a.fd());
  add(0x2800, 0x4000, file_b.fd());
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_a.fd()));
  EXPECT_EQ(scratch.opened(), 2);
}

TEST_F(interval_map_test, range_that_bridges_two_merges_all_three_into_the_first_one_found_from_the_end) {
  add(0, 0x1000, file_a.fd());
  add(0x2000, 0x3000, file_b.fd());
  add(0x9000, 0xa000, file_c.fd());
  add(0x800, 0x2800);
  // The far entry was the last one, so it took the place of the removed one.
  EXPECT_THAT(ranges(), ElementsAre(range(0x9000, 0xa000), range(0, 0x3000)));
  EXPECT_EQ(file_of(map->entries[1].fd), file_of(file_b.fd()));
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_c.fd()));
  EXPECT_EQ(scratch.opened(), 2) << "the removed entry's descriptor is closed";
}

TEST_F(interval_map_test, kept_entry_that_the_removal_moved_is_not_widened_again) {
  add(0, 0x1000, file_a.fd());
  add(0x2000, 0x3000, file_b.fd());
  add(0x800, 0x2800);
  // The kept entry was the last one and moved to slot 0; the widening to 0 went to slot 1, beyond the live ones.
  EXPECT_THAT(ranges(), ElementsAre(range(0x800, 0x3000)));
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_b.fd()));
  EXPECT_EQ(scratch.opened(), 1);
  EXPECT_EQ(interval_map_overlapping(map, 0, 0x800), 0);
}

TEST_F(interval_map_test, kept_entry_is_widened_until_a_removal_moves_it) {
  add(0, 0x1000);
  add(0x2000, 0x3000);
  add(0x1800, 0x1900);
  add(0x9000, 0xa000);
  add(0x800, 0x2800);
  // The kept entry is the third. The removal of the second leaves it in its slot, which is then the last: it is widened
  // to 0x3000. The removal of the first moves it, so the widening to 0 is lost.
  EXPECT_THAT(ranges(), ElementsAre(range(0x800, 0x3000), range(0x9000, 0xa000)));
}

TEST_F(interval_map_test, full_map_drops_a_range_without_an_error_and_without_a_descriptor) {
  for (std::uint64_t index = 0; index < 8; ++index) add(index * 0x2000, index * 0x2000 + 0x1000);
  const auto before = ranges();
  EXPECT_EQ(add(0x100000, 0x101000, file_a.fd()), 0);
  EXPECT_EQ(ranges(), before);
  EXPECT_EQ(scratch.opened(), 0);
}

TEST_F(interval_map_test, full_map_still_merges) {
  for (std::uint64_t index = 0; index < 8; ++index) add(index * 0x2000, index * 0x2000 + 0x1000);
  EXPECT_EQ(add(0x4800, 0x5800), 0);
  EXPECT_EQ(map->count, 8);
  EXPECT_EQ(map->entries[2].end, 0x5800U);
}

TEST_F(interval_map_test, delete_of_an_untouched_range_returns_zero) {
  add(0x1000, 0x2000);
  EXPECT_EQ(remove(0x2000, 0x3000), 0);
  EXPECT_EQ(remove(0, 0x1000), 0);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x2000)));
}

TEST_F(interval_map_test, delete_of_an_empty_range_returns_minus_one_and_splits_nothing) {
  add(0x1000, 0x2000);
  EXPECT_EQ(remove(0x1800, 0x1800), -1);
  EXPECT_EQ(remove(0x1900, 0x1800), -1);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x2000)));
}

TEST_F(interval_map_test, delete_removes_what_lies_wholly_inside_and_closes_its_descriptor) {
  add(0x1000, 0x2000, file_a.fd());
  add(0x3000, 0x4000, file_b.fd());
  add(0x5000, 0x6000, file_c.fd());
  EXPECT_EQ(remove(0x1000, 0x4000), 2);
  EXPECT_THAT(ranges(), ElementsAre(range(0x5000, 0x6000)));
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_c.fd()));
  EXPECT_EQ(scratch.opened(), 1);
}

TEST_F(interval_map_test, forgotten_descriptors_are_not_closed_with_their_ranges) {
  add(0x1000, 0x2000, file_a.fd());
  add(0x3000, 0x4000, file_b.fd());
  add(0x5000, 0x6000);
  const int first = map->entries[0].fd;
  const int second = map->entries[1].fd;
  interval_map_forget_descriptors(map, static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(first));
  EXPECT_EQ(map->entries[0].fd, -1);
  EXPECT_EQ(map->entries[1].fd, second);
  EXPECT_EQ(remove(0x1000, 0x6000), 3);
  EXPECT_EQ(file_of(first), file_of(file_a.fd()));
  EXPECT_EQ(scratch.opened(), 1);
  close(first);
}

TEST_F(interval_map_test, descriptors_are_forgotten_by_range) {
  add(0x1000, 0x2000, file_a.fd());
  add(0x3000, 0x4000, file_b.fd());
  const int taken[] = {map->entries[0].fd, map->entries[1].fd};
  interval_map_forget_descriptors(map, static_cast<std::uint32_t>(std::min(taken[0], taken[1])), ~std::uint32_t{0});
  EXPECT_EQ(map->entries[0].fd, -1);
  EXPECT_EQ(map->entries[1].fd, -1);
  for (const int fd : taken) close(fd);
}

TEST_F(interval_map_test, delete_of_an_entrys_head_moves_its_start) {
  add(0x1000, 0x4000, file_a.fd());
  EXPECT_EQ(remove(0x1000, 0x2000), 1);
  EXPECT_THAT(ranges(), ElementsAre(range(0x2000, 0x4000)));
  EXPECT_EQ(scratch.opened(), 1);
}

TEST_F(interval_map_test, delete_of_an_entrys_tail_moves_its_end) {
  add(0x1000, 0x4000, file_a.fd());
  EXPECT_EQ(remove(0x3000, 0x4000), 1);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x3000)));
  EXPECT_EQ(scratch.opened(), 1);
}

TEST_F(interval_map_test, delete_that_splits_an_entry_keeps_the_descriptor_valid_in_both_halves) {
  add(0x1000, 0x4000, file_a.fd());
  EXPECT_EQ(remove(0x2000, 0x3000), 1);
  ASSERT_THAT(ranges(), ElementsAre(range(0x1000, 0x2000), range(0x3000, 0x4000)));
  EXPECT_NE(map->entries[0].fd, map->entries[1].fd);
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_a.fd()));
  EXPECT_EQ(file_of(map->entries[1].fd), file_of(file_a.fd()));
  EXPECT_EQ(scratch.opened(), 2);
}

TEST_F(interval_map_test, halves_of_a_split_close_their_descriptors_independently) {
  add(0x1000, 0x4000, file_a.fd());
  remove(0x2000, 0x3000);
  remove(0x1000, 0x2000);
  EXPECT_THAT(ranges(), ElementsAre(range(0x3000, 0x4000)));
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_a.fd()));
  EXPECT_EQ(scratch.opened(), 1);
}

TEST_F(interval_map_test, split_in_a_full_map_loses_the_upper_half_and_no_descriptor) {
  for (std::uint64_t index = 0; index < 8; ++index) add(index * 0x4000, index * 0x4000 + 0x3000, file_a.fd());
  EXPECT_EQ(remove(0x1000, 0x2000), 1);
  EXPECT_EQ(map->count, 8);
  EXPECT_EQ(map->entries[0].end, 0x1000U);
  EXPECT_EQ(interval_map_overlapping(map, 0x2000, 0x3000), 0);
  EXPECT_EQ(scratch.opened(), 8);
}

TEST_F(interval_map_test, entry_that_ends_inside_the_range_is_cut_and_its_empty_second_half_refused) {
  add(0x1000, 0x4000, file_a.fd());
  EXPECT_EQ(remove(0x3000, 0x6000), 1);
  EXPECT_THAT(ranges(), ElementsAre(range(0x1000, 0x3000)));
  EXPECT_EQ(scratch.opened(), 1) << "a refused add duplicates nothing";
}

TEST_F(interval_map_test, entry_that_starts_inside_the_range_goes_on_as_a_second_half_and_leaves_a_dead_entry) {
  add(0x2000, 0x4000, file_a.fd());
  EXPECT_EQ(remove(0x1000, 0x3000), 1);
  EXPECT_THAT(ranges(), ElementsAre(range(0x2000, 0x1000), range(0x3000, 0x4000)));
  EXPECT_EQ(file_of(map->entries[0].fd), file_of(file_a.fd()));
  EXPECT_EQ(file_of(map->entries[1].fd), file_of(file_a.fd()));
}

TEST_F(interval_map_test, dead_entry_holds_no_address_and_overlaps_no_range_that_leaves_one_of_its_ends_out) {
  add(0x2000, 0x4000);
  remove(0x1000, 0x3000);
  remove(0x3000, 0x4000);
  ASSERT_THAT(ranges(), ElementsAre(range(0x2000, 0x1000)));
  interval_entry found;
  for (const std::uint64_t address : {0xfffULL, 0x1000ULL, 0x1800ULL, 0x1fffULL, 0x2000ULL, 0x2001ULL}) {
    EXPECT_EQ(interval_map_search(map, address, &found), 0) << std::hex << address;
  }
  EXPECT_EQ(interval_map_overlapping(map, 0x1000, 0x3000), 0);
  EXPECT_EQ(interval_map_overlapping(map, 0, 0x2000), 0);
  EXPECT_EQ(interval_map_overlapping(map, 0x1001, 0x2001), 0);
  EXPECT_EQ(interval_map_overlapping(map, 0x1800, 0x1801), 0);
}

TEST_F(interval_map_test, range_around_both_ends_of_a_dead_entry_removes_it) {
  add(0x2000, 0x4000, file_a.fd());
  remove(0x1000, 0x3000);
  EXPECT_EQ(remove(0xfff, 0x2001), 1);
  EXPECT_THAT(ranges(), ElementsAre(range(0x3000, 0x4000)));
  EXPECT_EQ(scratch.opened(), 1);
}

TEST_F(interval_map_test, delete_walks_all_its_entries_whatever_they_become) {
  add(0x1000, 0x3000);  // ends inside
  add(0x4000, 0x5000);  // wholly inside
  add(0x6000, 0x9000);  // starts inside
  add(0xa000, 0xb000);
  EXPECT_EQ(remove(0x2000, 0x7000), 3);
  EXPECT_THAT(ranges(),
              ElementsAre(range(0x1000, 0x2000), range(0x7000, 0x9000), range(0x6000, 0x2000), range(0xa000, 0xb000)));
}

TEST_F(interval_map_test, overlapping_counts_entries) {
  add(0x1000, 0x2000);
  add(0x3000, 0x4000);
  add(0x5000, 0x6000);
  EXPECT_EQ(interval_map_overlapping(map, 0x1fff, 0x3001), 2);
  EXPECT_EQ(interval_map_overlapping(map, 0x2000, 0x3000), 0);
  EXPECT_EQ(interval_map_overlapping(map, 0, 0x10000), 3);
  EXPECT_EQ(interval_map_overlapping(map, 0x1800, 0x1800), -1);
}

TEST_F(interval_map_test, search_finds_the_first_address_and_not_the_end) {
  add(0x1000, 0x2000, file_a.fd());
  interval_entry found{};
  EXPECT_EQ(interval_map_search(map, 0x0fff, &found), 0);
  EXPECT_EQ(interval_map_search(map, 0x2000, &found), 0);
  EXPECT_EQ(interval_map_search(map, 0x1fff, &found), 1);
  EXPECT_EQ(interval_map_search(map, 0x1000, &found), 1);
  EXPECT_EQ(found.start, 0x1000U);
  EXPECT_EQ(found.end, 0x2000U);
  EXPECT_EQ(found.fd, map->entries[0].fd);
}

TEST_F(interval_map_test, search_takes_the_last_of_several_entries_that_hold_the_address) {
  add(0x1000, 0x2000);
  add(0x3000, 0x4000);
  map->entries[1].start = 0x1800;
  interval_entry found{};
  EXPECT_EQ(interval_map_search(map, 0x1900, &found), 1);
  EXPECT_EQ(found.end, 0x4000U);
}

TEST_F(interval_map_test, search_without_a_place_for_the_result_returns_minus_one) {
  add(0x1000, 0x2000);
  EXPECT_EQ(interval_map_search(map, 0x1000, nullptr), -1);
}

class interval_map_log_test : public interval_map_test {
 protected:
  // The lines that `change` logs, with the engine's threshold at `level`.
  template <typename Change>
  std::vector<std::string> lines_at(int level, Change change) {
    log_state::engine_log_level = level;
    const captured_log captured;
    change();
    return captured.lines();
  }
  std::string map_line() const {
    char text[64];
    std::snprintf(text, sizeof text, "trace imap %p:", static_cast<const void*>(map));
    return text;
  }
};

TEST_F(interval_map_log_test, add_logs_the_merged_range_and_the_map) {
  add(0x1000, 0x2000);
  add(0x5000, 0x6000);
  EXPECT_THAT(lines_at(LEVEL_TRACE, [&] { add(0x1800, 0x3000); }),
              ElementsAre("trace imap added: 1000 3000", map_line(), "trace   1000 - 3000", "trace   5000 - 6000"));
}

TEST_F(interval_map_log_test, refused_add_logs_nothing) {
  EXPECT_THAT(lines_at(LEVEL_TRACE, [&] { add(0x1000, 0x1000); }), IsEmpty());
}

TEST_F(interval_map_log_test, delete_logs_its_range_and_the_map) {
  add(0x1000, 0x2000);
  EXPECT_THAT(lines_at(LEVEL_TRACE, [&] { remove(0x1800, 0x3000); }),
              ElementsAre("trace imap deleted: 1800 3000", map_line(), "trace   1000 - 1800"));
}

TEST_F(interval_map_log_test, delete_that_touches_nothing_logs_nothing) {
  EXPECT_THAT(lines_at(LEVEL_TRACE, [&] { remove(0x1800, 0x3000); }), IsEmpty());
}

TEST_F(interval_map_log_test, nothing_is_logged_at_level_debug) {
  EXPECT_THAT(lines_at(LEVEL_DEBUG,
                       [&] {
                         add(0x1000, 0x2000);
                         remove(0x1800, 0x3000);
                         interval_map_print(map);
                       }),
              IsEmpty());
}

TEST_F(interval_map_test, a_map_is_full_with_as_many_ranges_as_it_has_room_for) {
  for (std::uint64_t number = 1; number <= 8; ++number) {
    EXPECT_FALSE(interval_map_is_full(map)) << number;
    add(number * 0x10000, number * 0x10000 + 0x1000);
  }
  EXPECT_TRUE(interval_map_is_full(map));
  remove(0x30000, 0x31000);
  EXPECT_FALSE(interval_map_is_full(map));
}

}  // namespace
}  // namespace ceilmeter
