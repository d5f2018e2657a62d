// Every bit that reaches the kernel when a counter is opened, every line that is logged about it, and the two
// environment helpers.
#include "perfmon/perfmon_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "../support/fake_log.h"
#include "common/log.h"
#include "fake_kernel.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string SOURCE = "src/perfmon/perfmon_utils";
const std::string LIMIT_HINT =
    "Hit the upper limit of files it's allowed to open, usually 1,024. Please temporarily increase the limit to, for "
    "example, 2,048 files, with the command \"ulimit -n 2048\"";

class perfmon_utils_test : public ::testing::Test {
 protected:
  perfmon_utils_test() { reset_log(LEVEL_WARN); }
  ~perfmon_utils_test() override { reset_log(LEVEL_WARN); }

  std::int32_t open_core(const perfmon_event_desc& desc) { return perfmon_utils_event_open_core(&desc, 0, -1, -1, 8); }
  std::int32_t open_uncore(const perfmon_event_desc& desc) { return perfmon_utils_event_open_uncore(&desc, 1, -1, 8); }

  fake_kernel kernel;
};

// The low half of the first word is the type, the high half its size.
constexpr std::uint64_t first_word(std::uint64_t type) { return type | std::uint64_t{112} << 32; }

TEST_F(perfmon_utils_test, core_attribute_is_112_bytes_with_read_format_15_and_flags_200061_and_else_zero) {
  open_core({.type = 4, .config = 0x600B, .inherit = 0});
  ASSERT_EQ(kernel.opens().size(), 1u);
  EXPECT_THAT(kernel.opens()[0].attr, ElementsAre(first_word(4), 0x600B, 0, 0, 15, 0x200061, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(perfmon_utils_test, core_attribute_with_inherit_has_flags_200063) {
  open_core({.type = 4, .config = 0x4, .inherit = 1});
  ASSERT_EQ(kernel.opens().size(), 1u);
  EXPECT_THAT(kernel.opens()[0].attr, ElementsAre(first_word(4), 0x4, 0, 0, 15, 0x200063, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(perfmon_utils_test, uncore_attribute_is_112_bytes_with_read_format_3_and_flags_1_and_else_zero) {
  open_uncore({.type = 9, .config = 0xABCDEF0123456789, .inherit = 0});
  ASSERT_EQ(kernel.opens().size(), 1u);
  EXPECT_THAT(kernel.opens()[0].attr,
              ElementsAre(first_word(9), 0xABCDEF0123456789, 0, 0, 3, 1, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(perfmon_utils_test, uncore_attribute_with_inherit_has_flags_3) {
  open_uncore({.type = 9, .config = 0x4, .inherit = 1});
  ASSERT_EQ(kernel.opens().size(), 1u);
  EXPECT_THAT(kernel.opens()[0].attr, ElementsAre(first_word(9), 0x4, 0, 0, 3, 3, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(perfmon_utils_test, only_bit_0_of_inherit_counts) {
  open_core({.type = 4, .config = 1, .inherit = 2});
  open_core({.type = 4, .config = 1, .inherit = 0xFFFFFFFE});
  open_core({.type = 4, .config = 1, .inherit = 3});
  open_uncore({.type = 4, .config = 1, .inherit = 2});
  open_uncore({.type = 4, .config = 1, .inherit = 0xFFFFFFFF});
  std::vector<std::uint64_t> flags;
  for (const open_call& call : kernel.opens()) flags.push_back(call.attr[5]);
  EXPECT_THAT(flags, ElementsAre(0x200061, 0x200061, 0x200063, 1, 3));
}

TEST_F(perfmon_utils_test, core_open_passes_its_arguments_on_unchanged) {
  const perfmon_event_desc desc{.type = 4, .config = 1, .inherit = 0};
  perfmon_utils_event_open_core(&desc, -77, 3, 12, 0xF00000000000000A);
  ASSERT_EQ(kernel.opens().size(), 1u);
  const open_call call = kernel.opens()[0];
  EXPECT_EQ(call.number, SYS_perf_event_open);
  EXPECT_EQ(call.pid, -77);
  EXPECT_EQ(call.cpu, 3);
  EXPECT_EQ(call.group_fd, 12);
  EXPECT_EQ(call.flags, 0xF00000000000000Aul);
}

TEST_F(perfmon_utils_test, uncore_open_watches_a_whole_cpu_and_passes_the_rest_on_unchanged) {
  const perfmon_event_desc desc{.type = 4, .config = 1, .inherit = 0};
  perfmon_utils_event_open_uncore(&desc, 3, 12, 0xF00000000000000A);
  ASSERT_EQ(kernel.opens().size(), 1u);
  const open_call call = kernel.opens()[0];
  EXPECT_EQ(call.number, SYS_perf_event_open);
  EXPECT_EQ(call.pid, -1);
  EXPECT_EQ(call.cpu, 3);
  EXPECT_EQ(call.group_fd, 12);
  EXPECT_EQ(call.flags, 0xF00000000000000Aul);
}

#ifdef __aarch64__
TEST_F(perfmon_utils_test, the_system_call_has_number_241) {
  open_core({.type = 4, .config = 1, .inherit = 0});
  ASSERT_EQ(kernel.opens().size(), 1u);
  EXPECT_EQ(kernel.opens()[0].number, 241);
}
#endif

TEST_F(perfmon_utils_test, opens_return_the_descriptor) {
  EXPECT_EQ(open_core({.type = 4, .config = 1, .inherit = 0}), fake_kernel::first_fd);
  EXPECT_EQ(open_uncore({.type = 4, .config = 1, .inherit = 0}), fake_kernel::first_fd + 1);
}

TEST_F(perfmon_utils_test, only_the_low_32_bits_of_the_result_are_looked_at) {
  kernel.open_result = 0x500000007;
  EXPECT_EQ(open_core({}), 7);
  EXPECT_EQ(open_uncore({}), 7);
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_utils_test, a_result_whose_low_half_is_minus_1_is_a_failure) {
  kernel.open_result = 0xFFFFFFFF;
  EXPECT_EQ(open_core({}), -1);
  EXPECT_EQ(open_uncore({}), -1);
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("perf_event_open failed with Invalid argument",
                                                    "perfmon_utils_event_open_uncore failed with Invalid argument"));
}

TEST_F(perfmon_utils_test, a_negative_result_other_than_minus_1_is_handed_on_without_a_warning) {
  kernel.open_result = -2;
  EXPECT_EQ(open_core({}), -2);
  EXPECT_EQ(open_uncore({}), -2);
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_utils_test, a_successful_open_prints_nothing_at_level_warn) {
  open_core({.type = 4, .config = 1, .inherit = 0});
  open_uncore({.type = 4, .config = 1, .inherit = 0});
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_utils_test, a_successful_open_prints_nothing_at_level_info) {
  reset_log(LEVEL_INFO);
  open_core({.type = 4, .config = 1, .inherit = 0});
  open_uncore({.type = 4, .config = 1, .inherit = 0});
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_utils_test, the_debug_line_of_a_core_open_tells_everything_but_the_pid) {
  reset_log(LEVEL_DEBUG);
  const perfmon_event_desc desc{.type = 4, .config = 0x600B, .inherit = 3};
  perfmon_utils_event_open_core(&desc, 1234, -1, 55, 8);
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "perfmon_utils_event_open_core", LEVEL_DEBUG,
                                      "perf_event_open: type 4, config 600b, inherit: 3, cpu -1, group_fd 55, flags 8, "
                                      "ret 700000"}));
}

TEST_F(perfmon_utils_test, the_debug_line_of_an_uncore_open_names_its_function) {
  reset_log(LEVEL_DEBUG);
  const perfmon_event_desc desc{.type = 0xFFFFFFFF, .config = 0x11, .inherit = 0};
  perfmon_utils_event_open_uncore(&desc, 2, -1, 0x8000000000000000);
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "perfmon_utils_event_open_uncore", LEVEL_DEBUG,
                                      "perfmon_utils_event_open_uncore: type -1, config 11, inherit: 0, cpu 2, "
                                      "group_fd -1, flags 9223372036854775808, ret 700000"}));
}

TEST_F(perfmon_utils_test, a_failed_core_open_logs_debug_with_ret_minus_1_ahead_of_the_warning) {
  reset_log(LEVEL_DEBUG);
  kernel.refused[4] = ENOENT;
  EXPECT_EQ(open_core({.type = 4, .config = 4, .inherit = 1}), -1);
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "perfmon_utils_event_open_core", LEVEL_DEBUG,
                                      "perf_event_open: type 4, config 4, inherit: 1, cpu -1, group_fd -1, flags 8, "
                                      "ret -1"},
                          logged_line{SOURCE, "perfmon_utils_event_open_core", LEVEL_WARN,
                                      "perf_event_open failed with No such file or directory"}));
}

TEST_F(perfmon_utils_test, a_failed_uncore_open_logs_debug_with_ret_minus_1_ahead_of_the_warning) {
  reset_log(LEVEL_DEBUG);
  kernel.refused[4] = EACCES;
  EXPECT_EQ(open_uncore({.type = 7, .config = 4, .inherit = 1}), -1);
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "perfmon_utils_event_open_uncore", LEVEL_DEBUG,
                                      "perfmon_utils_event_open_uncore: type 7, config 4, inherit: 1, cpu 1, "
                                      "group_fd -1, flags 8, ret -1"},
                          logged_line{SOURCE, "perfmon_utils_event_open_uncore", LEVEL_WARN,
                                      "perfmon_utils_event_open_uncore failed with Permission denied"}));
}

