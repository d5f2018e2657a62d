// What the kernel refuses: descriptors beyond the limit, ordinary users while perf_event_paranoid forbids them, events
// that do not exist. Every case in a child of its own, whose whole log is compared.
#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "common/log.h"
#include "perfmon/perfmon_utils.h"
#include "vm_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string LIMIT_REACHED = "warn perf_event_open failed with Too many open files";
const std::string LIMIT_HINT =
    "warn Hit the upper limit of files it's allowed to open, usually 1,024. Please temporarily increase the limit to, "
    "for example, 2,048 files, with the command \"ulimit -n 2048\"";

// Leaves only the standard streams open, and room for `limit` descriptors in all.
void limit_descriptors(rlim_t limit) {
  closefrom(STDERR_FILENO + 1);
  const rlimit value{limit, limit};
  if (setrlimit(RLIMIT_NOFILE, &value) != 0) _exit(99);
}

// Sets perf_event_paranoid for its lifetime.
class paranoid_level {
 public:
  explicit paranoid_level(int level) {
    std::ifstream(PATH) >> before_;
    std::ofstream(PATH) << level << std::endl;
    int now = -2;
    std::ifstream(PATH) >> now;
    EXPECT_EQ(now, level);
  }
  ~paranoid_level() { std::ofstream(PATH) << before_ << std::endl; }
  paranoid_level(const paranoid_level&) = delete;
  paranoid_level& operator=(const paranoid_level&) = delete;

 private:
  static constexpr char PATH[] = "/proc/sys/kernel/perf_event_paranoid";
  int before_ = 0;
};

void become_ordinary_user() {
  if (setgid(1000) != 0 || setuid(1000) != 0) _exit(99);
}

void count_total() {
  real_perfmon counted(true);
  counted.start_roofline_events("total");
  burn(1);
  counted.stop_roofline_events("total");
  counted.finalize_roofline_events();
  std::printf("%zu regions\n", counted.get_roofline_events().size());
}

