// The frame of every roof measurement. The driver sees `benchmark`. `benchmark_std` starts one thread per requested
// thread, releases them together, and lets them call their kernel over and over for a fixed time. It keeps how many
// calls were completed and how long that took. The time is fixed; the count varies.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace ceilmeter {

// Pins the calling thread to the CPU of that number. Returns 0, or -1 and errno on failure. The set has room for 1024
// CPUs. A higher number leaves it empty, and the kernel refuses it with EINVAL.
int pin_to_cpu(std::uint32_t cpu);

// `value` without its fraction, as FCVTZU converts: NaN and negative values give 0, too large values give the largest
// number. C++ leaves these cases undefined, and a benchmark of no duration divides 0 by 0.
std::uint32_t cut_to_u32(double value);
std::uint64_t cut_to_u64(double value);

class benchmark {
 public:
  virtual ~benchmark() = default;

  // The roof as a whole number of `unit`s, rounded down. Valid after operator().
  virtual std::uint32_t result() = 0;
  virtual std::string unit() = 0;

  // True for a floating-point roof, false for a bandwidth.
  virtual bool is_compute() = 0;

  // Performs the measurement; the caller blocks for its length. Once per object.
  virtual void operator()() = 0;

  // What a measuring thread does before the start signal, when it is pinned already. Its time does not count. Called on
  // all measuring threads at once; they share no data that they write.
  virtual void init_thread(std::uint32_t thread_id) = 0;

  // One call of the kernel, on a measuring thread. The same rule on shared data holds.
  virtual void run_kernel(std::uint32_t thread_id, std::uint64_t iterations) = 0;
};

class benchmark_std : public benchmark {
 public:
  benchmark_std(const benchmark_std&) = delete;
  benchmark_std& operator=(const benchmark_std&) = delete;

  // Starts `num_threads` threads and measures for `duration` seconds. Thread n runs on CPU n; threads beyond the number
  // of online processors are not pinned. If a thread cannot be pinned, there is a warning and nothing more. Throws what
  // std::thread throws; with threads already running that ends the process. A thread that never returns from
  // init_thread holds the caller for ever.
  void operator()() override;

 protected:
  // `duration` in seconds; 0.0 or less means not to sleep between the start and the stop signal.
  benchmark_std(std::string benchmark_name, std::uint32_t thread_count, double seconds, std::uint64_t passes);

  std::uint64_t kernel_calls = 0;  // Completed run_kernel calls of all threads.
  double duration;                 // Seconds. Before the run: how long to run. After it: what was measured.
  std::uint32_t num_threads;
  std::uint64_t iterations;  // What run_kernel gets.

 public:
  const std::string name;

 private:
  // The measured loop: calls run_kernel while `state` is STATE_RUNNING. Returns the number of calls.
  std::uint64_t count_kernel_calls(std::uint32_t thread_id);

  std::mutex mutex;                      // Guards kernel_calls and threads_ready, and goes with ready_cond.
  std::atomic<std::uint32_t> state = 0;  // A `run_state`: moves from 0 over 1 to 2, once.
  std::condition_variable ready_cond;    // Signalled by each thread when it is ready.
  std::uint32_t threads_ready = 0;       // Threads that have finished init_thread.
};

}  // namespace ceilmeter
