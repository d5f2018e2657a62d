#include "view/view_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ceilmeter::view {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

parsed_command_line parse(const std::vector<const char*>& words) { return parse_command_line(words); }

command_options good(const std::vector<const char*>& words) {
  const parsed_command_line parsed = parse(words);
  EXPECT_EQ(parsed.error, "");
  return parsed.options;
}

std::string error_of(const std::vector<const char*>& words) { return parse(words).error; }

TEST(view_options, file_alone_gives_a_page_beside_it) {
  const command_options options = good({"runs/app.roofline.json"});
  EXPECT_THAT(options.files, ElementsAre("runs/app.roofline.json"));
  EXPECT_EQ(options.output, "runs/app.roofline.html");
  EXPECT_EQ(options.form, output_form::PAGE);
  EXPECT_EQ(options.relation, file_relation::OVERLAY);
  EXPECT_EQ(options.blocks, 10'000U);
  EXPECT_FALSE(options.threads || options.level || options.axes || options.title || options.modules || options.open);
}

TEST(view_options, ending_of_the_output_is_that_of_the_form) {
  EXPECT_EQ(good({"--svg", "a.json"}).output, "a.svg");
  EXPECT_EQ(good({"--csv", "a.json"}).output, "a.csv");
  EXPECT_EQ(good({"--table", "a.json"}).output, "-");
  EXPECT_EQ(good({"a.txt"}).output, "a.txt.html");
  EXPECT_EQ(good({".json"}).output, ".json.html");
  EXPECT_EQ(good({"a.json", "b.json"}).output, "a.html");
  EXPECT_EQ(good({"-"}).output, "-");
}

TEST(view_options, options_may_stand_behind_files_and_end_at_two_dashes) {
  const command_options options = good({"a.json", "--svg", "-o", "x.svg", "--", "--csv"});
  EXPECT_THAT(options.files, ElementsAre("a.json", "--csv"));
  EXPECT_EQ(options.form, output_form::SVG);
  EXPECT_EQ(options.output, "x.svg");
}

TEST(view_options, value_stands_behind_an_equals_sign_a_blank_or_a_short_name) {
  for (const std::vector<const char*>& words : std::vector<std::vector<const char*>>{
           {"--output=b", "a"}, {"--output", "b", "a"}, {"-ob", "a"}, {"-o", "b", "a"}}) {
    EXPECT_EQ(good(words).output, "b");
  }
}

TEST(view_options, baseline_is_the_earlier_file_wherever_it_stands) {
  for (const std::vector<const char*>& words : std::vector<std::vector<const char*>>{
           {"--baseline", "old.json", "new.json"}, {"new.json", "--baseline=old.json"}}) {
    const command_options options = good(words);
    EXPECT_THAT(options.files, ElementsAre("old.json", "new.json"));
    EXPECT_EQ(options.output, "new.html");
    EXPECT_EQ(options.relation, file_relation::BASELINE);
  }
}

TEST(view_options, every_other_option_is_stored) {
  const command_options options =
      good({"--ranks", "--threads=18446744073709551615", "--level=ddr", "--frame=-2:2,0:4", "--title=A <run>",
            "--modules=/lib", "--blocks=7", "--short-paths", "--open", "a"});
  EXPECT_EQ(options.relation, file_relation::RANKS);
  EXPECT_EQ(options.threads, UINT64_MAX);
  EXPECT_EQ(options.level, memory_level::ddr);
  EXPECT_EQ(options.axes, (frame{-2, 2, 0, 4}));
  EXPECT_EQ(options.title, "A <run>");
  EXPECT_TRUE(options.modules && options.short_paths && options.open);
  EXPECT_EQ(options.modules_folder, "/lib");
  EXPECT_EQ(options.blocks, 7U);
}

TEST(view_options, modules_without_a_folder_takes_no_file_for_one) {
  const command_options options = good({"--modules", "a.json"});
  EXPECT_TRUE(options.modules);
  EXPECT_EQ(options.modules_folder, "");
  EXPECT_THAT(options.files, ElementsAre("a.json"));
}

TEST(view_options, all_blocks_can_be_asked_for) { EXPECT_EQ(good({"--blocks=all", "a"}).blocks, std::nullopt); }

TEST(view_options, help_and_version_need_no_file_and_end_the_reading) {
  EXPECT_TRUE(good({"-h", "--nonsense"}).help);
  EXPECT_TRUE(good({"--version"}).version);
  EXPECT_TRUE(good({"-v"}).version);
}

TEST(view_options, words_that_are_no_option_are_named) {
  EXPECT_EQ(error_of({"--nonsense=1", "a"}), "there is no option --nonsense");
  EXPECT_EQ(error_of({"-x", "a"}), "there is no option -x");
  EXPECT_EQ(error_of({"--out", "a"}), "there is no option --out");
  EXPECT_EQ(error_of({"--svg=yes", "a"}), "--svg takes no value");
  EXPECT_EQ(error_of({"a", "--output"}), "--output wants a value");
  EXPECT_EQ(error_of({"a", "-o"}), "--output wants a value");
}

TEST(view_options, values_that_are_none_are_shown) {
  EXPECT_EQ(error_of({"--threads=0", "a"}), "--threads wants a whole number from 1 on, not '0'");
  for (const char* words : {"--threads=", "--threads=-1", "--threads=1.5", "--threads=4x",
                            "--threads=18446744073709551616", "--threads= 4", "--threads=+4"}) {
    EXPECT_THAT(error_of({words, "a"}), HasSubstr("--threads wants a whole number from 1 on")) << words;
  }
  EXPECT_EQ(error_of({"--level=L4", "a"}), "--level wants L1, L2, L3 or DDR, not 'L4'");
  EXPECT_EQ(error_of({"--blocks=some", "a"}), "--blocks wants a whole number or all, not 'some'");
  for (const char* words :
       {"--frame=", "--frame=1", "--frame=2:1,0:1", "--frame=0:1,1:1", "--frame=0:1", "--frame=0:1,0:x"}) {
    EXPECT_THAT(error_of({words, "a"}), HasSubstr("--frame wants powers of ten such as")) << words;
  }
  EXPECT_EQ(error_of({"--output=", "a"}), "--output wants a path");
  EXPECT_EQ(error_of({""}), "a path is empty");
}

TEST(view_options, options_that_exclude_each_other_are_told) {
  EXPECT_EQ(error_of({"--svg", "--csv", "a"}), "only one of --svg, --csv and --table can be given");
  EXPECT_EQ(error_of({"--svg", "--svg", "a"}), "");
  EXPECT_EQ(error_of({"--ranks", "--baseline=a", "b"}), "--baseline and --ranks exclude each other");
  EXPECT_EQ(error_of({"--baseline=a", "--baseline=b", "c"}), "--baseline can be given once");
  EXPECT_EQ(error_of({"--baseline=a"}), "--baseline compares one file with an earlier one; 0 are given besides it");
  EXPECT_EQ(error_of({"--baseline=a", "b", "c"}),
            "--baseline compares one file with an earlier one; 2 are given besides it");
  EXPECT_EQ(error_of({"--table", "--open", "a"}), "--open wants a file, not standard output");
  EXPECT_EQ(error_of({"-", "-"}), "standard input can be read once");
  EXPECT_EQ(error_of({}), "no result file is given");
}

TEST(view_options, usage_has_every_option_in_lines_of_a_terminal) {
  const std::string usage = usage_text();
  for (const char* head :
       {"-o|--output=<file>", "--svg", "--csv", "--table", "--baseline=<file>", "--ranks", "--threads=<count>",
        "--level=<L1|L2|L3|DDR>", "--frame=<x:x,y:y>", "--title=<text>", "--modules[=<folder>]", "--blocks=<count|all>",
        "--short-paths", "--open", "-h|--help", "-v|--version"}) {
    EXPECT_THAT(usage, HasSubstr("\n    " + std::string(head) + " ")) << usage;
  }
  std::size_t begin = 0;
  for (std::size_t end = usage.find('\n'); end != std::string::npos; end = usage.find('\n', begin)) {
    EXPECT_LE(end - begin, 120U) << usage.substr(begin, end - begin);
    begin = end + 1;
  }
  EXPECT_EQ(begin, usage.size());
}

}  // namespace
}  // namespace ceilmeter::view
