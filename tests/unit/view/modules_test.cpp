#include "view/modules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "../support/scratch_folder.h"
#include "elf_file.h"

namespace ceilmeter::view {
namespace {

using test::elf_file;
using test::scratch_folder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StrEq;

constexpr std::uint32_t nop = 0xD503201F;
constexpr std::uint32_t fadd_d0_d1_d2 = 0x1E622820;
constexpr std::uint32_t fmla_v0_v1_v2_4s = 0x4E22CC20;
constexpr std::uint64_t offset = elf_file::code_offset;

elf_file solver() {
  return {{nop, fadd_d0_d1_d2, fmla_v0_v1_v2_4s, nop}, {{"_ZN6solver4stepEd", elf_file::code_address, 16}}};
}

// One block: the addition and the multiply-addition, 1 + 4 * 2 operations.
result_file result_of(const std::string& module, std::int64_t flop) {
  result_file file;
  file.modules = {module};
  block one;
  one.dump_start = offset + 4;
  one.dump_end = offset + 12;
  one.flop = flop;
  region total;
  total.blocks = {one};
  file.regions = {total};
  return file;
}

TEST(modules, block_gets_its_function_its_place_in_it_and_its_instructions) {
  const scratch_folder folder;
  const result_file file = result_of(folder.write("solver", solver().bytes()), 9);
  const module_names names(file, "");
  EXPECT_THAT(names.warnings(), ElementsAre());
  const block_description described = names.describe(file.regions[0].blocks[0]);
  EXPECT_EQ(described.function, "solver::step(double)");
  EXPECT_EQ(described.offset, 4U);
  EXPECT_THAT(described.mnemonics, ElementsAre(StrEq("fadd"), StrEq("fmla")));
}

TEST(modules, operations_are_counted_as_the_tracer_counts_them) {
  EXPECT_EQ(count_operations({}), 0);
  EXPECT_EQ(count_operations({nop, fadd_d0_d1_d2, fmla_v0_v1_v2_4s}), 9);
}

TEST(modules, module_whose_operations_differ_is_shown_without_names) {
  const scratch_folder folder;
  const std::string path = folder.write("solver", solver().bytes());
  const result_file file = result_of(path, 8);
  const module_names names(file, "");
  EXPECT_THAT(names.warnings(),
              ElementsAre(path + ": its blocks have no names: it is not the file that ran, 1 of 1 block "
                                 "have other operations in it"));
  const block_description described = names.describe(file.regions[0].blocks[0]);
  EXPECT_EQ(described.function, "");
  EXPECT_THAT(described.mnemonics, ElementsAre());
}

TEST(modules, block_beyond_the_end_of_the_file_is_a_difference) {
  const scratch_folder folder;
  result_file file = result_of(folder.write("solver", solver().bytes()), 9);
  file.regions[0].blocks[0].dump_start = 1 << 30;
  file.regions[0].blocks[0].dump_end = (1 << 30) + 8;
  EXPECT_THAT(module_names(file, "").warnings(), ElementsAre(HasSubstr("it is not the file that ran")));
}

TEST(modules, block_that_ends_before_it_begins_or_is_huge_is_a_difference) {
  const scratch_folder folder;
  result_file file = result_of(folder.write("solver", solver().bytes()), 0);
  for (const std::uint64_t end : {std::uint64_t{0}, offset + (std::uint64_t{1} << 40), UINT64_MAX}) {
    file.regions[0].blocks[0].dump_end = end;
    EXPECT_THAT(module_names(file, "").warnings(), ElementsAre(HasSubstr("it is not the file that ran"))) << end;
  }
  file.regions[0].blocks[0].dump_start = UINT64_MAX - 8;
  file.regions[0].blocks[0].dump_end = UINT64_MAX;
  EXPECT_THAT(module_names(file, "").warnings(), ElementsAre(HasSubstr("it is not the file that ran")));
}

TEST(modules, modules_are_found_below_a_folder_by_their_path_and_by_their_last_part) {
  const scratch_folder folder;
  std::filesystem::create_directories(folder / "home/user");
  folder.write("home/user/solver", solver().bytes());
  const result_file by_path = result_of("/home/user/solver", 9);
  EXPECT_THAT(module_names(by_path, folder.path()).warnings(), ElementsAre());
  folder.write("other", solver().bytes());
  const result_file by_name = result_of("/opt/app/other", 9);
  EXPECT_THAT(module_names(by_name, folder.path()).warnings(), ElementsAre());
}

TEST(modules, missing_files_folders_pipes_and_other_files_are_told_once_each) {
  const scratch_folder folder;
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
  for (const std::string& path : {folder / "missing", folder.path(), pipe, folder.write("text", "no program")}) {
    EXPECT_THAT(module_names(result_of(path, 9), "").warnings(), ElementsAre(HasSubstr(": its blocks have no names: ")))
        << path;
  }
}

TEST(modules, modules_without_blocks_are_not_looked_for) {
  result_file file;
  file.modules = {"/nowhere/at/all"};
  EXPECT_THAT(module_names(file, "").warnings(), ElementsAre());
}

TEST(modules, short_paths_are_last_parts_and_longer_where_they_clash) {
  EXPECT_THAT(shortened_paths({"/home/user/app", "/lib/libm.so.6"}), ElementsAre("app", "libm.so.6"));
  EXPECT_THAT(shortened_paths({"/home/a/bin/app", "/home/b/bin/app", "/x"}),
              ElementsAre("a/bin/app", "b/bin/app", "x"));
  EXPECT_THAT(shortened_paths({"app", "/app", "/a/app"}), ElementsAre("app", "/app", "a/app"));
  EXPECT_THAT(shortened_paths({"/same", "/same"}), ElementsAre("same", "same"));
  EXPECT_THAT(shortened_paths({"", "/"}), ElementsAre("", "/"));
}

}  // namespace
}  // namespace ceilmeter::view
