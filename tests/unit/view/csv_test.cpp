#include "view/csv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "view/compare.h"
#include "view/read_result.h"

namespace ceilmeter::view {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string csv_of(const std::string& json) {
  read_outcome outcome = parse_result("app.json", json);
  EXPECT_TRUE(outcome.ok) << outcome.error;
  return write_csv(build_view({std::move(outcome.result)}, {}));
}

TEST(csv, text_is_quoted_only_where_it_has_to_be) {
  EXPECT_EQ(csv_text("solve"), "solve");
  EXPECT_EQ(csv_text("two words"), "two words");
  EXPECT_EQ(csv_text("a,b"), "\"a,b\"");
  EXPECT_EQ(csv_text("say \"x\""), "\"say \"\"x\"\"\"");
  EXPECT_EQ(csv_text("two\nlines"), "\"two\nlines\"");
  EXPECT_EQ(csv_text(""), "");
}

TEST(csv, text_that_a_spreadsheet_takes_for_a_formula_is_defused) {
  EXPECT_EQ(csv_text("=1+1"), "'=1+1");
  EXPECT_EQ(csv_text("+1"), "'+1");
  EXPECT_EQ(csv_text("-1"), "'-1");
  EXPECT_EQ(csv_text("@SUM(A1)"), "'@SUM(A1)");
  EXPECT_EQ(csv_text("\t=1"), "'\t=1");
  EXPECT_EQ(csv_text("=HYPERLINK(\"a\",\"b\")"), "\"'=HYPERLINK(\"\"a\"\",\"\"b\"\")\"");
  EXPECT_EQ(csv_text("\n=1"), "\"'\n=1\"");
  EXPECT_THAT(csv_text("\r=1"), Not(HasSubstr("\r")));
}

TEST(csv, bytes_that_are_no_text_become_replacement_characters) { EXPECT_EQ(csv_text("a\xFF"), "a\xEF\xBF\xBD"); }

TEST(csv, point_has_a_line_for_each_level_with_exact_figures) {
  const std::string text = csv_of(
      R"({"regions": {"solve": {"flop": 9223372036854775807, "threads": 4, "bbs": [], "l1_bytes": 9007199254740993,)"
      R"( "l2_bytes": 200, "l3_bytes": 0, "ddr_bytes": 50, "time": 1000}}, "bb_keys": [], "threads": 4})");
  EXPECT_THAT(text, testing::StartsWith("kind,file,name,level,threads,time_ns,flop,bytes,flop_per_byte,gflop_per_s,"
                                        "gb_per_s,limited_by,roof_threads,reached,value,unit,note\r\n"));
  EXPECT_THAT(text, HasSubstr("point,app.json,solve,L1,4,1000,9223372036854775807,9007199254740993,"));
  EXPECT_THAT(text, HasSubstr("point,app.json,solve,L2,4,1000,9223372036854775807,200,"));
  // Nothing is made up for a level that was not counted.
  EXPECT_THAT(text, HasSubstr("point,app.json,solve,L3,4,1000,9223372036854775807,0,,"));
  EXPECT_THAT(text, HasSubstr(",0.05,"));
}

TEST(csv, roofs_of_every_thread_count_follow_with_their_own_integers) {
  const std::string text =
      csv_of(R"({"regions": {}, "bb_keys": [], "threads": 4, "roofs_by_num_threads": {)"
             R"("4": [{"name": "DDR", "value": 9007199254740993, "measure": "GB/s", "is_compute": false}],)"
             R"("1": [{"name": "=1+1", "value": 0, "measure": "GFLOPS", "is_compute": true}]}})");
  EXPECT_THAT(text, HasSubstr("roof,app.json,'=1+1,,1,,,,,,,,,,0,GFLOPS,not measured\r\n"));
  EXPECT_THAT(text, HasSubstr("roof,app.json,DDR,DDR,4,,,,,,,,,,9007199254740993,GB/s,\r\n"));
}

TEST(csv, every_line_has_as_many_cells) {
  const std::string text =
      csv_of(R"({"regions": {"a": {"flop": 1, "threads": 1}, "b": {}}, "threads": 1, "roofs_by_num_threads": {)"
             R"("1": [{"name": "L1", "value": 5, "measure": "GB/s", "is_compute": false}]}})");
  std::size_t lines = 0;
  for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 2, ++lines) {
    end = text.find("\r\n", begin);
    ASSERT_NE(end, std::string::npos);
    // Texts with commas are in quotes; here only notes may have some.
    bool inside = false;
    int commas = 0;
    for (const char c : text.substr(begin, end - begin)) {
      if (c == '"') inside = !inside;
      if (c == ',' && !inside) ++commas;
    }
    EXPECT_EQ(commas, 16) << text.substr(begin, end - begin);
  }
  EXPECT_EQ(lines, 1U + 2 * 4 + 1);
}

}  // namespace
}  // namespace ceilmeter::view
