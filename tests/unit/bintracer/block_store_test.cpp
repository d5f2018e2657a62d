// The blocks of a thread: found again by their starts, in order, where they were.
#include "bintracer/block_store.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ceilmeter::test {
namespace {

std::vector<std::uint64_t> starts_of(block_store& store) {
  std::vector<std::uint64_t> starts;
  store.for_each([&starts](const bb_record& record) { starts.push_back(record.start); });
  return starts;
}

TEST(block_store, of_a_new_thread_is_empty) {
  block_store store;
  EXPECT_EQ(store.find(0x1000), nullptr);
  EXPECT_EQ(store.size(), 0U);
  EXPECT_TRUE(starts_of(store).empty());
}

TEST(block_store, added_block_begins_with_zeros_and_its_start) {
  block_store store;
  const bb_record& record = store.add(0x1000).record;
  EXPECT_EQ(record.start, 0x1000U);
  EXPECT_EQ(record.count, 0U);
  EXPECT_EQ(record.end, 0U);
  EXPECT_EQ(record.map_seg_id, 0U);
  EXPECT_EQ(record.code, nullptr);
  EXPECT_EQ(&store.find(0x1000)->record, &record);
  EXPECT_EQ(store.find(0x1004), nullptr);
}

TEST(block_store, newest_of_several_blocks_of_one_start_is_found_and_knows_the_older_ones) {
  block_store store;
  bb_node& first = store.add(0x1000);
  bb_node& second = store.add(0x1000);
  EXPECT_EQ(store.find(0x1000), &second);
  EXPECT_EQ(second.older, &first);
  EXPECT_EQ(first.older, nullptr);
  EXPECT_EQ(store.size(), 1U);
  EXPECT_EQ(starts_of(store), (std::vector<std::uint64_t>{0x1000, 0x1000}));
}

TEST(block_store, hundred_thousand_blocks_stay_where_they_are_and_come_newest_first) {
  block_store store;
  std::vector<bb_node*> nodes;
  const std::uint64_t count = 100000;
  for (std::uint64_t index = 0; index < count; ++index) {
    nodes.push_back(&store.add(0x400000 + 20 * index));
    nodes.back()->record.count = index;
  }
  ASSERT_EQ(store.size(), count);
  for (std::uint64_t index = 0; index < count; ++index) {
    ASSERT_EQ(store.find(0x400000 + 20 * index), nodes[index]);
    ASSERT_EQ(nodes[index]->record.count, index);
    ASSERT_EQ(store.find(0x400004 + 20 * index), nullptr);
  }
  std::uint64_t expected = count;
  store.for_each([&expected](const bb_record& record) { ASSERT_EQ(record.count, --expected); });
  EXPECT_EQ(expected, 0U);
}

// The application's stack may lie there.
TEST(block_store, memory_above_the_blocks_cannot_be_written) {
  block_store store;
  char* const first = reinterpret_cast<char*>(&store.add(0x1000));
  char* const end = first + 0x10000 - reinterpret_cast<std::uintptr_t>(first) % 0x1000;
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  ASSERT_EQ(write(pipe_ends[1], "a", 1), 1);
  EXPECT_EQ(read(pipe_ends[0], end, 1), -1);  // The kernel finds out without a fault.
  EXPECT_EQ(errno, EFAULT);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

// An application may have used up, or given away, the memory that the kernel lets it have. The heap may have a rest.
TEST(block_store, takes_the_heaps_memory_where_the_kernel_has_none) {
  block_store store;
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &old), 0);
  void* const rest = ::operator new(100000);  // Below the size from which the heap asks the kernel.
  std::memset(rest, 1, 100000);
  ::operator delete(rest);
  const rlimit none = {0, old.rlim_max};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's heap does not live with such a limit";
#endif
  if (setrlimit(RLIMIT_AS, &none) != 0) GTEST_SKIP() << "no limit can be set";
  for (std::uint64_t index = 0; index < 200; ++index) store.add(0x1000 + 4 * index);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &old), 0);
  EXPECT_EQ(store.size(), 200U);
  for (std::uint64_t index = 0; index < 200; ++index) EXPECT_NE(store.find(0x1000 + 4 * index), nullptr);
}

}  // namespace
}  // namespace ceilmeter::test
