// Earlier result files of every shape that a disk can hold: whoever asks for the damage first survives the reading.
#include "result_damage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <random>
#include <string>

#include "common/log.h"
#include "report_handler.h"
#include "scratch_file.h"

namespace ceilmeter::test {
namespace {

using ::testing::Optional;

constexpr const char* example = R"({
  "regions": {
    "total": {
      "flop": 4600, "threads": 2,
      "bbs": [
        ["400", "440", "400", "440", 4, 1000, 2, "/usr/bin/app"],
        ["7f0012340", "7f0012380", "12340", "12380", 6, 100, 1, "/usr/lib/libm.so.6"]
      ],
      "time": 123456789, "l1_bytes": 64, "l2_bytes": 32, "l3_bytes": 16, "dram_bytes": 8
    }
  },
  "bb_keys": ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"],
  "threads": 2,
  "roofs": [{"name": "L1", "value": 100, "measure": "GB/s", "is_compute": false}],
  "roofs_by_num_threads": {
    "1": [{"name": "L1", "value": 60, "measure": "GB/s", "is_compute": false}],
    "2": [{"name": "L1", "value": 100, "measure": "GB/s", "is_compute": true}]
  }
}
)";

std::string with_block(const std::string& block) {
  return "{\"regions\": {\"r\": {\"bbs\": [" + block + "]}}, \"threads\": 1}";
}

std::string with_roofs(const std::string& count) {
  return "{\"regions\": {}, \"roofs_by_num_threads\": {\"" + count + "\": []}}";
}

std::optional<std::string> fatal_damage(const std::string& text) {
  return find_fatal_result_damage(scratch_file(text).path());
}

TEST(result_damage, the_example_has_none) {
  const scratch_file file{std::string(example)};
  EXPECT_EQ(find_result_damage(file.path()), std::nullopt);
  EXPECT_EQ(find_fatal_result_damage(file.path()), std::nullopt);
  EXPECT_EQ(read(file.path()).regions.size(), 1U);
}

TEST(result_damage, block_without_a_module_is_fatal) {
  for (const std::string module : {"8", "null", "[]", "{}", "true", "1.5"}) {
    EXPECT_THAT(fatal_damage(with_block("[\"1\", \"2\", \"3\", \"4\", 5, 6, 7, " + module + "]")),
                Optional(std::string("a block without a module")))
        << module;
  }
}

TEST(result_damage, roofs_of_a_count_that_is_no_number_are_fatal) {
  for (const std::string count : {"", "many", "99999999999999999999", "-", " "}) {
    EXPECT_THAT(fatal_damage(with_roofs(count)), Optional(std::string("roofs without a number of threads"))) << count;
  }
}

TEST(result_damage, nesting_that_a_reader_cannot_follow_is_fatal) {
  for (const char* opening : {"[", "{\"a\":"}) {
    std::string text;
    for (int level = 0; level < 1'000'000; ++level) text += opening;
    EXPECT_THAT(fatal_damage(text), Optional(std::string("nested too deep")));
    const scratch_file file(text);
    EXPECT_THAT(find_result_damage(file.path()), Optional(std::string("nested too deep")));
  }
}

TEST(result_damage, what_the_reader_takes_as_far_as_it_goes_is_not_fatal) {
  for (const std::string& text : {std::string("[1, 2]"), std::string("nonsense"), std::string("{\"regions\""),
                                  std::string("\0\0\0\0", 4), std::string("\xff\xfe{}"), with_block("[\"1\"]"),
                                  with_roofs("2 "), std::string("3"), std::string("\"text\"")}) {
    EXPECT_EQ(fatal_damage(text), std::nullopt) << text;
  }
}

TEST(result_damage, missing_file_folder_and_pipe_have_none_and_are_not_waited_for) {
  const scratch_file file;
  const std::string pipe = file.path() + ".pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path : {file.path(), file.path() + ".missing", std::string("/tmp"), pipe}) {
    EXPECT_EQ(find_result_damage(path), std::nullopt) << path;
    EXPECT_EQ(find_fatal_result_damage(path), std::nullopt) << path;
  }
  unlink(pipe.c_str());
}

// Cuts, and bytes, pieces and values put in others' places.
std::string mutated(std::mt19937_64& random, std::string text) {
  static const std::string pieces[] = {"null",
                                       "[",
                                       "]",
                                       "{",
                                       "}",
                                       "\"",
                                       "\\",
                                       ",",
                                       "-1",
                                       "99999999999999999999",
                                       "1e9",
                                       "7",
                                       "8",
                                       "\n",
                                       "[]",
                                       "{}",
                                       "0",
                                       "true",
                                       std::string(1, '\0'),
                                       "\xff"};
  const auto below = [&random](std::size_t bound) { return bound == 0 ? 0 : random() % bound; };
  for (std::size_t change = 1 + below(3); change > 0; --change) {
    const std::size_t place = below(text.size() + 1);
    const std::string& piece = pieces[below(std::size(pieces))];
    const std::size_t quote = text.find('"', place);
    const std::size_t end = quote == text.npos ? text.npos : text.find('"', quote + 1);
    switch (below(7)) {
      case 0: text.resize(place); break;
      case 1: text.insert(place, piece); break;
      case 2: text.replace(place, below(12), piece); break;
      case 3: text.erase(place, below(40)); break;
      case 5:  // A value of another type in a text's place.
        if (end != text.npos) text.replace(quote, end + 1 - quote, piece);
        break;
      case 4: text.insert(place, text.substr(below(text.size() + 1), below(80))); break;
      default:
        if (place < text.size()) text[place] = static_cast<char>(random());
    }
  }
  return text;
}

TEST(result_damage, three_thousand_damaged_files_are_read_or_refused) {
  constexpr std::uint64_t seed = 20;
  const int level = mora_log_get_level();
  mora_log_set_level(LEVEL_FATAL);
  std::mt19937_64 random(seed);
  int refused = 0;
  int with_regions = 0;
  for (int round = 0; round < 3000; ++round) {
    const scratch_file file(mutated(random, example));
    SCOPED_TRACE("round " + std::to_string(round) + ":\n" + file.text());
    if (find_fatal_result_damage(file.path())) {
      EXPECT_NE(find_result_damage(file.path()), std::nullopt);
      ++refused;
      continue;
    }
    ASSERT_NO_THROW(with_regions += read(file.path()).regions.empty() ? 0 : 1);
  }
  mora_log_set_level(level);
  EXPECT_GT(refused, 10);
  EXPECT_GT(with_regions, 500);
}

}  // namespace
}  // namespace ceilmeter::test
