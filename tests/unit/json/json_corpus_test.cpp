// Every file of the corpus is parsed, printed, parsed again and compared. The files are valid documents in many styles.
// None has a quote or a backslash within a text, because the writer can't write these.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "json/json.h"
#include "json_support.h"

namespace ceilmeter {
namespace {

namespace fs = std::filesystem;

std::string content_of(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

std::vector<fs::path> corpus_files() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(CEILMETER_JSON_CORPUS)) {
    if (entry.path().extension() == ".json") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class json_corpus : public ::testing::TestWithParam<fs::path> {};

TEST_P(json_corpus, file_parses_prints_and_parses_to_the_same_tree) {
  const test::parsed first(content_of(GetParam()));
  ASSERT_EQ(first.status, JSON_OK) << test::message_of(first) << " in line "
                                   << json_document_error_line(first.document);
  ASSERT_NE(json_first_child(first.root()), nullptr) << "an empty document compares nothing";
  // A root that is no object prints only under a key.
  const bool is_object = json_get_type(first.root()) == JSON_OBJECT;
  ASSERT_EQ(json_set_key(first.root(), is_object ? nullptr : "root"), JSON_OK);
  const test::parsed second(test::printed(first.root()));
  ASSERT_EQ(second.status, JSON_OK) << test::message_of(second) << " in line "
                                    << json_document_error_line(second.document);
  const json_token* again = is_object ? second.root() : json_first_child(second.root());
  EXPECT_TRUE(test::same_tree(first.root(), again));
  EXPECT_EQ(test::printed(again), second.text) << "printed twice";
}

TEST_P(json_corpus, file_is_read_to_its_end) {
  const test::parsed parse(content_of(GetParam()));
  ASSERT_EQ(parse.status, JSON_OK);
  const std::string rest = parse.text.substr(static_cast<std::size_t>(parse.cursor()));
  EXPECT_EQ(rest.find_first_not_of(" \t\n\v\f\r"), std::string::npos) << "left over: " << rest;
}

TEST_P(json_corpus, file_cut_off_anywhere_leaves_a_tree_and_a_message) {
  const std::string text = content_of(GetParam());
  const auto end = text.find_last_not_of(" \t\n\v\f\r");
  // All places of a small file, or about 500 places of a large one.
  for (std::size_t length = 0; length < end; length += 1 + end / 500) {
    const test::parsed parse(text.substr(0, length));
    ASSERT_NE(parse.status, JSON_OK) << "cut at " << length;
    ASSERT_EQ(json_document_error(parse.document), parse.status) << "cut at " << length;
    ASSERT_LE(parse.cursor(), static_cast<std::ptrdiff_t>(length)) << "cut at " << length;
    ASSERT_GE(json_document_error_line(parse.document), 1U) << "cut at " << length;
  }
}

INSTANTIATE_TEST_SUITE_P(each, json_corpus, ::testing::ValuesIn(corpus_files()),
                         [](const auto& row) { return row.param.stem().string(); });

TEST(json_corpus_of_results, a_result_file_prints_byte_for_byte_as_it_was) {
  for (const char* name : {"result_total.json", "result_regions.json"}) {
    const std::string text = content_of(fs::path(CEILMETER_JSON_CORPUS) / name);
    const test::parsed parse(text);
    ASSERT_EQ(parse.status, JSON_OK) << name;
    EXPECT_EQ(test::printed(parse.root()), text) << name;
  }
}

}  // namespace
}  // namespace ceilmeter
