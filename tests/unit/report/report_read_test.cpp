// What becomes of a result file that is read: whole ones, foreign ones and broken ones, with the lines in the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "../support/log_capture.h"
#include "report_handler.h"
#include "report_text.h"
#include "scratch_file.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* no_metrics = "  ddr_bytes 0\n  l2_bytes 0\n  time 0\n  l3_bytes 0\n  l1_bytes 0\n";

// What a read of one text gives and logs. `%` in an expected message stands for the file's path.
struct read_result {
  collector_report report;
  std::vector<std::string> messages;

  std::string words() const { return in_words(report); }
};

read_result read_text(const std::string& text, int level = LEVEL_WARN) {
  const scratch_file file(text);
  const log_capture log(level);
  read_result result{read(file.path()), log.messages()};
  for (std::string& message : result.messages) {
    const auto place = message.find(file.path());
    if (place != std::string::npos) message.replace(place, file.path().size(), "%");
  }
  return result;
}

// A parsed text with its tree.
class document {
 public:
  explicit document(const char* text) { json_parse(text, &document_); }
  document(const document&) = delete;
  document& operator=(const document&) = delete;
  ~document() { json_document_free(document_); }

  json_token* root() const { return json_document_root(document_); }

 private:
  json_document* document_ = nullptr;
};

// ---- Whole files ----

TEST(read, of_a_whole_file_gives_every_field) {
  const read_result result = read_text(R"({
  "regions": {
    "solve": {
      "flop": 100,
      "threads": 3,
      "bbs": [ ["400abc", "400AC8", "abc", "ac8", 4, 25, 2, "/usr/bin/solver"] ],
      "l1_bytes": 1, "l2_bytes": 2, "l3_bytes": 3, "ddr_bytes": 4, "time": 5
    }
  },
  "bb_keys": [ "start" ],
  "threads": 4,
  "roofs": [ {"name": "not read"} ],
  "roofs_by_num_threads": {
    "4": [ {"name": "L1", "value": 123, "measure": "B/s", "is_compute": false},
           {"name": "FP64 FMA", "value": 456, "measure": "FLOP/s", "is_compute": true} ]
  }
})");
  EXPECT_EQ(result.words(),
            "threads 4\n"
            "region solve flop 100 threads 3\n"
            "  block 400abc-400ac8 file abc-ac8 flop 4 count 25 vector 2 in /usr/bin/solver\n"
            "  ddr_bytes 4\n  l2_bytes 2\n  time 5\n  l3_bytes 3\n  l1_bytes 1\n"
            "roofs of 4\n"
            "  L1 123 B/s memory\n"
            "  FP64 FMA 456 FLOP/s compute\n");
  EXPECT_THAT(result.messages, IsEmpty());
}

TEST(read, keeps_the_regions_in_the_files_order) {
  const read_result result = read_text(R"({"regions": {"z": {}, "a": {}, "z": {}}})");
  ASSERT_EQ(result.report.regions.size(), 3u);
  EXPECT_EQ(result.report.regions[0].name, "z");
  EXPECT_EQ(result.report.regions[1].name, "a");
  EXPECT_EQ(result.report.regions[2].name, "z");
}

TEST(read, says_at_info_which_file_it_reads) {
  const read_result result = read_text(R"({"regions":{},"threads":1,"roofs_by_num_threads":{}})", LEVEL_TRACE_DATA);
  EXPECT_THAT(result.messages, ElementsAre("info Reading collector report from %"));
}

TEST(read, takes_the_first_of_duplicate_keys) {
  EXPECT_EQ(read_text(R"({"threads": 1, "threads": 2})").report.threads, 1u);
}

TEST(read, ignores_keys_that_it_does_not_know) {
  const read_result result = read_text(R"({"version": {"regions": 1}, "threads": 3, "regions": {}})");
  EXPECT_EQ(result.words(), "threads 3\n");
  EXPECT_THAT(result.messages, IsEmpty());
}

