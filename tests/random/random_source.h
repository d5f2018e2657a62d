// The one source of chance in tests/random: splitmix64, the same numbers for a seed on every machine and library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ceilmeter {

class random_source {
 public:
  explicit random_source(std::uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15u + 0x1234567) {}

  std::uint64_t next() {
    std::uint64_t z = state_ += 0x9e3779b97f4a7c15u;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9u;
    z = (z ^ z >> 27) * 0x94d049bb133111ebu;
    return z ^ z >> 31;
  }

  // A number below the bound, which is not 0. The bias of the remainder does not matter here.
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>((next() >> 16) % bound); }
  std::uint32_t between(std::uint32_t low, std::uint32_t high) { return low + below(high - low + 1); }
  bool one_in(std::uint32_t n) { return below(n) == 0; }

  template <typename T>
  const T& pick(const std::vector<T>& list) {
    return list[below(static_cast<std::uint32_t>(list.size()))];
  }
  template <typename T, std::size_t N>
  T pick(const T (&list)[N]) {
    return list[below(N)];
  }

  // A value for a register. All lengths are equally likely, and small negative numbers as well.
  std::uint64_t value() {
    const std::uint64_t bits = next() >> below(64);
    return one_in(3) ? ~bits : bits;
  }

 private:
  std::uint64_t state_;
};

}  // namespace ceilmeter
