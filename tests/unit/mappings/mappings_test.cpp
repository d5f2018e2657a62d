// What the registry makes of successive mappings. The tests look up each address.
#include "mappings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "../support/log_capture.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t read_and_execute = 5;
constexpr std::int64_t private_mapping = 2;

class mapping_registry : public ::testing::Test {
 protected:
  // Maps [begin, end) of a file that is named after its descriptor.
  std::uint64_t map(std::uint64_t begin, std::uint64_t end, std::uint64_t offset, int fd) {
    registry.register_fd_name(fd, "/lib/" + std::to_string(fd));
    registry.register_mmap(begin, end, offset, read_and_execute, private_mapping, fd);
    return registry.search_segment(begin);
  }

  // "begin-end+offset name" of the segment that holds `address` now; "none" if there is none.
  // It is asked for with and without the help of the look-up before.
  std::string at(std::uint64_t address) {
    const std::uint64_t id = registry.search_segment(address);
    EXPECT_EQ(registry.search_segment(address, recent), id) << std::hex << address;
    EXPECT_EQ(registry.search_segment(address, recent), id) << std::hex << address;
    return text_of(id);
  }

  static std::string text_of(std::uint64_t id) {
    if (id == 0) return "none";
    const mapping_segment segment = mappings_t::get_segment(id);
    char text[80];
    std::snprintf(text, sizeof text, "%lx-%lx+%lx ", segment.begin, segment.end, segment.offset);
    return text + segment.name;
  }

  mappings_t registry;
  recent_segment recent;
};

TEST_F(mapping_registry, empty_map_holds_no_address) {
  EXPECT_EQ(registry.search_segment(0), 0U);
  EXPECT_EQ(registry.search_segment(0x5000), 0U);
  EXPECT_EQ(registry.search_segment(~std::uint64_t{0}), 0U);
}

TEST_F(mapping_registry, address_below_the_lowest_mapping_is_in_none) {
  map(0x5000, 0x7000, 0, 3);
  EXPECT_EQ(at(0x4fff), "none");
  EXPECT_EQ(at(0), "none");
}

TEST_F(mapping_registry, first_and_last_byte_are_inside_and_the_end_is_outside) {
  map(0x5000, 0x7000, 0x1000, 3);
  EXPECT_EQ(at(0x5000), "5000-7000+1000 /lib/3");
  EXPECT_EQ(at(0x6fff), "5000-7000+1000 /lib/3");
  EXPECT_EQ(at(0x7000), "none");
}

TEST_F(mapping_registry, end_of_one_mapping_is_the_first_byte_of_its_neighbour) {
  map(0x5000, 0x7000, 0, 3);
  map(0x7000, 0x8000, 0, 4);
  EXPECT_EQ(at(0x6fff), "5000-7000+0 /lib/3");
  EXPECT_EQ(at(0x7000), "7000-8000+0 /lib/4");
}

TEST_F(mapping_registry, id_zero_gives_an_all_zero_record) {
  const mapping_segment none = mappings_t::get_segment(0);
  EXPECT_EQ(none.begin, 0U);
  EXPECT_EQ(none.end, 0U);
  EXPECT_EQ(none.offset, 0U);
  EXPECT_EQ(none.name, "");
}

TEST_F(mapping_registry, same_range_again_replaces_the_first_and_its_id_still_resolves) {
  const std::uint64_t first = map(0x5000, 0x7000, 0, 3);
  const std::uint64_t second = map(0x5000, 0x7000, 0x4000, 4);
  EXPECT_NE(first, second);
  EXPECT_EQ(at(0x6000), "5000-7000+4000 /lib/4");
  EXPECT_EQ(text_of(first), "5000-7000+0 /lib/3");
}

// The offset stays that of the old beginning: deliberate, see register_mmap.
TEST_F(mapping_registry, shorter_mapping_with_the_same_begin_moves_the_older_to_its_end_with_its_old_offset) {
  const std::uint64_t older = map(0x5000, 0x9000, 0x2000, 3);
  map(0x5000, 0x6000, 0, 4);
  EXPECT_EQ(at(0x5fff), "5000-6000+0 /lib/4");
  EXPECT_EQ(at(0x6000), "6000-9000+2000 /lib/3");
  EXPECT_EQ(at(0x8fff), "6000-9000+2000 /lib/3");
  EXPECT_EQ(text_of(older), "5000-9000+2000 /lib/3");
}

