// Threads that throw through frames with destructors and catch, again and again, with work of a fixed number of
// operations in between, all of it in the region "work" of each thread. Prints the operations.
//
//   throwing_threads [THREADS [ROUNDS]]
#include <roofline_events.h>

#include <atomic>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr long operations_of_a_round = 200;
std::atomic<long> destroyed = 0;

struct counted {
  ~counted() { destroyed.fetch_add(1); }
};

[[gnu::noinline]] void work() {
  double value = 0.5;
  long left = operations_of_a_round / 2;
  __asm__ volatile(
      "1: fmadd %d0, %d0, %d0, %d0\n"
      "   subs  %1, %1, #1\n"
      "   b.ne  1b\n"
      : "+w"(value), "+r"(left)
      :
      : "cc");
}

[[gnu::noinline]] void descend(int depth, int round) {
  const counted local;
  if (depth == 0) throw std::runtime_error("round " + std::to_string(round));
  descend(depth - 1, round);
}

// All threads are inside the region, and alive, until the last of them has done its work.
void run(int rounds, std::atomic<int>* caught, std::barrier<>* all_done) {
  start_perf_roofline_events("work");
  for (int round = 0; round < rounds; ++round) {
    work();
    try {
      descend(9, round);
    } catch (const std::exception& error) {
      if (error.what() == "round " + std::to_string(round)) caught->fetch_add(1);
    }
  }
  all_done->arrive_and_wait();
  stop_perf_roofline_events("work");
}

}  // namespace

int main(int argc, char** argv) {
  const int thread_count = argc > 1 ? std::atoi(argv[1]) : 4;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 25;
  std::atomic<int> caught = 0;
  init_perf_roofline_events();
  std::barrier<> all_done(thread_count);
  std::vector<std::thread> threads;
  for (int number = 0; number < thread_count; ++number) threads.emplace_back(run, rounds, &caught, &all_done);
  for (std::thread& thread : threads) thread.join();
  finalize_perf_roofline_events();
  const int expected = thread_count * rounds;
  std::printf("%ld operations, %d caught, %ld destroyed\n", expected * operations_of_a_round, caught.load(),
              destroyed.load());
  return caught == expected && destroyed == 10L * expected ? 0 : 1;
}
