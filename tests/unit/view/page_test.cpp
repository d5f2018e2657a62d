// The page as text: its content without a browser, and that names from strangers stay text wherever they stand.
#include "view/page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "view/compare.h"
#include "view/page_blocks.h"
#include "view/sha256.h"

namespace ceilmeter::view {
namespace {

using testing::HasSubstr;
using testing::Not;

block make_block(std::uint64_t offset, std::int64_t flop, std::int64_t executions, std::uint32_t module = 0) {
  block one;
  one.start = 0x400000 + offset;
  one.end = one.start + 16;
  one.dump_start = offset;
  one.dump_end = offset + 16;
  one.flop = flop;
  one.executions = executions;
  one.elements = 2;
  one.module = module;
  return one;
}

region make_region(const std::string& name, std::vector<block> blocks) {
  region one;
  one.name = name;
  one.threads = 1;
  one.bytes = {400, 200, 100, 50};
  one.time = 1000;
  one.flop = 0;
  for (const block& each : blocks) *one.flop += each.flop * each.executions;
  one.blocks = std::move(blocks);
  return one;
}

result_file make_file(std::vector<region> regions) {
  result_file file;
  file.path = "run.json";
  file.label = "run";
  file.threads = 1;
  file.regions = std::move(regions);
  file.roofs = {{.threads = 1,
                 .roofs = {{"L1", 90, "GB/s", false},
                           {"L2", 50, "GB/s", false},
                           {"L3", 30, "GB/s", false},
                           {"DDR", 20, "GB/s", false},
                           {"f64x2-FMLA/FMLS", 16, "GFLOPS", true}}}};
  file.root_roofs = file.roofs[0].roofs;
  file.modules = {"/opt/app", "/usr/lib/libm.so.6"};
  return file;
}

std::string page_of(std::vector<region> regions, const page_options& options = {}) {
  return write_page(build_view({make_file(std::move(regions))}, {}), options);
}

// What stands between the first `from` behind `start` and the next `to`.
std::string between(const std::string& text, const std::string& from, const std::string& to, std::size_t start = 0) {
  const std::size_t open = text.find(from, start);
  if (open == std::string::npos) return "(nothing)";
  const std::size_t first = open + from.size();
  return text.substr(first, text.find(to, first) - first);
}

TEST(page, its_policy_names_exactly_the_scripts_and_the_style_that_it_holds) {
  const std::string page = page_of({make_region("solve", {make_block(0x10, 4, 100)})});
  std::string policy = between(page, "Content-Security-Policy\" content=\"", "\"");
  for (std::size_t at = 0; (at = policy.find("&#39;", at)) != std::string::npos;) policy.replace(at, 5, "'");
  const std::size_t library = page.find("<script>");
  const std::string first = between(page, "<script>", "</script>", library);
  const std::string second = between(page, "<script>", "</script>", library + 8);
  ASSERT_NE(first, second);
  EXPECT_THAT(policy, HasSubstr("script-src " + policy_hash(first) + " " + policy_hash(second) + ";"));
  EXPECT_THAT(policy, HasSubstr("style-src " + policy_hash(between(page, "<style>", "</style>")) + ";"));
  EXPECT_THAT(policy, HasSubstr("default-src 'none'"));
  EXPECT_THAT(policy, Not(HasSubstr("unsafe")));
}

TEST(page, names_no_place_on_the_network) {
  std::string page = page_of({make_region("solve", {make_block(0x10, 4, 100)})});
  for (const char* attribute : {" src=", " href=", "@import", "url(http", " style=", " onclick="}) {
    EXPECT_THAT(page, Not(HasSubstr(attribute)));
  }
}

TEST(page, a_name_with_markup_is_text_wherever_it_stands) {
  const std::string name = "</script><img src=x onerror='a'>&\xE2\x80\xA8";
  const std::string page = page_of({make_region(name, {make_block(0x10, 4, 100)})});
  EXPECT_THAT(page, Not(HasSubstr("<img")));
  const std::string data = between(page, "id=\"ceilview-data\">", "</script>");
  EXPECT_THAT(data, HasSubstr("\\u003c/script\\u003e\\u003cimg src=x onerror='a'\\u003e\\u0026\\u2028"));
  EXPECT_EQ(data.find_first_of("<>&"), std::string::npos);
  EXPECT_THAT(page, HasSubstr("<th scope=\"row\">&lt;/script&gt;&lt;img src=x onerror=&#39;a&#39;&gt;&amp;"));
}

TEST(page, braces_in_a_name_are_no_place_of_the_template) {
  const std::string page = page_of({make_region("{{script}} {{nothing}}", {make_block(0x10, 4, 100)})});
  EXPECT_THAT(page, HasSubstr("<th scope=\"row\">{{script}} {{nothing}}</th>"));
}

TEST(page, figures_beyond_a_doubles_precision_keep_all_their_digits) {
  const std::string page = page_of({make_region("solve", {make_block(0x10, 1, 9007199254740993)})});
  EXPECT_THAT(between(page, "id=\"ceilview-data\">", "</script>"), HasSubstr("\"9007199254740993\""));
  EXPECT_THAT(page, HasSubstr("data-v=\"9007199254740993\""));
}

TEST(page, blocks_beyond_the_limit_are_one_exact_row) {
  std::vector<block> blocks;
  for (int at = 1; at <= 5; ++at) blocks.push_back(make_block(0x100 * at, at, 10));
  const std::string page = page_of({make_region("solve", blocks)}, {.blocks = 2, .names = {}});
  const std::string data = between(page, "id=\"ceilview-data\">", "</script>");
  EXPECT_THAT(data, HasSubstr("\"blocks\":[[0,\"500\",\"10\",\"5\",\"50\","));
  EXPECT_THAT(data, HasSubstr("\"rest\":[\"3\",\"30\",\"60\"]"));
}

TEST(page, says_why_a_region_has_no_point) {
  region untraced = make_region("halo", {});
  untraced.threads = 0;
  untraced.flop = 0;
  const std::string section = between(page_of({untraced}), "<section id=\"missing\"", "</section>");
  EXPECT_THAT(section, HasSubstr("<strong>halo:</strong>"));
}

TEST(page, a_file_without_regions_and_without_roofs_is_a_page_that_says_so) {
  result_file file;
  file.label = "empty";
  const std::string page = write_page(build_view({file}, {}), {});
  EXPECT_THAT(page, HasSubstr("<p>There are no regions.</p>"));
  EXPECT_THAT(page, HasSubstr("<p>There are no roofs.</p>"));
}

TEST(page_blocks, stand_in_the_order_of_their_operations_with_running_shares) {
  const region of = make_region("solve", {make_block(0x10, 1, 100), make_block(0x20, 3, 100)});
  const block_list list = list_blocks(of, std::nullopt);
  ASSERT_EQ(list.listed.size(), 2U);
  EXPECT_EQ(list.listed[0].of->dump_start, 0x20U);
  EXPECT_EQ(list.listed[0].operations, 300);
  EXPECT_DOUBLE_EQ(*list.listed[0].share, 0.75);
  EXPECT_DOUBLE_EQ(*list.listed[0].running, 0.75);
  EXPECT_DOUBLE_EQ(*list.listed[1].running, 1);
  EXPECT_DOUBLE_EQ(*list.listed[0].per_instruction, 0.75);
  EXPECT_EQ(list.rest, 0U);
}

TEST(page_blocks, operations_that_exceed_64_bits_are_told_as_unknown) {
  region of;
  of.blocks = {make_block(0x10, INT64_MAX, 2), make_block(0x20, 1, 1)};
  const block_list list = list_blocks(of, 0);
  EXPECT_EQ(list.rest, 2U);
  EXPECT_FALSE(list.rest_operations.has_value());
  EXPECT_EQ(list.rest_executions, 3);
}

TEST(page_blocks, work_is_summed_by_module) {
  const region of =
      make_region("solve", {make_block(0x10, 1, 100), make_block(0x20, 3, 100, 1), make_block(0x30, 1, 200)});
  const std::vector<module_work> modules = work_by_module(of);
  ASSERT_EQ(modules.size(), 2U);
  EXPECT_EQ(modules[0].operations, 300);
  EXPECT_EQ(modules[0].blocks + modules[1].blocks, 3U);
  EXPECT_EQ(modules[1].operations, 300);
}

}  // namespace
}  // namespace ceilmeter::view
