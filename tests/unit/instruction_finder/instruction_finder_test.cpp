// Reading words from files of a folder of the test's own.
#include "instruction_finder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "../support/log_capture.h"
#include "../support/scratch_folder.h"

namespace ceilmeter {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

constexpr std::uint32_t untouched = 0xabababab;

class finding_instructions : public ::testing::Test {
 protected:
  finding_instructions() { buffer.fill(untouched); }

  // A file whose word i is 1000 + i.
  std::string make_module(const std::string& name, std::size_t words) const {
    const std::string path = folder / name;
    std::ofstream stream(path, std::ios::binary);
    for (std::uint32_t word = 1000; word < 1000 + words; ++word) {
      stream.write(reinterpret_cast<const char*>(&word), sizeof word);
    }
    return path;
  }

  bool read(const std::string& module, std::uint64_t start, std::uint64_t end) {
    return finder.get_basic_block_instruction_code(buffer.data(), module, start, end);
  }

  std::vector<std::uint32_t> words(std::size_t count) const { return {buffer.begin(), buffer.begin() + count}; }

  static std::vector<std::uint32_t> counted_from(std::uint32_t first, std::size_t count) {
    std::vector<std::uint32_t> result;
    for (std::size_t index = 0; index < count; ++index) result.push_back(first + static_cast<std::uint32_t>(index));
    return result;
  }

  const test::scratch_folder folder;
  instruction_finder finder;
  std::array<std::uint32_t, max_basic_block_size> buffer;
};

TEST_F(finding_instructions, block_is_read_from_its_offset) {
  const std::string module = make_module("module", 100);
  ASSERT_TRUE(read(module, 40, 52));
  EXPECT_EQ(words(4), (std::vector<std::uint32_t>{1010, 1011, 1012, untouched}));
}

TEST_F(finding_instructions, exactly_64_words_are_read) {
  const std::string module = make_module("module", 100);
  ASSERT_TRUE(read(module, 4, 260));
  EXPECT_EQ(words(64), counted_from(1001, 64));
}

TEST_F(finding_instructions, trailing_bytes_up_to_259_are_left_out) {
  const std::string module = make_module("module", 100);
  for (const std::uint64_t size : {257, 258, 259}) {
    buffer.fill(untouched);
    ASSERT_TRUE(read(module, 0, size)) << size;
    EXPECT_EQ(words(64), counted_from(1000, 64)) << size;
  }
}

TEST_F(finding_instructions, block_of_260_bytes_is_refused_with_its_length_in_the_log) {
  const std::string module = make_module("module", 100);
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(module, 0, 260));
  EXPECT_THAT(log.messages(), ElementsAre("warn Basic block length=65 is more that max_basic_block_size=64", ""));
  EXPECT_THAT(buffer, Each(untouched));
}

TEST_F(finding_instructions, end_before_start_is_refused) {
  const std::string module = make_module("module", 100);
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(module, 8, 0));
}

TEST_F(finding_instructions, range_shorter_than_a_word_reads_nothing_and_succeeds) {
  const std::string module = make_module("module", 100);
  EXPECT_TRUE(read(module, 8, 11));
  EXPECT_TRUE(read(module, 8, 8));
  EXPECT_THAT(buffer, Each(untouched));
}

TEST_F(finding_instructions, range_shorter_than_a_word_of_a_missing_file_fails) {
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(folder / "absent", 8, 11));
}

TEST_F(finding_instructions, empty_module_name_fails_to_become_canonical) {
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read("", 0, 4));
  // The second line is the text that the C library has for the error.
  EXPECT_THAT(log.messages(), ElementsAre("warn Failed to make canonical from ", ::testing::_));
}

TEST_F(finding_instructions, removed_module_fails_to_become_canonical) {
  const std::string module = make_module("module", 100);
  std::filesystem::remove(module);
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(module, 0, 4));
  EXPECT_THAT(log.messages(), ElementsAre("warn Failed to make canonical from " + module, "No such file or directory"));
}

