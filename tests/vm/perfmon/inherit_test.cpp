// Counters that follow what the counting thread starts. The whole application is counted in this way.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include "vm_fixture.h"

namespace ceilmeter::test {
namespace {

// What one run under the group "total" counted, and what the kernel's accounting says it may be at most.
struct run_counts {
  std::uint64_t faults = 0;
  std::uint64_t cycles = 0;
  std::uint64_t task_clock = 0;
  std::uint64_t accounted_faults = 0;
};

run_counts count_total(bool inherit, const std::function<void()>& work_of_child) {
  vm_perfmon counted(inherit);
  counted.start("total");
  const std::uint64_t self = faults_of_self();
  const std::uint64_t children = faults_of_children();
  fork_and_wait(work_of_child);
  // The calls nest from the outside in: a fault between the accounting and the stop would be counted but not accounted
  // for.
  counted.stop("total");
  run_counts counts;
  counts.accounted_faults = faults_of_self() - self + faults_of_children() - children;
  counted.finalize_roofline_events();
  counts.faults = counted.total("total", FAULTS);
  counts.cycles = counted.total("total", CYCLES);
  counts.task_clock = counted.total("total", TASK_CLOCK);
  return counts;
}

TEST(inherit_test, the_page_faults_of_a_child_reach_the_parents_group) {
  for (const int pages : {500, 1000, 3000}) {
    const run_counts counts = count_total(true, [pages] { touch_pages(pages); });
    std::printf("child touches %d pages: counted %lu faults, the accounting has %lu\n", pages, counts.faults,
                counts.accounted_faults);
    EXPECT_GE(counts.faults, static_cast<std::uint64_t>(pages));
    EXPECT_LE(counts.faults, counts.accounted_faults);
  }
}

TEST(inherit_test, the_count_grows_by_the_childs_work) {
  const run_counts less = count_total(true, [] { touch_pages(1000); });
  const run_counts more = count_total(true, [] { touch_pages(3000); });
  const auto growth = static_cast<std::int64_t>(more.faults - less.faults);
  std::printf("2000 pages more: counted %ld faults more\n", growth);
  EXPECT_NEAR(static_cast<double>(growth), 2000, 20);
}

TEST(inherit_test, the_cycles_and_the_task_clock_of_a_child_reach_the_parents_group) {
  run_counts less{~0ul, ~0ul, ~0ul, 0};
  run_counts more = less;
  // The smallest of several rounds, because other work on the machine only adds.
  for (int round = 0; round < 4; ++round) {
    const run_counts small = count_total(true, [] { burn(20); });
    const run_counts large = count_total(true, [] { burn(80); });
    less.cycles = std::min(less.cycles, small.cycles);
    less.task_clock = std::min(less.task_clock, small.task_clock);
    more.cycles = std::min(more.cycles, large.cycles);
    more.task_clock = std::min(more.task_clock, large.task_clock);
  }
  std::printf("20 million operations: %lu cycles, %lu ns; 80 million: %lu cycles, %lu ns\n", less.cycles,
              less.task_clock, more.cycles, more.task_clock);
  EXPECT_GT(less.cycles, 0u);
  EXPECT_GT(more.cycles, 2 * less.cycles);
  EXPECT_GT(more.task_clock, 2 * less.task_clock);
}

TEST(inherit_test, without_inherit_the_child_is_not_counted) {
  const run_counts counts = count_total(false, [] { touch_pages(3000); });
  std::printf("child touches 3000 pages without inherit: counted %lu faults\n", counts.faults);
  EXPECT_LT(counts.faults, 1000u);
  EXPECT_GT(counts.accounted_faults, 3000u);
}

TEST(inherit_test, a_program_that_the_child_executes_is_counted) {
  const run_counts counts =
      count_total(true, [] { execl("/proc/self/exe", "perfmon_vm_test", TOUCH_OPTION, "2000", nullptr); });
  std::printf("executed program touches 2000 pages: counted %lu faults, the accounting has %lu\n", counts.faults,
              counts.accounted_faults);
  EXPECT_GE(counts.faults, 2000u);
  EXPECT_LE(counts.faults, counts.accounted_faults);
}

TEST(inherit_test, the_descriptors_of_a_group_are_gone_in_an_executed_program) {
  vm_perfmon counted(true);
  const int before = open_descriptors();
  counted.start("total");
  ASSERT_EQ(open_descriptors(), before + 3);
  // The shell sees the descriptors that the child would have had, and the descriptor of the folder.
  const std::string command = "test $(ls /proc/self/fd | wc -l) -eq " + std::to_string(before + 1);
  const child_result shell = run_in_child([&command] { execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); });
  EXPECT_EQ(shell.exit_status, 0);
  counted.finalize_roofline_events();
}

TEST(inherit_test, a_grandchild_is_counted) {
  const run_counts counts = count_total(true, [] { fork_and_wait([] { touch_pages(2000); }); });
  std::printf("grandchild touches 2000 pages: counted %lu faults, the accounting has %lu\n", counts.faults,
              counts.accounted_faults);
  EXPECT_GE(counts.faults, 2000u);
  EXPECT_LE(counts.faults, counts.accounted_faults);
}

TEST(inherit_test, the_threads_of_a_child_are_counted) {
  const run_counts counts = count_total(true, [] {
    std::thread first(touch_pages, 1000);
    std::thread second(touch_pages, 1500);
    first.join();
    second.join();
  });
  std::printf("two threads of the child touch 2500 pages: counted %lu faults, the accounting has %lu\n", counts.faults,
              counts.accounted_faults);
  EXPECT_GE(counts.faults, 2500u);
  EXPECT_LE(counts.faults, counts.accounted_faults);
}

TEST(inherit_test, a_child_that_still_runs_is_in_the_reading) {
  vm_perfmon counted(true);
  int ready[2];
  int go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  counted.start("total");
  char byte = 0;
  const pid_t child = fork();
  if (child == 0) {
    touch_pages(2000);
    (void)!write(ready[1], "", 1);
    (void)!read(go[0], &byte, 1);
    _exit(0);
  }
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const counter_table reading = counted.read("total");
  const std::uint64_t* faults = reading.find(FAULTS);
  ASSERT_NE(faults, nullptr);
  std::printf("child that still runs has touched 2000 pages: read %lu faults\n", *faults);
  EXPECT_GE(*faults, 2000u);
  ASSERT_EQ(write(go[1], "", 1), 1);
  for (const int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);
  counted.finalize_roofline_events();
}

TEST(inherit_test, a_thread_started_inside_a_region_that_starts_it_too_is_counted_by_both_groups) {
  // The first thread's counters also follow the second thread, which has a group of its own as well. An application
  // that wants every count once marks the region on its threads, and does not make threads inside the region.
  vm_perfmon counted(true);
  counted.start("r");
  std::thread([&counted] {
    counted.start("r");
    touch_pages(2000);
    counted.stop("r");
  }).join();
  counted.stop("r");
  counted.finalize_roofline_events();
  std::printf("a thread inside a region touches 2000 pages in the same region: counted %lu faults\n",
              counted.total("r", FAULTS));
  EXPECT_GE(counted.total("r", FAULTS), 4000u);
}

TEST(inherit_test, a_thread_made_between_two_rounds_of_a_region_is_counted_by_its_makers_second_round) {
  // The stopped counters also follow the new thread, and the next start in the thread that made it starts them there.
  // So the work of a thread that is in no region counts for the region of its maker.
  for (const bool made_before_the_first_start : {true, false}) {
    std::promise<void> go;
    std::thread worker;
    const auto make_worker = [&worker, &go] {
      worker = std::thread([may_go = go.get_future()] {
        may_go.wait();
        touch_pages(2000);
      });
    };
    vm_perfmon counted(true);
    if (made_before_the_first_start) make_worker();
    counted.start("r");
    counted.stop("r");
    if (!made_before_the_first_start) make_worker();
    counted.start("r");
    go.set_value();
    worker.join();
    counted.stop("r");
    counted.finalize_roofline_events();
    const std::uint64_t faults = counted.total("r", FAULTS);
    std::printf("a thread made %s the first start touches 2000 pages: its maker's region counted %lu faults\n",
                made_before_the_first_start ? "before" : "after", faults);
    if (made_before_the_first_start) {
      EXPECT_LT(faults, 1000u);
    } else {
      EXPECT_GE(faults, 2000u);
    }
  }
}

}  // namespace
}  // namespace ceilmeter::test
