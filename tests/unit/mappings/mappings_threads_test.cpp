// All tables of the registry at once, with writers and readers on several threads. ThreadSanitizer checks the accesses,
// the assertions check what is found.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "../support/on_threads.h"
#include "mappings.h"

namespace ceilmeter {
namespace {

using test::on_threads;

constexpr std::int64_t read_and_execute = 5;
constexpr std::int64_t private_mapping = 2;
constexpr int thread_count = 4;
constexpr std::uint64_t shared_begin = 0x10000;

TEST(registry_under_threads, descriptors_of_all_threads_are_kept_while_the_table_grows) {
  constexpr std::int32_t per_thread = 2000;
  fd_name_table table;
  on_threads(thread_count, [&table](int number) {
    for (std::int32_t index = 0; index < per_thread; ++index) {
      const std::int32_t fd = index * thread_count + number;
      table.insert_or_assign(fd, "/fd/" + std::to_string(fd));
      const std::int32_t earlier = (index / 2) * thread_count + number;
      ASSERT_EQ(table.find(earlier), "/fd/" + std::to_string(earlier));
    }
  });
  for (std::int32_t fd = 0; fd < per_thread * thread_count; ++fd) {
    ASSERT_EQ(table.find(fd), "/fd/" + std::to_string(fd));
  }
}

TEST(registry_under_threads, one_descriptor_named_by_all_threads_has_one_of_the_names_whole) {
  fd_name_table table;
  table.insert_or_assign(7, std::string(100, 'x'));
  on_threads(thread_count, [&table](int number) {
    for (int round = 0; round < 2000; ++round) {
      table.insert_or_assign(7, std::string(100 + static_cast<std::size_t>(number), static_cast<char>('a' + number)));
      const std::string found = table.find(7);
      ASSERT_GE(found.size(), 100U);
      ASSERT_EQ(found, std::string(found.size(), found[0]));
    }
  });
}

TEST(registry_under_threads, every_thread_finds_its_own_mappings_while_others_map) {
  mappings_t registry;
  on_threads(thread_count, [&registry](int number) {
    const std::uint64_t home = (static_cast<std::uint64_t>(number) + 1) << 32;
    const std::string name = "/lib/thread" + std::to_string(number);
    std::vector<std::uint64_t> ids;
    for (std::uint64_t round = 0; round < 500; ++round) {
      const std::uint64_t begin = home + round % 50 * 0x10000;
      registry.register_fd_name(number, name);
      registry.register_mmap(begin, begin + 0x2000, round, read_and_execute, private_mapping, number);
      const std::uint64_t id = registry.search_segment(begin + 0x1fff);
      ASSERT_NE(id, 0U);
      ids.push_back(id);
      ASSERT_EQ(mappings_t::get_segment(id).offset, round);
      ASSERT_EQ(registry.fd_name(number), name);
    }
    for (std::uint64_t round = 0; round < ids.size(); ++round) {
      const mapping_segment segment = mappings_t::get_segment(ids[round]);
      ASSERT_EQ(segment.offset, round);
      ASSERT_EQ(segment.name, name);
    }
  });
}

TEST(registry_under_threads, readers_see_one_or_the_other_of_two_mappings_that_replace_each_other) {
  mappings_t registry;
  registry.register_fd_name(1, "one");
  registry.register_fd_name(2, "two");
  registry.register_mmap(shared_begin, shared_begin + 0x4000, 1, read_and_execute, private_mapping, 1);
  on_threads(thread_count, [&registry](int number) {
    for (int round = 0; round < 500; ++round) {
      if (number < 2) {
        registry.register_mmap(shared_begin, shared_begin + 0x4000, static_cast<std::uint64_t>(number) + 1,
                               read_and_execute, private_mapping, number + 1);
      } else {
        const mapping_segment segment = mappings_t::get_segment(registry.search_segment(shared_begin + 0x1000));
        ASSERT_EQ(segment.begin, shared_begin);
        ASSERT_EQ(segment.name, segment.offset == 1 ? "one" : "two");
      }
    }
  });
}

}  // namespace
}  // namespace ceilmeter