TEST(read, takes_numbers_beyond_the_signed_range_back) {
  const read_result result = read_text(R"({"regions": {"r": {"threads": -1, "time": -9223372036854775808}}})");
  EXPECT_EQ(result.report.regions.at(0).threads, ~std::uint64_t{0});
  EXPECT_EQ(*result.report.regions.at(0).metrics.find("time"), std::uint64_t{1} << 63);
}

// ---- Files that are missing, foreign or broken ----

TEST(read, of_a_missing_file_is_an_empty_report_with_a_debug_line) {
  const log_capture log;
  EXPECT_EQ(in_words(read("/nonexistent/report.json")), "threads 0\n");
  EXPECT_THAT(log.messages(), ElementsAre("info Reading collector report from /nonexistent/report.json",
                                          "debug failed to open /nonexistent/report.json for reading"));
  EXPECT_THAT(log.lines(), ::testing::Each(HasSubstr(" report_handler:")));
}

TEST(read, of_a_missing_file_is_silent_at_the_default_level) {
  const log_capture log(LEVEL_WARN);
  read("/nonexistent/report.json");
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(read, of_an_array_a_number_a_text_or_null_is_an_empty_report_without_a_warning) {
  for (const char* text : {R"([{"threads": 4}])", "17", "\"threads\"", "null", "true"}) {
    SCOPED_TRACE(text);
    const read_result result = read_text(text);
    EXPECT_EQ(result.words(), "threads 0\n");
    EXPECT_THAT(result.messages, IsEmpty());
  }
}

TEST(read, says_at_debug_which_of_the_three_parts_are_missing) {
  EXPECT_THAT(read_text("{}", LEVEL_DEBUG).messages,
              ElementsAre("info Reading collector report from %", "debug Failed to read key regions from json",
                          "debug Failed to read key threads from json",
                          "debug Failed to read key roofs_by_num_threads from json"));
}

TEST(read, of_an_empty_file_warns_and_gives_an_empty_report) {
  const read_result result = read_text("");
  EXPECT_EQ(result.words(), "threads 0\n");
  EXPECT_THAT(result.messages, ElementsAre("warn failed to parse json from % with error Unrecognized token format."));
}

TEST(read, of_a_directory_warns_and_gives_an_empty_report) {
  const log_capture log(LEVEL_WARN);
  EXPECT_EQ(in_words(read("/tmp")), "threads 0\n");
  EXPECT_THAT(log.messages(), ElementsAre("warn failed to parse json from /tmp with error Unrecognized token format."));
}

TEST(read, of_a_truncated_file_keeps_the_members_before_the_fault) {
  const read_result result =
      read_text(R"({"threads": 4, "roofs_by_num_threads": {"1": []}, "regions": {"a": {"flop": 1)");
  EXPECT_EQ(result.words(), "threads 4\nroofs of 1\n");
  EXPECT_THAT(result.messages, ElementsAre("warn failed to parse json from % with error Unexpected end of stream."));
}

TEST(read, of_an_unclosed_string_warns_without_words) {
  const read_result result = read_text(R"({"threads": 4, "regi)");
  EXPECT_EQ(result.words(), "threads 4\n");
  EXPECT_THAT(result.messages, ElementsAre("warn failed to parse json from % with error (null)."));
}

TEST(read, ends_at_a_nul_byte) {
  EXPECT_EQ(read_text(std::string("{\"threads\": 4}\0]]]", 18)).words(), "threads 4\n");
}

TEST(read, takes_a_file_larger_than_one_buffer) {
  std::string text = R"({"regions": {"r": {"bbs": [)";
  for (int number = 0; number < 20000; ++number) {
    text += "[\"" + std::to_string(number) + R"(","0","0","0",1,2,3,"/m"],)";
  }
  text += "]}}, \"threads\": 9}";
  const read_result result = read_text(text);
  EXPECT_EQ(result.report.threads, 9u);
  EXPECT_EQ(result.report.regions.at(0).bbs.size(), 20000u);
}

