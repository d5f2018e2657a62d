#include "view/read_result.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "hand_made.h"

namespace ceilmeter::view {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

result_file read_good(const std::string& text) {
  const read_outcome outcome = parse_result("a/b.roofline.json", text);
  EXPECT_TRUE(outcome.ok) << outcome.error;
  return outcome.result;
}

std::string error_of(const std::string& text) {
  const read_outcome outcome = parse_result("f.json", text);
  EXPECT_FALSE(outcome.ok);
  return outcome.error;
}

TEST(read_result, every_figure_of_a_whole_file_is_read) {
  const result_file file = committed("all_phases");
  ASSERT_EQ(file.regions.size(), 3U) << file.path;
  EXPECT_EQ(file.threads, 4);
  const region& solve = file.regions[1];
  EXPECT_EQ(solve.name, "solve");
  EXPECT_EQ(solve.flop, 9600000000);
  EXPECT_EQ(solve.threads, 4);
  EXPECT_EQ(solve.time, 500000000);
  EXPECT_THAT(solve.bytes, ElementsAre(100000000000, 20000000000, 4000000000, 16000000000));
  ASSERT_EQ(solve.blocks.size(), 2U);
  EXPECT_EQ(solve.blocks[0].start, 0x400000U);
  EXPECT_EQ(solve.blocks[0].dump_end, 0x20U);
  EXPECT_EQ(solve.blocks[0].executions, 2000000000);
  EXPECT_EQ(solve.blocks[0].elements, 2);
  EXPECT_THAT(file.modules, ElementsAre("/home/user/app"));
  EXPECT_EQ(file.root_roofs.size(), 13U);
  ASSERT_EQ(file.roofs.size(), 2U);
  EXPECT_EQ(file.roofs[0].threads, 1U);
  EXPECT_EQ(file.roofs[1].threads, 4U);
  EXPECT_TRUE(file.notes.empty());
}

TEST(read_result, label_is_the_last_part_of_the_path_without_its_endings) {
  EXPECT_EQ(read_good(R"({"regions":{}})").label, "b");
}

TEST(read_result, absent_figure_is_not_a_zero) {
  const result_file file = read_good(R"({"regions":{"r":{"flop":0,"l1_bytes":0}}})");
  EXPECT_EQ(file.regions[0].flop, 0);
  EXPECT_EQ(file.regions[0].bytes[0], 0);
  EXPECT_EQ(file.regions[0].bytes[3], std::nullopt);
  EXPECT_EQ(file.regions[0].time, std::nullopt);
  EXPECT_EQ(file.regions[0].threads, std::nullopt);
  EXPECT_EQ(file.threads, std::nullopt);
}

TEST(read_result, largest_and_smallest_integers_are_exact) {
  const result_file file = read_good(R"({"regions":{"r":{"flop":9223372036854775807,"time":-9223372036854775808}}})");
  EXPECT_EQ(file.regions[0].flop, INT64_MAX);
  EXPECT_EQ(file.regions[0].time, INT64_MIN);
}

TEST(read_result, figure_of_a_wrong_type_is_absent_and_told) {
  const result_file file = read_good(R"({"regions":{"r":{"flop":1.5,"time":"7"}}})");
  EXPECT_EQ(file.regions[0].flop, std::nullopt);
  EXPECT_EQ(file.regions[0].time, std::nullopt);
  EXPECT_THAT(file.notes, ElementsAre(HasSubstr("2 figures of a wrong type")));
}

TEST(read_result, regions_of_one_name_are_all_kept) {
  EXPECT_EQ(read_good(R"({"regions":{"r":{"flop":1},"r":{"flop":2}}})").regions.size(), 2U);
}

TEST(read_result, position_of_a_block_s_field_is_the_one_that_bb_keys_gives) {
  const result_file file = read_good(
      R"({"bb_keys":["module","vector_length","count","flop","dump_end","dump_start","end","start"],
          "regions":{"r":{"bbs":[["/m",4,3,2,"20","10","1f","f"]]}}})");
  ASSERT_EQ(file.regions[0].blocks.size(), 1U);
  const block& one = file.regions[0].blocks[0];
  EXPECT_EQ(one.start, 0xFU);
  EXPECT_EQ(one.flop, 2);
  EXPECT_EQ(one.executions, 3);
  EXPECT_EQ(one.elements, 4);
  EXPECT_EQ(file.modules[one.module], "/m");
}

TEST(read_result, blocks_that_cannot_be_read_are_left_out_and_counted) {
  const result_file file = read_good(
      R"({"regions":{"r":{"bbs":[7,[],["1","2","3","4",5,6,7],["1","2","3","4",5,6,7,8],["x","2","3","4",5,6,7,"/m"],
          ["1","2","3","4",5,6,2147483648,"/m"],["1","2","3","4",5,6,7,"/m"]]}}})");
  EXPECT_EQ(file.regions[0].blocks.size(), 1U);
  EXPECT_THAT(file.notes, ElementsAre(HasSubstr("6 blocks that cannot be read")));
}

