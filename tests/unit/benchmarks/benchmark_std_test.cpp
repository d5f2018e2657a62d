// The frame with kernels that do nothing but count: threads, pinning, the time box, and what is kept of a run.
#include "benchmarks/benchmark_std.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "../support/fake_log.h"
#include "common/log.h"
#include "frame_seams.h"

#if defined(__SANITIZE_THREAD__)
constexpr bool under_thread_sanitizer = true;
#else
constexpr bool under_thread_sanitizer = false;
#endif

namespace ceilmeter {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class counting_benchmark : public benchmark_std {
 public:
  counting_benchmark(std::uint32_t thread_count, double seconds, std::uint64_t passes = 7)
      : benchmark_std("counting", thread_count, seconds, passes),
        inits(std::make_unique<std::atomic<std::uint64_t>[]>(thread_count)),
        calls(std::make_unique<std::atomic<std::uint64_t>[]>(thread_count)) {}

  std::uint32_t result() override { return cut_to_u32(static_cast<double>(kernel_calls) / duration); }
  std::string unit() override { return "calls/s"; }
  bool is_compute() override { return true; }

  void init_thread(std::uint32_t thread_id) override {
    if (on_init) on_init(thread_id);
    inits[thread_id].fetch_add(1);
    all_inits.fetch_add(1);
  }

  void run_kernel(std::uint32_t thread_id, std::uint64_t passes) override {
    if (all_inits.load() != num_threads) released_early = true;
    if (passes != iterations) wrong_passes = true;
    calls[thread_id].fetch_add(1);
    if (on_call) on_call(thread_id);
  }

  std::uint64_t counted() const {
    std::uint64_t sum = 0;
    for (std::uint32_t thread_id = 0; thread_id < num_threads; ++thread_id) sum += calls[thread_id];
    return sum;
  }

  using benchmark_std::duration;
  using benchmark_std::kernel_calls;
  using benchmark_std::num_threads;

  std::unique_ptr<std::atomic<std::uint64_t>[]> inits;
  std::unique_ptr<std::atomic<std::uint64_t>[]> calls;
  std::atomic<std::uint64_t> all_inits = 0;
  std::atomic<bool> released_early = false;
  std::atomic<bool> wrong_passes = false;
  std::function<void(std::uint32_t)> on_init;
  std::function<void(std::uint32_t)> on_call;
};

class frame : public testing::Test {
 protected:
  frame() { test::reset_log(LEVEL_WARN); }

  // Lengthens the frame's sleep until a kernel call has begun: on a busy machine no thread may get the processor within
  // a short time box.
  void sleep_until_called(const counting_benchmark& benchmark) {
    seams.sleep = [&benchmark, frame = std::this_thread::get_id()](const timespec& wanted, timespec* left) {
      const int result = frame_seams::real_sleep(wanted, left);
      while (std::this_thread::get_id() == frame && benchmark.counted() == 0) std::this_thread::yield();
      return result;
    };
  }

