// Which level a memory row reads, by the caches that the kernel describes: those of known machines.
#include "benchmarks/row_sizes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "../support/scratch_folder.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t KIB = 1 << 10;
constexpr std::uint64_t MIB = 1 << 20;

TEST(misnamed_rows_test, a_machine_whose_caches_fit_the_names_has_none) {
  const std::vector<data_cache> caches = {{1, 32 * KIB, 1}, {2, 512 * KIB, 1}, {3, 2 * MIB, 4}};
  // With one thread 4 MiB is twice the last level.
  EXPECT_THAT(describe_misnamed_rows(caches, {1}), IsEmpty());
}

TEST(misnamed_rows_test, a_large_second_level_is_what_l3_reads_with_every_thread_count) {
  const std::vector<data_cache> caches = {{1, 64 * KIB, 1}, {2, 1 * MIB, 1}, {3, 32 * MIB, 64}};
  EXPECT_THAT(describe_misnamed_rows(caches, {1, 8, 9, 64}),
              ElementsAre("L3 reads L2 with a thread count of 1, 8, 9, 64", "DDR reads L3 with a thread count of 1, 8",
                          "DDR Numa-local reads L3 with a thread count of 1, 8"));
}

TEST(misnamed_rows_test, a_large_first_level_is_what_l2_reads) {
  EXPECT_THAT(describe_misnamed_rows({{1, 128 * KIB, 1}, {2, 700 * KIB, 1}, {3, 1 * MIB, 1}}, {4, 8}),
              ElementsAre("L2 reads L1"));
}

TEST(misnamed_rows_test, without_a_third_level_l3_reads_the_shared_second_one_until_that_is_full) {
  // Twelve processors share 8 MiB: 756 KiB each are room for ten.
  EXPECT_THAT(describe_misnamed_rows({{1, 64 * KIB, 1}, {2, 8 * MIB, 12}}, {1, 10, 11, 48}),
              ElementsAre("L3 reads memory with a thread count of 11, 48", "L3 reads L2 with a thread count of 1, 10",
                          "DDR reads L2 with a thread count of 1", "DDR Numa-local reads L2 with a thread count of 1"));
}

TEST(misnamed_rows_test, a_size_that_just_fits_is_in_the_cache_and_a_byte_less_is_not) {
  EXPECT_THAT(describe_misnamed_rows({{1, 80 * KIB, 1}, {2, 700 * KIB, 1}, {3, 756 * KIB, 1}}, {1}),
              ElementsAre("L2 reads L1"));
  EXPECT_THAT(describe_misnamed_rows({{1, 80 * KIB - 1, 1}, {2, 700 * KIB, 1}, {3, 756 * KIB, 1}}, {1}), IsEmpty());
}

TEST(misnamed_rows_test, without_caches_or_thread_counts_nothing_is_said) {
  EXPECT_THAT(describe_misnamed_rows({}, {1}), IsEmpty());
  EXPECT_THAT(describe_misnamed_rows({{1, MIB, 1}}, {}), IsEmpty());
}

class data_caches_test : public ::testing::Test {
 protected:
  void add(int index, const std::string& level, const std::string& type, const std::string& size,
           const std::string& shared) {
    const std::filesystem::path path = folder_ / ("index" + std::to_string(index));
    std::filesystem::create_directories(path);
    std::ofstream(path / "level") << level << "\n";
    std::ofstream(path / "type") << type << "\n";
    if (!size.empty()) std::ofstream(path / "size") << size << "\n";
    std::ofstream(path / "shared_cpu_list") << shared << "\n";
  }

  std::string described() const {
    std::string text;
    for (const data_cache& cache : read_data_caches(folder_.path())) {
      text += "L" + std::to_string(cache.level) + " " + std::to_string(cache.bytes) + "/" +
              std::to_string(cache.processors) + " ";
    }
    return text;
  }

  const scratch_folder folder_;
};

TEST_F(data_caches_test, those_of_data_are_read_with_size_and_sharers) {
  add(0, "1", "Data", "64K", "0");
  add(1, "1", "Instruction", "64K", "0");
  add(2, "2", "Unified", "1024K", "0-1,8");
  add(3, "3", "Unified", "32M", "0-63");
  EXPECT_EQ(described(), "L1 65536/1 L2 1048576/3 L3 33554432/64 ");
}

TEST_F(data_caches_test, a_cache_of_unknown_size_is_left_out) {
  add(0, "1", "Data", "", "0");
  add(1, "2", "Unified", "512K", "");
  EXPECT_EQ(described(), "L2 524288/1 ");
}

TEST_F(data_caches_test, a_machine_that_does_not_tell_has_none) { EXPECT_EQ(described(), ""); }

}  // namespace
}  // namespace ceilmeter::test