TEST(read, takes_a_file_whose_size_is_not_known_beforehand) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  // More than one buffer, less than a pipe holds.
  const std::string text = std::string(20000, ' ') + "{\"threads\": 4}" + std::string(20000, ' ');
  ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(ends[1]);
  EXPECT_EQ(in_words(read("/proc/self/fd/" + std::to_string(ends[0]))), "threads 4\n");
  close(ends[0]);
}

// ---- Regions ----

TEST(read_regions_metric, of_anything_but_an_object_warns_and_gives_no_regions) {
  const read_result result = read_text(R"({"regions": [ {"flop": 1} ], "threads": 2})");
  EXPECT_EQ(result.words(), "threads 2\n");
  EXPECT_THAT(result.messages, ElementsAre("warn Wrong type for region in json, actual type = 2"));
}

TEST(read_regions_metric, gives_all_five_metrics_with_0_for_what_is_missing) {
  const document text(R"({"r": {"time": 9, "l9_bytes": 1}})");
  EXPECT_EQ(in_words(read_regions_metric(text.root())),
            "region r flop 0 threads 0\n  ddr_bytes 0\n  l2_bytes 0\n  time 9\n  l3_bytes 0\n  l1_bytes 0\n");
}

TEST(read_regions_metric, logs_each_missing_member_at_debug_in_the_order_of_reading) {
  const document text(R"({"r": {"threads": 1, "l2_bytes": 2}})");
  const log_capture log;
  read_regions_metric(text.root());
  EXPECT_THAT(log.messages(),
              ElementsAre("debug Failed to read key flop from json", "debug Failed to read key bbs from json",
                          "debug Failed to read key l1_bytes from json", "debug Failed to read key l3_bytes from json",
                          "debug Failed to read key ddr_bytes from json", "debug Failed to read key time from json"));
}

TEST(read_regions_metric, takes_a_member_of_a_wrong_type_as_a_region_of_zeros) {
  for (const char* text : {R"({"r": 5})", R"({"r": [1, 2]})", R"({"r": null})", R"({"r": {}})"}) {
    SCOPED_TRACE(text);
    const document parsed(text);
    const log_capture log(LEVEL_WARN);
    EXPECT_EQ(in_words(read_regions_metric(parsed.root())), std::string("region r flop 0 threads 0\n") + no_metrics);
    EXPECT_THAT(log.messages(), IsEmpty());
  }
}

TEST(read_regions_metric, takes_the_first_of_a_regions_duplicate_keys) {
  const document text(R"({"r": {"flop": 1, "flop": 2}})");
  EXPECT_EQ(read_regions_metric(text.root()).at(0).flop, 1u);
}

// ---- Blocks ----

TEST(read_basic_blocks, without_a_token_is_empty) { EXPECT_TRUE(read_basic_blocks(nullptr).empty()); }

