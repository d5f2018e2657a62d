// Cleans the data cache to the point of unification, then invalidates the instruction cache, line by line; the sizes of
// lines, and whether the processor wants either, are CTR_EL0's. Between the two and behind them all accesses wait for
// each other (DSB), and in the end this processor drops what it has fetched ahead (ISB).
#include "bi/code/written_code.h"

#include <atomic>

#include "bi/code/code_words.h"
#include "bi/mora.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t IDC = std::uint64_t{1} << 28;  // Data need not be cleaned.
constexpr std::uint64_t DIC = std::uint64_t{1} << 29;  // Instructions need not be invalidated.

std::uint64_t read_cache_type() {
  std::uint64_t value = 0;
  asm volatile("mrs %0, ctr_el0" : "=r"(value));
  return value;
}

// Some kernels trap the register's reads, so it is read once. Bit 31 is always set: 0 means not yet.
std::uint64_t cache_type() {
  static std::atomic<std::uint64_t> known{0};
  // Relaxed: each thread would store the same.
  std::uint64_t value = known.load(std::memory_order_relaxed);
  if (value == 0) {
    value = read_cache_type();
    known.store(value, std::memory_order_relaxed);
  }
  return value;
}

void maintain(const written_range* ranges, std::size_t count) {
  constexpr std::uint64_t word = 4;  // The fields hold logarithms of words.
  const std::uint64_t type = cache_type();
  const std::uint64_t instruction_line = word << (type & 15);
  const std::uint64_t data_line = word << (type >> 16 & 15);
  if ((type & IDC) == 0) {
    for (std::size_t index = 0; index < count; ++index) {
      for (std::uint64_t line = ranges[index].begin & -data_line; line < ranges[index].end; line += data_line) {
        asm volatile("dc cvau, %0" : : "r"(line) : "memory");
      }
    }
  }
  asm volatile("dsb ish" : : : "memory");
  if ((type & DIC) == 0) {
    for (std::size_t index = 0; index < count; ++index) {
      for (std::uint64_t line = ranges[index].begin & -instruction_line; line < ranges[index].end;
           line += instruction_line) {
        asm volatile("ic ivau, %0" : : "r"(line) : "memory");
      }
    }
    asm volatile("dsb ish" : : : "memory");
  }
  asm volatile("isb" : : : "memory");
}

}  // namespace

void clear_instruction_cache(const void* begin, const void* end) {
  const written_range range = {address_of(begin), address_of(end)};
  maintain(&range, 1);
}

void maintain_at_once(written_code& written, const void* begin, const void* end) {
  maintain_written(written);
  clear_instruction_cache(begin, end);
}

void maintain_written(written_code& written) {
  if (written.count == 0) return;
  maintain(written.ranges, written.count);
  written.count = 0;
}

}  // namespace ceilmeter