TEST(read_result, root_s_roofs_stand_for_its_thread_count_in_an_older_file) {
  const result_file file =
      read_good(R"({"threads":8,"roofs":[{"name":"L1","value":5,"measure":"GB/s","is_compute":false}]})");
  ASSERT_EQ(file.roofs.size(), 1U);
  EXPECT_EQ(file.roofs[0].threads, 8U);
  EXPECT_EQ(file.roofs[0].roofs[0].name, "L1");
}

TEST(read_result, thread_counts_are_in_rising_order_and_words_are_left_out) {
  const result_file file = read_good(R"({"roofs_by_num_threads":{"16":[],"two":[],"2":[],"-1":[]}})");
  ASSERT_EQ(file.roofs.size(), 2U);
  EXPECT_EQ(file.roofs[0].threads, 2U);
  EXPECT_EQ(file.roofs[1].threads, 16U);
  EXPECT_THAT(file.notes, ElementsAre(HasSubstr("2 roofs that cannot be read")));
}

TEST(read_result, names_that_are_not_utf_8_are_made_so) {
  EXPECT_EQ(read_good("{\"regions\":{\"a\xFFz\":{}}}").regions[0].name, "a\xEF\xBF\xBDz");
}

TEST(read_result, byte_order_mark_is_skipped) { EXPECT_TRUE(parse_result("f", "\xEF\xBB\xBF{\"regions\":{}}").ok); }

TEST(read_result, what_is_no_result_file_is_refused) {
  EXPECT_THAT(error_of("[1]"), StartsWith("f.json:1: the document is no object"));
  EXPECT_THAT(error_of("{\"a\":1}"), HasSubstr("neither regions nor roofs"));
  EXPECT_THAT(error_of("{\"regions\":[]}"), HasSubstr("\"regions\" is no object"));
  EXPECT_THAT(error_of(""), HasSubstr("the file is empty"));
  EXPECT_THAT(error_of(" \n"), HasSubstr("the file is empty"));
}

TEST(read_result, cut_file_is_told_with_its_line) {
  EXPECT_THAT(error_of("{\n\"regions\": {\n\"r\": {"), StartsWith("f.json:3: the file ends too early"));
  EXPECT_THAT(error_of("{\n\"regions\": {\n\"r"), StartsWith("f.json:3: the file ends inside a string"));
}

TEST(read_result, quote_in_a_name_is_told_as_the_likely_reason) {
  EXPECT_THAT(error_of("{\"regions\":{\n\"r\":{\"bbs\":[[\"1\",\"2\",\"3\",\"4\",5,6,7,\"/a\"b\"]]}}}"),
              testing::AllOf(StartsWith("f.json:2: "), HasSubstr("a double quote in a path")));
  EXPECT_THAT(error_of("{\"regions\":{\"so\"lve\":{}}}"), HasSubstr("a double quote in a path"));
  EXPECT_THAT(error_of("{\"regions\":{\"a\\c\":{}}}"), HasSubstr("a backslash in a path"));
  EXPECT_THAT(error_of("{\"regions\":{},\n5}"), testing::Not(HasSubstr("double quote")));
}

TEST(read_result, nul_byte_is_told_and_one_behind_the_document_does_no_harm) {
  EXPECT_THAT(error_of(std::string("{\"regions\":\n{\0}}", 16)), StartsWith("f.json:2: a NUL byte"));
  EXPECT_TRUE(parse_result("f", std::string("{\"regions\":{}}\0\0", 16)).ok);
}

TEST(read_result, nesting_is_read_to_the_stated_depth_and_refused_beyond) {
  const auto nested = [](std::size_t depth) {
    return "{\"regions\":{},\"x\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
  };
  EXPECT_TRUE(parse_result("f", nested(max_nesting)).ok);
  EXPECT_THAT(error_of(nested(max_nesting + 1)), HasSubstr("nested deeper than 64 levels"));
  EXPECT_THAT(error_of(std::string(3'000'000, '[')), HasSubstr("nested deeper"));
}

TEST(read_result, brackets_in_strings_do_not_nest) {
  EXPECT_TRUE(parse_result("f", "{\"regions\":{\"" + std::string(500, '[') + "\":{}}}").ok);
}

TEST(read_result, file_that_is_not_there_is_told_without_a_line) {
  const read_outcome outcome = read_result("/nowhere/f.json");
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "/nowhere/f.json: No such file or directory");
  EXPECT_THAT(read_result("/").error, HasSubstr("Is a directory"));
}

}  // namespace
}  // namespace ceilmeter::view