TEST(read_basic_blocks, of_a_number_or_a_text_is_empty_without_a_warning) {
  const log_capture log;
  for (const char* text : {"5", "\"400\"", "[]", "{}"}) {
    const document parsed(text);
    EXPECT_TRUE(read_basic_blocks(parsed.root()).empty()) << text;
  }
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(read_basic_blocks, skips_blocks_without_any_field) {
  const document text(R"([ [], 5, {}, "x", ["1","2","3","4",5,6,7,"m"] ])");
  const log_capture log;
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 1-2 file 3-4 flop 5 count 6 vector 7 in m\n");
  EXPECT_THAT(log.messages(), ElementsAre("warn No data in basic block", "warn No data in basic block",
                                          "warn No data in basic block", "warn No data in basic block"));
}

TEST(read_basic_blocks, skips_blocks_with_too_few_fields) {
  const document text(R"([ ["1"], ["1","2","3","4",5,6,7], ["8","9","a","b",5,6,7,"m"] ])");
  const log_capture log;
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 8-9 file a-b flop 5 count 6 vector 7 in m\n");
  EXPECT_THAT(log.messages(),
              ElementsAre("warn Not enough field in basic block", "warn Not enough field in basic block"));
}

TEST(read_basic_blocks, keeps_blocks_of_one_start_apart) {
  const document text(R"([["10","14","10","14",1,2,1,"[generated]"],["10","18","10","18",3,4,1,"[generated]"],)"
                      R"(["10","14","10","14",5,6,1,"[generated]"]])");
  const basic_block_table blocks = read_basic_blocks(text.root());
  ASSERT_EQ(blocks.size(), 3U);
  std::int64_t flop = 0;
  for (const auto& [key, block] : blocks) {
    EXPECT_EQ(block.start, 0x10U);
    flop += block.flop * block.count;
  }
  EXPECT_EQ(flop, 1 * 2 + 3 * 4 + 5 * 6);
}

TEST(read_basic_blocks, ignores_what_follows_the_eighth_field) {
  const document text(R"([ ["1","2","3","4",5,6,7,"m","n",[1],{}] ])");
  const log_capture log;
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 1-2 file 3-4 flop 5 count 6 vector 7 in m\n");
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(read_basic_blocks, takes_addresses_of_a_wrong_type_as_0_with_a_warning) {
  const document text(R"([ [1, 2.5, null, {}, 5, 6, 7, "m"] ])");
  const log_capture log;
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 0-0 file 0-0 flop 5 count 6 vector 7 in m\n");
  EXPECT_THAT(log.messages(), ElementsAre("warn Expect string in basic block field but get json_token_type=3",
                                          "warn Expect string in basic block field but get json_token_type=4",
                                          "warn Expect string in basic block field but get json_token_type=6",
                                          "warn Expect string in basic block field but get json_token_type=1"));
}

TEST(read_basic_blocks, takes_numbers_of_a_wrong_type_as_0_without_a_warning) {
  const document text(R"([ ["1","2","3","4","5",6.0,null,"m"] ])");
  const log_capture log;
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 1-2 file 3-4 flop 0 count 0 vector 0 in m\n");
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(read_basic_blocks, keeps_the_low_half_of_a_vector_length) {
  const document text(R"([ ["1","2","3","4",5,6,4294967303,"m"], ["8","2","3","4",5,6,2147483648,"m"] ])");
  const basic_block_table blocks = read_basic_blocks(text.root());
  EXPECT_EQ(blocks.find(1)->vector_length, 7);
  EXPECT_EQ(blocks.find(8)->vector_length, -2147483647 - 1);
}

TEST(read_basic_blocks, keeps_the_first_of_two_blocks_with_one_start) {
  const document text(R"([ ["1","2","3","4",5,6,7,"first"], ["01","9","9","9",9,9,9,"second"] ])");
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 1-2 file 3-4 flop 5 count 6 vector 7 in first\n");
}

TEST(read_basic_blocks, takes_the_members_of_an_object_by_position) {
  const document text(R"({"k": {"a":"1","b":"2","c":"3","d":"4","e":5,"f":6,"g":7,"h":"m"}})");
  EXPECT_EQ(in_words(read_basic_blocks(text.root())), "  block 1-2 file 3-4 flop 5 count 6 vector 7 in m\n");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
constexpr bool sanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool sanitized = false;
#endif

TEST(read_basic_blocks_death, of_a_last_field_that_is_no_string_is_a_memory_fault) {
  for (const char* text : {R"([ ["1","2","3","4",5,6,7,8] ])", R"([ ["1","2","3","4",5,6,7,null] ])",
                           R"([ ["1","2","3","4",5,6,7,["m"]] ])"}) {
    SCOPED_TRACE(text);
    const document parsed(text);
    const auto ends = [](int status) {
      // A sanitizer catches the signal, reports it as a fault at address zero and exits.
      return sanitized ? status != 0 : ::testing::KilledBySignal(SIGSEGV)(status);
    };
    EXPECT_EXIT(read_basic_blocks(parsed.root()), ends,
                sanitized ? "Failed to parse module name in basic block\n(.|\n)*SEGV on unknown address 0x0000*[ ]"
                          : "Failed to parse module name in basic block");
  }
}

// ---- Roofs ----

TEST(read_benchmarks_res, of_anything_but_an_object_warns_and_is_empty) {
  const read_result result = read_text(R"({"roofs_by_num_threads": [ [] ], "threads": 2})");
  EXPECT_EQ(result.words(), "threads 2\n");
  EXPECT_THAT(result.messages, ElementsAre("warn Wrong type for roofs_by_threads in json, actual type = 2"));
}

TEST(read_benchmarks_res, drops_everything_when_one_count_has_no_array) {
  const document text(R"({"1": [ {"name": "L1"} ], "2": {"name": "L1"}, "4": []})");
  const log_capture log(LEVEL_WARN);
  EXPECT_EQ(in_words(read_benchmarks_res(text.root())), "");
  EXPECT_THAT(log.messages(), ElementsAre("warn Wrong type for roofs in json, actual type = 1"));
}

TEST(read_benchmarks_res, keeps_an_element_of_any_form_with_what_it_has) {
  const document text(R"({"1": [ {}, 5, {"name": 1, "value": "2", "measure": null, "is_compute": 1},
                                 {"value": 3, "is_compute": TRUE} ]})");
  const log_capture log(LEVEL_WARN);
  EXPECT_EQ(in_words(read_benchmarks_res(text.root())),
            "roofs of 1\n   0  memory\n   0  memory\n   0  memory\n   3  compute\n");
  EXPECT_THAT(log.messages(), ElementsAre("warn Wrong type when reading json, actual type = 3, expected = 0",
                                          "warn Wrong type when reading json, actual type = 0, expected = 3",
                                          "warn Wrong type when reading json, actual type = 6, expected = 0",
                                          "warn Wrong type when reading json, actual type = 3, expected = 5"));
}

TEST(read_benchmarks_res, keeps_the_first_list_of_a_count_seen_twice) {
  const document text(R"({"1": [ {"name": "first"} ], " +1x": [ {"name": "second"} ]})");
  EXPECT_EQ(in_words(read_benchmarks_res(text.root())), "roofs of 1\n  first 0  memory\n");
}

TEST(read_benchmarks_res, converts_counts_as_the_command_line_does) {
  const document text(R"({" 12 cores": [], "-1": []})");
  const benchmark_report benchmarks = read_benchmarks_res(text.root());
  EXPECT_TRUE(benchmarks.contains(12));
  EXPECT_TRUE(benchmarks.contains(~std::uint64_t{0}));
}

TEST(read_benchmarks_res, of_a_count_without_digits_raises_the_librarys_error) {
  const document text(R"({"many": []})");
  try {
    read_benchmarks_res(text.root());
    FAIL() << "nothing was raised";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "stoul");
  }
  const scratch_file file(R"({"roofs_by_num_threads": {"many": 5}})");
  EXPECT_THROW(read(file.path()), std::invalid_argument);
}

TEST(read_benchmarks_res, of_a_count_that_is_too_large_raises_the_librarys_error) {
  const document text(R"({"18446744073709551616": []})");
  EXPECT_THROW(read_benchmarks_res(text.root()), std::out_of_range);
}

// ---- Single members ----

TEST(read_token, of_a_missing_key_is_null_with_a_debug_line) {
  const document text(R"({"a": 1})");
  const json_index index = make_json_index(text.root());
  const log_capture log;
  EXPECT_EQ(read_token(index, "a"), json_first_child(text.root()));
  EXPECT_EQ(read_token(index, "b"), nullptr);
  EXPECT_THAT(log.messages(), ElementsAre("debug Failed to read key b from json"));
}

TEST(read_int_from_token, of_a_wrong_type_is_0_with_both_types_in_the_warning) {
  const document text(R"({"a": "1", "b": 1.5, "c": true, "d": 7, "e": {}, "f": [], "g": null})");
  const json_index index = make_json_index(text.root());
  const log_capture log;
  EXPECT_EQ(read_int_from_token(index, "d"), 7);
  for (const char* key : {"a", "b", "c", "e", "f", "g"}) EXPECT_EQ(read_int_from_token(index, key), 0) << key;
  EXPECT_THAT(log.messages(), ElementsAre("warn Wrong type when reading json, actual type = 0, expected = 3",
                                          "warn Wrong type when reading json, actual type = 4, expected = 3",
                                          "warn Wrong type when reading json, actual type = 5, expected = 3",
                                          "warn Wrong type when reading json, actual type = 1, expected = 3",
                                          "warn Wrong type when reading json, actual type = 2, expected = 3",
                                          "warn Wrong type when reading json, actual type = 6, expected = 3"));
}

TEST(read_str_from_token, of_a_wrong_type_is_empty_with_a_warning) {
  const document text(R"({"a": "text", "b": 1})");
  const json_index index = make_json_index(text.root());
  const log_capture log;
  EXPECT_EQ(read_str_from_token(index, "a"), "text");
  EXPECT_EQ(read_str_from_token(index, "b"), "");
  EXPECT_EQ(read_str_from_token(index, "c"), "");
  EXPECT_THAT(log.messages(), ElementsAre("warn Wrong type when reading json, actual type = 3, expected = 0",
                                          "debug Failed to read key c from json"));
}

TEST(read_bool_from_token, of_a_wrong_type_is_false_with_a_warning) {
  const document text(R"({"a": true, "b": 1, "c": false})");
  const json_index index = make_json_index(text.root());
  const log_capture log;
  EXPECT_TRUE(read_bool_from_token(index, "a"));
  EXPECT_FALSE(read_bool_from_token(index, "b"));
  EXPECT_FALSE(read_bool_from_token(index, "c"));
  EXPECT_FALSE(read_bool_from_token(index, "d"));
  EXPECT_THAT(log.messages(), ElementsAre("warn Wrong type when reading json, actual type = 3, expected = 5",
                                          "debug Failed to read key d from json"));
}

TEST(get_pointer_from_hex_string_token, reads_as_far_as_there_are_digits) {
  const std::vector<std::pair<const char*, std::uint64_t>> cases = {
      {"400abc", 0x400abc},
      {"FFFFFFFFFFFFFFFF", ~std::uint64_t{0}},
      {"", 0},
      {"xyz", 0},
      {"12g4", 0x12},
      {"0x1f", 0x1f},
      {" 1f", 0x1f},
      {"-1", ~std::uint64_t{0}},
      {"+1", 1},
      {"10000000000000000", ~std::uint64_t{0}},
  };
  for (const auto& [text, value] : cases) {
    json_token* token = nullptr;
    ASSERT_EQ(json_new_string(text, &token), JSON_OK);
    const json_token_owner owner(token);
    EXPECT_EQ(get_pointer_from_hex_string_token(token), value) << "text \"" << text << '"';
  }
}

TEST(get_pointer_from_hex_string_token, of_a_null_text_is_0_with_a_warning) {
  json_token* token = nullptr;
  ASSERT_EQ(json_new_string(nullptr, &token), JSON_OK);
  const json_token_owner owner(token);
  const log_capture log;
  EXPECT_EQ(get_pointer_from_hex_string_token(token), 0u);
  EXPECT_THAT(log.messages(), ElementsAre("warn Failed to read basic block field"));
}

TEST(get_pointer_from_hex_string_token, of_no_string_is_0_with_the_type_in_the_warning) {
  const document text("5");
  const log_capture log;
  EXPECT_EQ(get_pointer_from_hex_string_token(text.root()), 0u);
  EXPECT_THAT(log.messages(), ElementsAre("warn Expect string in basic block field but get json_token_type=3"));
}

TEST(read, of_a_device_finds_no_earlier_result_and_does_not_wait_for_its_end) {
  for (const char* device : {"/dev/null", "/dev/zero", "/dev/full"}) {
    const collector_report report = read(device);
    EXPECT_TRUE(report.regions.empty()) << device;
    EXPECT_EQ(report.threads, 0U);
  }
}

}  // namespace
}  // namespace ceilmeter