TEST(limits_test, a_descriptor_limit_of_8_gives_exactly_the_two_warnings_of_the_sixth_event) {
  const child_result child = run_in_child([] {
    limit_descriptors(8);
    real_perfmon counted(true);
    counted.start_roofline_events("total");
    EXPECT_EQ(counted.counters("total").events.size(), 5u);
    counted.stop_roofline_events("total");
    counted.finalize_roofline_events();
    const std::vector<perfmon_region> regions = counted.get_roofline_events();
    ASSERT_EQ(regions.size(), 1u);
    EXPECT_GT(*regions[0].metrics.find("time"), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, ElementsAre(LIMIT_REACHED, LIMIT_HINT));
}

TEST(limits_test, a_descriptor_limit_that_leaves_no_room_gives_two_warnings_an_event_and_those_of_start_and_stop) {
  const child_result child = run_in_child([] {
    limit_descriptors(3);
    vm_perfmon counted(true, {{PERF_TYPE_RAW, {{"A", 0x11, -1}, {"B", 0x11, -1}}}});
    counted.start_roofline_events("total");
    counted.stop_roofline_events("total");
    counted.finalize_roofline_events();
    EXPECT_EQ(counted.get_roofline_events().size(), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log,
              ElementsAre(LIMIT_REACHED, LIMIT_HINT, LIMIT_REACHED, LIMIT_HINT,
                          "warn failed to perfmon::open_roofline_events for total region",
                          "warn couldn't stop_roofline_events for total region because group_fd was not set"));
}

TEST(limits_test, after_the_limit_is_lifted_the_next_start_opens_the_group) {
  const child_result child = run_in_child([] {
    closefrom(STDERR_FILENO + 1);
    rlimit value{3, 1024};
    if (setrlimit(RLIMIT_NOFILE, &value) != 0) _exit(99);
    vm_perfmon counted(true, {{PERF_TYPE_RAW, {{"A", 0x11, -1}}}});
    counted.start_roofline_events("total");
    value.rlim_cur = 1024;
    if (setrlimit(RLIMIT_NOFILE, &value) != 0) _exit(99);
    counted.start_roofline_events("total");
    burn(5);
    counted.stop_roofline_events("total");
    counted.finalize_roofline_events();
    EXPECT_GT(counted.total("total", "A"), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log,
              ElementsAre(LIMIT_REACHED, LIMIT_HINT, "warn failed to perfmon::open_roofline_events for total region"));
}

TEST(limits_test, an_ordinary_user_at_paranoid_3_gets_one_warning_an_event_and_those_of_start_and_stop) {
  const paranoid_level level(3);
  const child_result child = run_in_child([] {
    become_ordinary_user();
    count_total();
  });
  EXPECT_EQ(child.exit_status, 0);
  const std::string refused = "warn perf_event_open failed with Permission denied";
  EXPECT_THAT(child.log,
              ElementsAre(refused, refused, refused, refused, refused, refused,
                          "warn failed to perfmon::open_roofline_events for total region",
                          "warn couldn't stop_roofline_events for total region because group_fd was not set"));
}

TEST(limits_test, an_ordinary_user_at_paranoid_2_counts_the_user_mode_work_without_a_warning) {
  const paranoid_level level(2);
  const child_result child = run_in_child([] {
    become_ordinary_user();
    vm_perfmon counted(true);
    counted.start("total");
    fork_and_wait([] { touch_pages(1000); });
    counted.stop("total");
    counted.finalize_roofline_events();
    std::printf("ordinary user at paranoid 2: counted %lu faults, %lu cycles\n", counted.total("total", FAULTS),
                counted.total("total", CYCLES));
    EXPECT_GE(counted.total("total", FAULTS), 1000u);
    EXPECT_GT(counted.total("total", CYCLES), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, IsEmpty());
}

TEST(limits_test, an_event_that_the_machine_does_not_know_leaves_the_group_one_counter_short) {
  const child_result child = run_in_child([] {
    // No counter unit has this type.
    vm_perfmon counted(true, {{PERF_TYPE_RAW, {{CYCLES, 0x11, -1}}}, {0x7FFFFFF0, {{"NOTHING", 1, -1}}}});
    counted.start_roofline_events("total");
    const perfmon_event_desc unknown{.type = 0x7FFFFFF0, .config = 1, .inherit = 1};
    EXPECT_EQ(perfmon_utils_event_open_core(&unknown, 0, -1, counted.counters("total").group_fd, 8), -1);
    burn(5);
    counted.stop_roofline_events("total");
    counted.finalize_roofline_events();
    EXPECT_GT(counted.total("total", CYCLES), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, ElementsAre("warn perf_event_open failed with No such file or directory"));
}

TEST(limits_test, the_debug_line_of_an_open_goes_ahead_of_its_warning) {
  const child_result child = run_in_child([] {
    mora_log_set_level(LEVEL_DEBUG);
    const perfmon_event_desc unknown{.type = 0x7FFFFFF0, .config = 0xABC, .inherit = 1};
    perfmon_utils_event_open_core(&unknown, 0, -1, -1, 8);
  });
  EXPECT_THAT(child.log,
              ElementsAre("debug perf_event_open: type 2147483632, config abc, inherit: 1, cpu -1, group_fd -1, flags "
                          "8, ret -1",
                          "warn perf_event_open failed with No such file or directory"));
}

TEST(limits_test, the_kernel_takes_the_uncore_shape_and_delivers_value_and_both_times) {
  const child_result child = run_in_child([] {
    const perfmon_event_desc clock{.type = PERF_TYPE_SOFTWARE, .config = PERF_COUNT_SW_CPU_CLOCK, .inherit = 0};
    const std::int32_t fd = perfmon_utils_event_open_uncore(&clock, 0, -1, PERF_FLAG_FD_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::uint64_t words[4] = {};
    ASSERT_EQ(read(fd, words, sizeof words), 24);
    EXPECT_EQ(words[0], 0u);  // Created stopped.
    ASSERT_EQ(ioctl(fd, PERF_EVENT_IOC_ENABLE, 0), 0);
    burn(20);
    ASSERT_EQ(ioctl(fd, PERF_EVENT_IOC_DISABLE, 0), 0);
    ASSERT_EQ(read(fd, words, sizeof words), 24);
    std::printf("uncore shape on processor 0: value %lu, enabled %lu, running %lu\n", words[0], words[1], words[2]);
    EXPECT_GT(words[0], 0u);
    EXPECT_GT(words[1], 0u);
    EXPECT_EQ(words[1], words[2]);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, IsEmpty());
}

TEST(limits_test, the_uncore_shape_is_refused_to_an_ordinary_user_with_one_warning) {
  const paranoid_level level(2);
  const child_result child = run_in_child([] {
    become_ordinary_user();
    const perfmon_event_desc clock{.type = PERF_TYPE_SOFTWARE, .config = PERF_COUNT_SW_CPU_CLOCK, .inherit = 0};
    EXPECT_EQ(perfmon_utils_event_open_uncore(&clock, 0, -1, PERF_FLAG_FD_CLOEXEC), -1);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, ElementsAre("warn perfmon_utils_event_open_uncore failed with Permission denied"));
}

}  // namespace
}  // namespace ceilmeter::test