  frame_seams_guard guard;
  frame_seams& seams = frame_seams::get();
};

double seconds_since(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

TEST_F(frame, adds_up_the_calls_of_all_threads) {
  counting_benchmark benchmark(3, 0.05);
  sleep_until_called(benchmark);
  benchmark();
  EXPECT_GT(benchmark.kernel_calls, 0u);
  EXPECT_EQ(benchmark.kernel_calls, benchmark.counted());
}

TEST_F(frame, prepares_each_thread_once_under_its_own_number) {
  counting_benchmark benchmark(5, 0.01);
  benchmark();
  for (int thread_id = 0; thread_id < 5; ++thread_id) EXPECT_EQ(benchmark.inits[thread_id], 1u) << thread_id;
}

TEST_F(frame, starts_no_kernel_before_all_threads_are_prepared) {
  counting_benchmark benchmark(4, 0.05);
  sleep_until_called(benchmark);
  benchmark.on_init = [](std::uint32_t thread_id) { std::this_thread::sleep_for(milliseconds(20 * thread_id)); };
  benchmark();
  EXPECT_GT(benchmark.kernel_calls, 0u);
  EXPECT_FALSE(benchmark.released_early);
}

TEST_F(frame, hands_its_iterations_to_every_kernel_call) {
  counting_benchmark benchmark(2, 0.02, 123'456'789'012);
  sleep_until_called(benchmark);
  benchmark();
  EXPECT_GT(benchmark.kernel_calls, 0u);
  EXPECT_FALSE(benchmark.wrong_passes);
}

TEST_F(frame, runs_for_its_duration_and_keeps_the_measured_one_in_its_place) {
  counting_benchmark benchmark(2, 0.25);
  const auto start = steady_clock::now();
  benchmark();
  const double around = seconds_since(start);
  EXPECT_GE(benchmark.duration, 0.25);
  EXPECT_LE(benchmark.duration, around);
}

TEST_F(frame, leaves_the_preparation_out_of_the_measured_time) {
  counting_benchmark benchmark(1, 0.01);
  benchmark.on_init = [](std::uint32_t) { std::this_thread::sleep_for(milliseconds(400)); };
  const auto start = steady_clock::now();
  benchmark();
  EXPECT_LE(benchmark.duration, seconds_since(start) - 0.4);
}

TEST_F(frame, counts_the_call_under_way_at_the_stop_but_not_its_tail) {
  counting_benchmark benchmark(1, 0.1);
  // The frame reads the clock at the start and, after the stop signal, at the end. The tail begins behind the second
  // reading: the measured time must not depend on when a busy machine gives the frame the processor for it.
  std::atomic<bool> end_taken = false;
  int readings = 0;
  seams.after_clock = [&] { end_taken = ++readings == 2; };
  benchmark.on_call = [&](std::uint32_t) {
    while (!end_taken) std::this_thread::yield();
    std::this_thread::sleep_for(milliseconds(300));
  };
  sleep_until_called(benchmark);
  const auto start = steady_clock::now();
  benchmark();
  EXPECT_EQ(benchmark.kernel_calls, 1u);
  EXPECT_LE(benchmark.duration, seconds_since(start) - 0.3);
}

TEST_F(frame, without_threads_sleeps_and_counts_nothing) {
  counting_benchmark benchmark(0, 0.1);
  benchmark();
  EXPECT_EQ(benchmark.kernel_calls, 0u);
  EXPECT_GE(benchmark.duration, 0.1);
  EXPECT_EQ(benchmark.result(), 0u);
}

TEST_F(frame, with_no_duration_does_not_sleep) {
  bool slept = false;
  seams.sleep = [&](const timespec&, timespec*) {
    slept = true;
    return 0;
  };
  counting_benchmark benchmark(2, 0.0);
  benchmark();
  EXPECT_FALSE(slept);
  EXPECT_EQ(benchmark.kernel_calls, benchmark.counted());
}

TEST_F(frame, with_a_negative_duration_does_not_sleep) {
  bool slept = false;
  seams.sleep = [&](const timespec&, timespec*) {
    slept = true;
    return 0;
  };
  counting_benchmark benchmark(1, -1.0);
  benchmark();
  EXPECT_FALSE(slept);
}

std::atomic<bool> held = false;
std::atomic<bool> let_go = false;

// A signal handler holds the measuring thread while the state goes from waiting over running to stop.
TEST_F(frame, makes_no_call_on_a_thread_that_sees_the_stop_first) {
  if (under_thread_sanitizer) GTEST_SKIP() << "the sanitizer delivers a signal only where the thread blocks";
  held = false;
  let_go = false;
  struct sigaction action {};
  action.sa_handler = [](int) {
    held = true;
    while (!let_go) {
    }
  };
  struct sigaction previous {};
  sigaction(SIGUSR1, &action, &previous);
  counting_benchmark benchmark(1, 0.0);
  pthread_t measuring{};
  benchmark.on_init = [&](std::uint32_t) { measuring = pthread_self(); };
  int readings = 0;
  seams.before_clock = [&] {
    if (++readings == 1) {
      pthread_kill(measuring, SIGUSR1);
      while (!held) std::this_thread::yield();
    } else {
      let_go = true;
    }
  };
  benchmark();
  sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(readings, 2);
  EXPECT_EQ(benchmark.kernel_calls, 0u);
}

TEST_F(frame, sleeps_for_whole_seconds_and_the_fraction_in_nanoseconds) {
  timespec asked{};
  seams.sleep = [&](const timespec& wanted, timespec*) {
    asked = wanted;
    return 0;
  };
  counting_benchmark benchmark(0, 2.25);
  benchmark();
  EXPECT_EQ(asked.tv_sec, 2);
  EXPECT_EQ(asked.tv_nsec, 250'000'000);
}

TEST_F(frame, goes_on_sleeping_for_the_rest_after_a_signal) {
  std::vector<std::pair<long, long>> asked;
  seams.sleep = [&](const timespec& wanted, timespec* left) {
    asked.emplace_back(wanted.tv_sec, wanted.tv_nsec);
    if (asked.size() == 3) return 0;
    *left = {.tv_sec = 0, .tv_nsec = static_cast<long>(asked.size()) * 1000};
    errno = EINTR;
    return -1;
  };
  counting_benchmark benchmark(0, 1.5);
  benchmark();
  EXPECT_THAT(asked,
              testing::ElementsAre(testing::Pair(1, 500'000'000), testing::Pair(0, 1000), testing::Pair(0, 2000)));
}

TEST_F(frame, ends_its_sleep_on_an_error_that_is_no_signal) {
  int sleeps = 0;
  seams.sleep = [&](const timespec&, timespec*) {
    ++sleeps;
    errno = EINVAL;
    return -1;
  };
  counting_benchmark benchmark(0, 1.0);
  benchmark();
  EXPECT_EQ(sleeps, 1);
}

// The CPUs of all sets that were asked for; an empty set counts as -1.
std::multiset<int> cpus_asked_for() {
  std::multiset<int> cpus;
  for (const affinity_call& call : frame_seams::affinity_calls()) {
    EXPECT_EQ(call.pid, 0);
    EXPECT_EQ(call.bytes, 128u);
    EXPECT_LE(CPU_COUNT(&call.set), 1);
    int cpu = -1;
    for (int n = 0; n < CPU_SETSIZE; ++n) {
      if (CPU_ISSET(n, &call.set)) cpu = n;
    }
    cpus.insert(cpu);
  }
  return cpus;
}

TEST_F(frame, pins_each_thread_to_the_processor_of_its_number) {
  seams.processors = 4;
  counting_benchmark benchmark(3, 0.0);
  benchmark();
  EXPECT_THAT(cpus_asked_for(), testing::ElementsAre(0, 1, 2));
}

TEST_F(frame, leaves_the_threads_beyond_the_processors_unpinned) {
  seams.processors = 2;
  counting_benchmark benchmark(5, 0.01);
  benchmark();
  EXPECT_THAT(cpus_asked_for(), testing::ElementsAre(0, 1));
  EXPECT_EQ(benchmark.all_inits, 5u);
}

TEST_F(frame, pins_no_thread_if_the_number_of_processors_is_unknown) {
  seams.processors = 0;
  counting_benchmark benchmark(3, 0.01);
  benchmark();
  EXPECT_TRUE(frame_seams::affinity_calls().empty());
  EXPECT_EQ(benchmark.all_inits, 3u);
}

TEST_F(frame, pins_before_it_prepares) {
  seams.processors = 1;
  counting_benchmark benchmark(1, 0.0);
  std::size_t calls_before = 0;
  benchmark.on_init = [&](std::uint32_t) { calls_before = frame_seams::affinity_calls().size(); };
  benchmark();
  EXPECT_EQ(calls_before, 1u);
}

TEST_F(frame, warns_of_each_thread_that_cannot_be_pinned_and_measures_on) {
  seams.processors = 2;
  seams.pinning_error = EINVAL;
  counting_benchmark benchmark(2, 0.05);
  sleep_until_called(benchmark);
  benchmark();
  EXPECT_THAT(
      test::logged_texts(LEVEL_WARN),
      testing::UnorderedElementsAre("Error calling sched_setaffinity for 0 thread with error:Invalid argument",
                                    "Error calling sched_setaffinity for 1 thread with error:Invalid argument"));
  EXPECT_GT(benchmark.kernel_calls, 0u);
}

TEST_F(frame, logs_a_failed_pinning_under_its_own_source_and_the_call_operator) {
  seams.processors = 1;
  seams.pinning_error = EPERM;
  counting_benchmark benchmark(1, 0.0);
  benchmark();
  EXPECT_THAT(test::logged_lines(),
              testing::ElementsAre(test::logged_line{
                  "src/benchmarks/benchmark_std", "operator()", LEVEL_WARN,
                  "Error calling sched_setaffinity for 0 thread with error:Operation not permitted"}));
}

TEST_F(frame, logs_nothing_of_a_run_without_trouble) {
  test::reset_log(LEVEL_TRACE_DATA);
  seams.processors = 1;
  counting_benchmark benchmark(2, 0.01);
  benchmark();
  EXPECT_TRUE(test::logged_lines().empty());
}

// Holds each thread asleep in its preparation until all have reached it. The frame's own waiting spins, and a thousand
// spinning threads leave two processors no time to make the next one.
class many_threads : public counting_benchmark {
 public:
  using counting_benchmark::counting_benchmark;

  void init_thread(std::uint32_t thread_id) override {
    counting_benchmark::init_thread(thread_id);
    if (arrived.fetch_add(1) + 1 == num_threads) {
      complete = true;
      complete.notify_all();
    } else {
      complete.wait(false);
    }
  }

 private:
  std::atomic<std::uint32_t> arrived = 0;
  std::atomic<bool> complete = false;
};

// The set has room for 1024 processors. The kernel refuses an empty one.
TEST_F(frame, asks_for_no_processor_at_all_from_number_1024_on) {
  for (const std::uint32_t cpu : {1024u, 1025u, 5000u, 0xffffffffu}) {
    errno = 0;
    EXPECT_EQ(pin_to_cpu(cpu), -1) << cpu;
    EXPECT_EQ(errno, EINVAL) << cpu;
  }
  EXPECT_EQ(cpus_asked_for(), (std::multiset<int>{-1, -1, -1, -1}));
}

TEST_F(frame, asks_for_processor_1023_by_its_number) {
  pin_to_cpu(1023);
  EXPECT_EQ(cpus_asked_for(), std::multiset<int>{1023});
}

// The same with as many threads, which spin once they are ready. On two processors, beside other load, that can take
// minutes.
TEST_F(frame, asks_for_no_processor_at_all_from_thread_1024_on) {
  if (std::getenv("CEILMETER_LONG") == nullptr) GTEST_SKIP() << "a thousand spinning threads: in the long run only";
  seams.processors = 1026;
  many_threads benchmark(1026, 0.0);
  benchmark();
  EXPECT_THAT(test::logged_texts(LEVEL_WARN),
              testing::IsSupersetOf({"Error calling sched_setaffinity for 1024 thread with error:Invalid argument",
                                     "Error calling sched_setaffinity for 1025 thread with error:Invalid argument"}));
  const std::multiset<int> cpus = cpus_asked_for();
  EXPECT_EQ(cpus.count(-1), 2u);
  EXPECT_EQ(cpus.count(1023), 1u);
  EXPECT_EQ(cpus.size(), 1026u);
}

TEST_F(frame, throws_what_the_standard_library_throws_if_its_first_thread_cannot_be_made) {
  seams.threads_to_allow = 0;
  counting_benchmark benchmark(2, 0.01);
  EXPECT_THROW(benchmark(), std::system_error);
}

TEST_F(frame, ends_the_process_if_a_thread_cannot_be_made_while_others_run) {
  EXPECT_DEATH(
      {
        frame_seams::get().threads_to_allow = 1;
        counting_benchmark benchmark(2, 0.01);
        benchmark();
      },
      "");
}

TEST_F(frame, survives_many_short_rounds_with_more_threads_than_processors) {
  const auto start = steady_clock::now();
  for (int round = 0; round < 100; ++round) {
    counting_benchmark benchmark(6, round % 2 == 0 ? 0.0 : 0.001);
    benchmark();
    ASSERT_EQ(benchmark.kernel_calls, benchmark.counted()) << "round " << round;
    ASSERT_FALSE(benchmark.released_early) << "round " << round;
    ASSERT_LT(seconds_since(start), 120.0) << "round " << round;
  }
}

TEST(cutting, drops_the_fraction) {
  EXPECT_EQ(cut_to_u32(49.999), 49u);
  EXPECT_EQ(cut_to_u64(0.999), 0u);
  EXPECT_EQ(cut_to_u64(9007199254740993.0), 9007199254740992u);
}

TEST(cutting, gives_0_for_what_is_no_number_or_below_0) {
  EXPECT_EQ(cut_to_u32(std::nan("")), 0u);
  EXPECT_EQ(cut_to_u64(-1.0), 0u);
  EXPECT_EQ(cut_to_u64(-std::numeric_limits<double>::infinity()), 0u);
}

TEST(cutting, gives_the_largest_number_for_what_is_too_large) {
  EXPECT_EQ(cut_to_u32(4294967295.0), 4294967295u);
  EXPECT_EQ(cut_to_u32(4294967296.0), 4294967295u);
  EXPECT_EQ(cut_to_u64(18446744073709551616.0), 18446744073709551615u);
  EXPECT_EQ(cut_to_u64(std::numeric_limits<double>::infinity()), 18446744073709551615u);
}

}  // namespace
}  // namespace ceilmeter