TEST_F(mapping_registry, mapping_over_several_and_part_of_another_erases_those_and_moves_the_last) {
  map(0x5000, 0x6000, 0, 3);
  map(0x6000, 0x7000, 0, 4);
  map(0x8000, 0x9000, 0, 5);
  map(0x9000, 0xc000, 0x3000, 6);
  map(0xd000, 0xe000, 0, 7);
  map(0x5000, 0xa000, 0, 8);
  for (const std::uint64_t address : {0x5000, 0x6000, 0x7000, 0x8000, 0x9fff}) {
    EXPECT_EQ(at(address), "5000-a000+0 /lib/8");
  }
  EXPECT_EQ(at(0xa000), "a000-c000+3000 /lib/6");
  EXPECT_EQ(at(0xd000), "d000-e000+0 /lib/7");
}

TEST_F(mapping_registry, mapping_that_begins_before_an_older_one_and_ends_inside_moves_it) {
  map(0x6000, 0x9000, 0x1000, 3);
  map(0x5000, 0x7000, 0, 4);
  EXPECT_EQ(at(0x6fff), "5000-7000+0 /lib/4");
  EXPECT_EQ(at(0x7000), "7000-9000+1000 /lib/3");
}

// Only what begins at or behind the new mapping is looked at.
TEST_F(mapping_registry, older_mapping_from_below_is_not_trimmed_and_is_hidden_by_the_new_one) {
  map(0x5000, 0xa000, 0, 3);
  map(0x6000, 0x7000, 0, 4);
  EXPECT_EQ(at(0x5fff), "5000-a000+0 /lib/3");
  EXPECT_EQ(at(0x6fff), "6000-7000+0 /lib/4");
  EXPECT_EQ(at(0x7000), "none");
}

TEST_F(mapping_registry, older_mapping_from_below_is_found_behind_one_that_was_mapped_over_and_moved_away) {
  map(0x5000, 0xa000, 0, 3);
  map(0x4000, 0x4800, 0, 4);
  EXPECT_EQ(at(0x4800), "none");
  EXPECT_EQ(at(0x9fff), "5000-a000+0 /lib/3");
}

TEST_F(mapping_registry, disjoint_mappings_leave_each_other_alone) {
  map(0x5000, 0x6000, 0, 3);
  map(0x9000, 0xa000, 0, 4);
  map(0x7000, 0x8000, 0, 5);
  EXPECT_EQ(at(0x5000), "5000-6000+0 /lib/3");
  EXPECT_EQ(at(0x6000), "none");
  EXPECT_EQ(at(0x7000), "7000-8000+0 /lib/5");
  EXPECT_EQ(at(0x9000), "9000-a000+0 /lib/4");
}

TEST_F(mapping_registry, segment_takes_the_name_that_its_descriptor_has_at_the_mapping) {
  registry.register_fd_name(3, "/lib/first");
  registry.register_mmap(0x5000, 0x6000, 0, read_and_execute, private_mapping, 3);
  registry.register_fd_name(3, "/lib/second");
  registry.register_mmap(0x7000, 0x8000, 0, read_and_execute, private_mapping, 3);
  EXPECT_EQ(at(0x5000), "5000-6000+0 /lib/first");
  EXPECT_EQ(at(0x7000), "7000-8000+0 /lib/second");
}

TEST_F(mapping_registry, descriptor_without_a_name_gives_a_segment_with_an_empty_one) {
  registry.register_mmap(0x5000, 0x6000, 0x40, read_and_execute, private_mapping, 17);
  EXPECT_EQ(at(0x5000), "5000-6000+40 ");
  EXPECT_EQ(registry.fd_name(17), "");
}