TEST_F(perfmon_utils_test, a_descriptor_limit_gives_exactly_two_warnings_for_a_core_open) {
  kernel.open_limit = 0;
  EXPECT_EQ(open_core({}), -1);
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "perfmon_utils_event_open_core", LEVEL_WARN,
                                      "perf_event_open failed with Too many open files"},
                          logged_line{SOURCE, "perfmon_utils_event_open_core", LEVEL_WARN, LIMIT_HINT}));
}

TEST_F(perfmon_utils_test, a_descriptor_limit_gives_exactly_two_warnings_for_an_uncore_open) {
  kernel.open_limit = 0;
  EXPECT_EQ(open_uncore({}), -1);
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "perfmon_utils_event_open_uncore", LEVEL_WARN,
                                      "perfmon_utils_event_open_uncore failed with Too many open files"},
                          logged_line{SOURCE, "perfmon_utils_event_open_uncore", LEVEL_WARN, LIMIT_HINT}));
}

TEST_F(perfmon_utils_test, any_error_but_the_descriptor_limit_gives_exactly_one_warning) {
  for (const int error : {EACCES, EPERM, ENOENT, EINVAL, ENFILE, ENOSYS, ENODEV, EOPNOTSUPP, EBUSY, ENOSPC}) {
    SCOPED_TRACE(error);
    reset_log(LEVEL_WARN);
    kernel.refused[1] = error;
    EXPECT_EQ(open_core({.type = 4, .config = 1, .inherit = 0}), -1);
    EXPECT_THAT(logged_texts(LEVEL_WARN),
                ElementsAre(std::string("perf_event_open failed with ") + std::strerror(error)));
  }
}

