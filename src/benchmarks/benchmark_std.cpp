// The time-boxed run: pin, prepare, wait for all, go, stop, add up. The loop over run_kernel is the measured path. Do
// not add anything to it that allocates, logs, locks or writes shared memory.
#include "benchmarks/benchmark_std.h"

#include <sched.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/benchmarks/benchmark_std"};

enum run_state : std::uint32_t { STATE_WAITING = 0, STATE_RUNNING = 1, STATE_STOP = 2 };

template <typename Unsigned>
Unsigned cut_to(double value) {
  // The largest number plus one is a power of two, which a double holds exactly; the largest number is not.
  constexpr double limit = 2.0 * static_cast<double>(Unsigned{1} << (std::numeric_limits<Unsigned>::digits - 1));
  if (!(value > 0.0)) return 0;
  if (value >= limit) return std::numeric_limits<Unsigned>::max();
  return static_cast<Unsigned>(value);
}

std::uint64_t monotonic_nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

void sleep_for(double seconds) {
  timespec left{};
  left.tv_sec = static_cast<std::time_t>(seconds);
  left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace

int pin_to_cpu(std::uint32_t cpu) {
  cpu_set_t set;
  static_assert(sizeof(set) == 128);
  CPU_ZERO(&set);
  if (cpu < CPU_SETSIZE) CPU_SET(cpu, &set);
  return sched_setaffinity(0, sizeof(set), &set);
}

std::uint32_t cut_to_u32(double value) { return cut_to<std::uint32_t>(value); }
std::uint64_t cut_to_u64(double value) { return cut_to<std::uint64_t>(value); }

benchmark_std::benchmark_std(std::string benchmark_name, std::uint32_t thread_count, double seconds,
                             std::uint64_t passes)
    : duration(seconds), num_threads(thread_count), iterations(passes), name(std::move(benchmark_name)) {}

// A function of its own, so that only its own variables are live in it and it can be found in a disassembly. A test
// checks that the loop is one load of `state`, the call through the virtual table, and a count in a register.
[[gnu::noinline]] std::uint64_t benchmark_std::count_kernel_calls(std::uint32_t thread_id) {
  const std::uint64_t passes = iterations;
  std::uint64_t calls = 0;
  // Reads what the two stores of operator() write. Relaxed, because the stop carries no data: the counts meet under the
  // mutex, and the caller reads them after the joins.
  while (state.load(std::memory_order_relaxed) == STATE_RUNNING) {
    ++calls;
    run_kernel(thread_id, passes);
  }
  return calls;
}

void benchmark_std::operator()() {
  std::vector<std::thread> threads;
  threads.reserve(num_threads);
  // 0 if unknown: then no thread is pinned.
  const std::uint32_t max_threads = std::thread::hardware_concurrency();

  const auto measure = [this, max_threads](std::uint32_t thread_id) {
    if (thread_id < max_threads && pin_to_cpu(thread_id) == -1) {
      log(LEVEL_WARN, "Error calling sched_setaffinity for %d thread with error:%s", static_cast<int>(thread_id),
          std::strerror(errno));
    }
    init_thread(thread_id);
    {
      const std::lock_guard<std::mutex> lock(mutex);
      ++threads_ready;
    }
    ready_cond.notify_one();

    // Pairs with the release store of STATE_RUNNING below. A blocked thread would start late by its wake-up.
    while (state.load(std::memory_order_acquire) == STATE_WAITING) {
    }
    const std::uint64_t calls = count_kernel_calls(thread_id);
    const std::lock_guard<std::mutex> lock(mutex);
    kernel_calls += calls;
  };

  for (std::uint32_t thread_id = 0; thread_id < num_threads; ++thread_id) threads.emplace_back(measure, thread_id);

  std::unique_lock<std::mutex> lock(mutex);
  ready_cond.wait(lock, [this] { return threads_ready == num_threads; });
  const std::uint64_t start = monotonic_nanoseconds();
  // Pairs with the acquire load of the waiting loop, and is read by the relaxed load of the measured loop.
  state.store(STATE_RUNNING, std::memory_order_release);
  lock.unlock();
  if (duration > 0.0) sleep_for(duration);
  // Read by the relaxed load of the measured loop, or by the waiting loop of a thread that has not run since the start.
  state.store(STATE_STOP, std::memory_order_relaxed);
  // Take the time before the joins. Calls that are still running count in full, though they end after this time.
  const std::uint64_t elapsed = monotonic_nanoseconds() - start;
  for (std::thread& thread : threads) thread.join();
  duration = static_cast<double>(elapsed) / 1e9;
}

}  // namespace ceilmeter
