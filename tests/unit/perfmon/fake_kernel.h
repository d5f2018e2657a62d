// A kernel with performance counters for the tests: it answers perf_event_open, and ioctl, read and close on the
// descriptors that it gave out, and the monotonic clock; all else goes on to the real kernel. What it is asked is
// recorded, word by word where the interface is binary.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ceilmeter::test {

struct open_call {
  long number = 0;
  std::array<std::uint64_t, 14> attr = {};  // The 112 bytes of the structure.
  long pid = 0;
  long cpu = 0;
  long group_fd = 0;
  unsigned long flags = 0;
};

// Only one may exist at a time. Counting threads must have ended when it is destroyed.
class fake_kernel {
 public:
  enum class recording { on, off };

  // Without recording no call takes a lock or orders memory between threads, so that ThreadSanitizer judges the locks
  // of the code under test and not those of the test.
  explicit fake_kernel(recording mode = recording::on);
  ~fake_kernel();
  fake_kernel(const fake_kernel&) = delete;
  fake_kernel& operator=(const fake_kernel&) = delete;

  // The script. Set it before the calls that it concerns.
  std::map<std::uint64_t, int> refused;               // Event code to errno of its open.
  std::optional<long> open_result;                    // What every open returns, in place of a new counter.
  int open_limit = 1 << 20;                           // Opens that succeed; EMFILE from there on.
  std::map<std::uint64_t, std::uint64_t> ids;         // Event code to kernel id, in place of the usual one.
  std::optional<std::vector<std::uint64_t>> reading;  // What every read delivers, in place of the counters.
  std::optional<std::size_t> read_bytes;              // How much of it.
  int read_error = 0;                                 // errno of every read.
  std::uint64_t time_enabled = 100;
  std::uint64_t time_running = 100;
  // Counters of the unit; 0: no limit. A larger group never runs. If it is opened to run at once, the kernel refuses
  // it; if it is opened stopped, the kernel accepts it.
  int width = 0;
  int starved_readings = 0;         // So many readings find that no group has run.
  std::vector<std::int64_t> clock;  // The next readings of the clock, in nanoseconds.

  // Adds to the counter of an event code in the group of `leader`.
  void count(int leader, std::uint64_t config, std::uint64_t value);

  // What was recorded.
  std::vector<open_call> opens() const;
  std::vector<std::string> calls() const;  // Every call but gettid, in order, in words.
  std::vector<std::uint64_t> opened_configs() const;

  // State of the counters. Descriptors are numbered from `first_fd` in the order of opening.
  static constexpr int first_fd = 700000;
  bool enabled(int leader) const;
  int enables(int leader) const;
  int open_descriptors() const;

  // The system calls.
  bool owns(int fd) const;
  long perf_event_open(long number, const void* attr, long pid, long cpu, long group_fd, unsigned long flags);
  int ioctl(int fd, unsigned long request, unsigned long argument);
  long read(int fd, void* buffer, std::size_t size);
  int close(int fd);
  std::int64_t monotonic_nanoseconds();

  static fake_kernel* current();

 private:
  // Lock-free, see above. A slot is written by the thread that opens it and read by that thread and the finaliser.
  struct counter {
    std::atomic<std::uint64_t> config{0};
    std::atomic<std::uint64_t> value{0};
    std::atomic<int> leader{-1};
    std::atomic<int> enables{0};
    std::atomic<bool> enabled{false};
    std::atomic<bool> open{false};
  };
  static constexpr int capacity = 1 << 14;

  int open_members(int leader) const;
  bool runs(int leader);

  counter* find(int fd);
  const counter* find(int fd) const;
  std::vector<std::uint64_t> times_of(int leader);
  std::uint64_t id_of(int fd) const;
  void record(std::string text);

  const recording mode_;
  std::vector<counter> counters_;
  std::atomic<int> counter_count_{0};
  std::atomic<std::size_t> clock_position_{0};
  mutable std::mutex mutex_;  // Guards what follows.
  std::vector<open_call> opens_;
  std::vector<std::string> calls_;
  std::uint64_t starved_time_ = 0;  // For which groups were enabled without running.
  std::uint64_t ran_after_ = 0;     // For which one ran after that.
};

}  // namespace ceilmeter::test