TEST_F(mapping_registry, ids_of_a_thousand_mappings_of_one_range_all_resolve) {
  std::vector<std::uint64_t> ids;
  for (std::uint64_t round = 0; round < 1000; ++round) ids.push_back(map(0x5000, 0x6000 + round * 0x1000, round, 3));
  for (std::uint64_t round = 0; round < ids.size(); ++round) {
    const mapping_segment segment = mappings_t::get_segment(ids[round]);
    ASSERT_EQ(segment.end, 0x6000 + round * 0x1000) << "round " << round;
    ASSERT_EQ(segment.offset, round);
    ASSERT_EQ(segment.name, "/lib/3");
  }
}

TEST_F(mapping_registry, log_tells_each_step_of_a_cut) {
  const log_capture log;
  const std::uint64_t older = map(0x5000, 0x9000, 0x2000, 3);
  const std::uint64_t newer = map(0x5000, 0x6000, 0, 4);
  registry.search_segment(0x10);
  registry.search_segment(0x9000);
  char older_id[80];
  char newer_id[80];
  std::snprintf(older_id, sizeof older_id, "debug id=%lx set to mapping with begin=5000", older);
  std::snprintf(newer_id, sizeof newer_id, "debug id=%lx set to mapping with begin=5000", newer);
  EXPECT_THAT(
      log.messages(),
      ElementsAre("debug Register mapping with begin=5000, end=9000, offset=8192, prot_flags=5, map_flags=2, "
                  "flags=3",
                  "debug Get name=/lib/3 for mapping begin at 5000", older_id,
                  "debug Lower bound return mapping with begin 0",
                  "debug Emplace mapping with begin=5000, that dont overlap other mappings",
                  "debug Register mapping with begin=5000, end=6000, offset=0, prot_flags=5, map_flags=2, "
                  "flags=4",
                  "debug Get name=/lib/4 for mapping begin at 5000", newer_id,
                  "debug Lower bound return mapping with begin 5000",
                  "debug Move begin=5000 of partial overlapped mapping to 6000",
                  "debug addr=10 is lower that any mapping", "debug addr=9000 is outside of mapping with end = 9000"));
}

TEST_F(mapping_registry, log_tells_of_an_erased_mapping) {
  map(0x5000, 0x6000, 0, 3);
  const log_capture log;
  map(0x5000, 0x6000, 0, 4);
  EXPECT_THAT(log.messages(), ::testing::Contains("debug Erase fully overlapped mapping with begin=5000"));
}

TEST_F(mapping_registry, what_replaces_code_leaves_what_is_left_of_it_on_both_sides) {
  map(0x5000, 0x9000, 0x1000, 3);
  registry.register_replaced(0x6000, 0x7000);
  EXPECT_EQ(at(0x5fff), "5000-6000+1000 /lib/3");
  EXPECT_EQ(at(0x6000), "none");
  EXPECT_EQ(at(0x6fff), "none");
  EXPECT_EQ(at(0x7000), "7000-9000+3000 /lib/3");
}

TEST_F(mapping_registry, what_replaces_several_mappings_cuts_the_first_and_the_last) {
  map(0x5000, 0x6000, 0, 3);
  map(0x6000, 0x7000, 0, 4);
  map(0x8000, 0xa000, 0, 5);
  registry.register_replaced(0x5800, 0x9000);
  EXPECT_EQ(at(0x5000), "5000-5800+0 /lib/3");
  EXPECT_EQ(at(0x6000), "none");
  EXPECT_EQ(at(0x8000), "none");
  EXPECT_EQ(at(0x9000), "9000-a000+1000 /lib/5");
}

TEST_F(mapping_registry, what_replaces_nothing_changes_nothing) {
  map(0x5000, 0x6000, 0, 3);
  registry.register_replaced(0x6000, 0x8000);
  registry.register_replaced(0x1000, 0x5000);
  EXPECT_EQ(at(0x5000), "5000-6000+0 /lib/3");
}

TEST_F(mapping_registry, replaced_code_keeps_its_record) {
  const std::uint64_t id = map(0x5000, 0x6000, 0x2000, 3);
  registry.register_replaced(0x5000, 0x6000);
  EXPECT_EQ(text_of(id), "5000-6000+2000 /lib/3");
}

}  // namespace
}  // namespace ceilmeter
