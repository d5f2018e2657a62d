// Exceptions through ten frames with destructors, thrown again on the way, through a library's code, and out of
// threads.
#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

int destroyed = 0;
struct counted {
  ~counted() { ++destroyed; }
};

[[gnu::noinline]] int descend(int depth, int round) {
  counted local;
  if (depth == 0) throw std::runtime_error("round " + std::to_string(round));
  if (depth == 5 && round % 2 == 1) {
    try {
      return descend(depth - 1, round) + 1;
    } catch (const std::exception&) {
      throw;
    }
  }
  return descend(depth - 1, round) + 1;
}

int through_library(int round) {
  std::vector<int> numbers = {5, 3, 9, 1};
  std::sort(numbers.begin(), numbers.end(), [round](int a, int b) {
    if (a == 9 || b == 9) throw round;
    return a < b;
  });
  return 0;
}

void in_thread(int number, std::string* result) {
  try {
    descend(10, number);
  } catch (const std::exception& error) {
    *result = error.what();
  }
}

}  // namespace

int main() {
  std::string last;
  for (int round = 0; round < 200; ++round) {
    try {
      descend(10, round);
    } catch (const std::exception& error) {
      last = error.what();
    }
    try {
      through_library(round);
    } catch (int caught) {
      if (caught != round) return 1;
    }
  }
  std::printf("%s, %d destroyed\n", last.c_str(), destroyed);
  std::string results[4];
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back(in_thread, number, &results[number]);
    threads.back().join();
  }
  for (const std::string& result : results) std::puts(result.c_str());
  return destroyed == 204 * 11 ? 0 : 1;
}