TEST_F(perfmon_utils_test, a_descriptor_limit_is_still_recognised_after_a_debug_line_that_changed_errno) {
  reset_log(LEVEL_DEBUG);
  kernel.open_limit = 0;
  open_core({});
  open_uncore({});
  EXPECT_THAT(logged_texts(LEVEL_WARN),
              ElementsAre("perf_event_open failed with Too many open files", LIMIT_HINT,
                          "perfmon_utils_event_open_uncore failed with Too many open files", LIMIT_HINT));
}

class perfmon_utils_env_test : public ::testing::Test {
 protected:
  perfmon_utils_env_test() {
    reset_log(LEVEL_TRACE);
    unsetenv(NAME);
  }
  ~perfmon_utils_env_test() override {
    unsetenv(NAME);
    reset_log(LEVEL_WARN);
  }

  static constexpr const char* NAME = "PERFMON_UTILS_TEST_VARIABLE";
};

TEST_F(perfmon_utils_env_test, an_unset_variable_and_one_set_to_nothing_both_give_an_empty_string) {
  EXPECT_EQ(perfmon_utils_get_env(NAME), "");
  ASSERT_EQ(setenv(NAME, "", 1), 0);
  EXPECT_EQ(perfmon_utils_get_env(NAME), "");
}

TEST_F(perfmon_utils_env_test, a_variable_is_set_and_read_back) {
  EXPECT_EQ(perfmon_utils_set_env(NAME, "some value=1"), 0);
  EXPECT_STREQ(getenv(NAME), "some value=1");
  EXPECT_EQ(perfmon_utils_get_env(NAME), "some value=1");
}

TEST_F(perfmon_utils_env_test, setting_overwrites_an_earlier_value) {
  ASSERT_EQ(setenv(NAME, "old", 1), 0);
  EXPECT_EQ(perfmon_utils_set_env(NAME, "new"), 0);
  EXPECT_STREQ(getenv(NAME), "new");
}

TEST_F(perfmon_utils_env_test, setting_logs_nothing_when_it_succeeds) {
  perfmon_utils_set_env(NAME, "value");
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_utils_env_test, a_name_that_the_environment_cannot_hold_gives_one_warning_and_the_result_of_setenv) {
  EXPECT_EQ(perfmon_utils_set_env("A=B", "value"), -1);
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "perfmon_utils_set_env", LEVEL_WARN,
                                                      "setenv A=B=value failed with error:\nInvalid argument"}));
}

}  // namespace
}  // namespace ceilmeter::test