TEST_F(finding_instructions, file_that_has_shrunk_fails_with_the_words_read) {
  const std::string module = make_module("module", 100);
  ASSERT_EQ(truncate(module.c_str(), 4 * 12), 0);
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(module, 40, 80));
  EXPECT_THAT(log.messages(), ElementsAre("warn Failed to fread basic block in file " + module +
                                          ", offset 40, basic_block_size=10, ret=2, err=Success"));
}

TEST_F(finding_instructions, file_can_be_read_again_after_a_read_beyond_its_end) {
  const std::string module = make_module("module", 12);
  {
    const log_capture log(LEVEL_WARN);
    EXPECT_FALSE(read(module, 40, 80));
  }
  ASSERT_TRUE(read(module, 0, 8));
  EXPECT_EQ(words(2), counted_from(1000, 2));
}

TEST_F(finding_instructions, offset_that_no_file_can_have_fails_to_be_sought) {
  const std::string module = make_module("module", 12);
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(module, 0x8000000000000000, 0x8000000000000004));
  EXPECT_THAT(log.messages(), ElementsAre("warn Failed to fseek on file " + module, "Invalid argument", ""));
}

TEST_F(finding_instructions, folder_in_place_of_a_module_fails) {
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(folder.path(), 0, 4));
  EXPECT_FALSE(log.messages().empty());
}

TEST_F(finding_instructions, module_is_opened_once) {
  const std::string module = make_module("module", 100);
  const log_capture log(LEVEL_DEBUG);
  EXPECT_TRUE(read(module, 0, 4));
  EXPECT_TRUE(read(module, 4, 8));
  EXPECT_THAT(log.messages(), ElementsAre("debug Try to open file " + std::filesystem::canonical(module).string()));
}

TEST_F(finding_instructions, path_with_a_symbolic_link_and_its_target_share_one_stream) {
  const std::string module = make_module("module", 100);
  std::filesystem::create_symlink("module", folder / "link");
  EXPECT_EQ(finder.open_file_impl(folder / "link"), finder.open_file_impl(module));
  EXPECT_EQ(finder.open_file_impl(folder / "./module"), finder.open_file_impl(module));
}

TEST_F(finding_instructions, words_are_the_files_wherever_blocks_lie) {
  const std::size_t words = 300000;
  const std::string first = make_module("first", words);
  const std::string second = make_module("second", words / 2);
  std::uint64_t place = 1;
  for (int round = 0; round < 3000; ++round) {
    place = place * 6364136223846793005 + 1442695040888963407;
    const bool is_first = (place >> 61 & 1) != 0;
    const std::uint64_t index = (place >> 20) % (words / 2 - 64);
    ASSERT_TRUE(read(is_first ? first : second, 4 * index, 4 * index + 256)) << index;
    ASSERT_EQ(buffer[0], 1000 + index);
    ASSERT_EQ(buffer[63], 1063 + index);
  }
}

TEST_F(finding_instructions, last_block_of_a_file_is_read_and_the_next_word_is_not) {
  const std::string module = make_module("module", 1024 + 10);
  ASSERT_TRUE(read(module, 4 * 1014, 4 * 1034));
  EXPECT_EQ(words(20), counted_from(2014, 20));
  const log_capture log(LEVEL_WARN);
  EXPECT_FALSE(read(module, 4 * 1014, 4 * 1035));
}

