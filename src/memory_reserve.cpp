// The reserve is many small pieces: the C library takes a large one from the kernel by itself, and gives it back there.
#include "memory_reserve.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

namespace ceilmeter {

namespace {

constexpr std::size_t piece_size = std::size_t{64} * 1024;
constexpr std::size_t piece_count = 16;

// Atomics: threads may run out of memory at once. Each piece is freed by the one that takes it out of its place.
std::array<std::atomic<void*>, piece_count> pieces;

void release_memory_reserve() {
  bool has_released = false;
  for (std::atomic<void*>& piece : pieces) {
    void* const memory = piece.exchange(nullptr);
    has_released = has_released || memory != nullptr;
    std::free(memory);
  }
  if (!has_released) std::set_new_handler(nullptr);  // The next failure is the caller's.
}

}  // namespace

void keep_memory_reserve() {
  for (std::atomic<void*>& piece : pieces) std::free(piece.exchange(std::malloc(piece_size)));
  std::set_new_handler(release_memory_reserve);
}

}  // namespace ceilmeter
