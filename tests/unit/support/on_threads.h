// Runs the same work on several threads at once.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace ceilmeter::test {

// Runs `work(number)` on `count` threads at once, released together, and waits for all of them.
template <typename function>
void on_threads(int count, const function& work) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      ++ready;
      while (ready.load() < count) std::this_thread::yield();
      work(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace ceilmeter::test