TEST_F(finding_instructions, words_beside_those_of_the_last_call_are_at_hand) {
  const std::string module = make_module("module", 5000);
  const int file = 0;
  const int other = 0;
  EXPECT_EQ(finder.words_at_hand(&file, 8192, 8200), nullptr);
  ASSERT_NE(finder.find_words(module, 8192 + 40, 8192 + 48, &file), nullptr);
  const std::uint32_t* words = finder.words_at_hand(&file, 8192, 8192 + 4096);
  ASSERT_NE(words, nullptr);
  EXPECT_EQ(words[0], 1000U + 2048);
  EXPECT_EQ(words[1023], 1000U + 2048 + 1023);
  EXPECT_EQ(*finder.words_at_hand(&file, 8192 + 400, 8192 + 404), 1000U + 2048 + 100);
  EXPECT_EQ(finder.words_at_hand(&file, 8188, 8200), nullptr) << "begins in front of them";
  EXPECT_EQ(finder.words_at_hand(&file, 8192, 8192 + 4096 + 260), nullptr) << "ends behind them";
  EXPECT_EQ(finder.words_at_hand(&file, 8200, 8196), nullptr) << "ends in front of its start";
  EXPECT_EQ(finder.words_at_hand(&other, 8192, 8200), nullptr);
  ASSERT_NE(finder.find_words(module, 0, 8), nullptr);
  EXPECT_EQ(finder.words_at_hand(&file, 8192, 8200), nullptr) << "the last call was for another";
  EXPECT_EQ(finder.words_at_hand(nullptr, 0, 8), nullptr);
}

TEST_F(finding_instructions, nothing_behind_the_end_of_a_file_is_at_hand) {
  const std::string module = make_module("module", 12);
  const int file = 0;
  ASSERT_NE(finder.find_words(module, 0, 8, &file), nullptr);
  EXPECT_NE(finder.words_at_hand(&file, 0, 48), nullptr);
  EXPECT_EQ(finder.words_at_hand(&file, 0, 52), nullptr);
}

// What is missing is looked for again in the file, not in what was read of it.
TEST_F(finding_instructions, file_that_has_grown_is_read_further) {
  const std::string module = make_module("module", 12);
  ASSERT_TRUE(read(module, 0, 48));
  make_module("module", 20);
  ASSERT_TRUE(read(module, 40, 80));
  EXPECT_EQ(words(10), counted_from(1010, 10));
}

TEST_F(finding_instructions, two_files_have_two_streams) {
  const std::string first = make_module("first", 10);
  const std::string second = make_module("second", 20);
  EXPECT_NE(finder.open_file_impl(first), finder.open_file_impl(second));
  ASSERT_TRUE(read(second, 60, 64));
  EXPECT_EQ(buffer[0], 1015U);
}

TEST_F(finding_instructions, failed_open_is_repeated_and_succeeds_when_the_file_is_there) {
  const std::string module = folder / "module";
  // The name of a socket is a canonical path, but nobody can open it.
  std::filesystem::create_directory(folder / "away");
  ASSERT_EQ(mknod(module.c_str(), S_IFSOCK | 0600, 0), 0);
  {
    const log_capture log(LEVEL_DEBUG);
    EXPECT_FALSE(read(module, 0, 4));
    EXPECT_FALSE(read(module, 0, 4));
    const std::string canonical = std::filesystem::canonical(module);
    EXPECT_THAT(log.messages(), ElementsAre("debug Try to open file " + canonical, "warn Failed to open " + module,
                                            "No such device or address", "", "debug Try to open file " + canonical,
                                            "warn Failed to open " + module, "No such device or address", ""));
  }
  std::filesystem::remove(module);
  make_module("module", 10);
  EXPECT_TRUE(read(module, 0, 4));
}

TEST_F(finding_instructions, names_with_blanks_and_other_letters_are_opened) {
  const std::string module = make_module("a module with blänks", 10);
  ASSERT_TRUE(read(module, 0, 4));
  EXPECT_EQ(buffer[0], 1000U);
}

TEST(instruction_finder_life, all_streams_are_closed_with_it) {
  const test::scratch_folder folder;
  const auto open_files = [] {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
  };
  const std::size_t before = open_files();
  {
    instruction_finder finder;
    for (int index = 0; index < 20; ++index) {
      const std::string module = folder / std::to_string(index);
      std::ofstream(module) << "word";
      ASSERT_NE(finder.open_file_impl(module), nullptr);
    }
    EXPECT_EQ(open_files(), before + 20);
  }
  EXPECT_EQ(open_files(), before);
}

}  // namespace
}  // namespace ceilmeter
