#include "bintracer/block_store.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <new>

namespace ceilmeter {

namespace {

constexpr std::size_t first_piece = std::size_t{64} << 10;
constexpr std::size_t guard = std::size_t{64} << 10;
constexpr std::size_t largest_piece = std::size_t{1} << 20;
// Where the kernel has no memory for a piece, the heap may: the tool has set some aside there.
constexpr std::size_t piece_of_heap = std::size_t{4} << 10;
constexpr std::size_t first_slots = 256;

}  // namespace

block_store::~block_store() {
  while (newest_piece != nullptr) {
    piece* old = std::exchange(newest_piece, newest_piece->older);
    if (old->is_mapped) {
      munmap(old, old->bytes + guard);
    } else {
      ::operator delete(old);
    }
  }
}

// Above a mapped piece lies memory that nobody may touch. The application's stack may end right there, and what runs
// over its end must fault, not change counters.
block_store::piece* block_store::make_piece(std::size_t bytes) {
  void* memory = mmap(nullptr, bytes + guard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  bool is_mapped = memory != MAP_FAILED;
  if (is_mapped && mprotect(memory, bytes, PROT_READ | PROT_WRITE) != 0) {
    munmap(memory, bytes + guard);
    is_mapped = false;
  }
  if (!is_mapped) {
    bytes = piece_of_heap;
    memory = ::operator new(bytes);
  }
  return new (memory) piece{nullptr, bytes, 0, (bytes - sizeof(piece)) / sizeof(bb_node), is_mapped};
}

bb_node& block_store::add(place where) {
  if (start_count * 3 >= slot_count * 2) {
    grow_slots();
    where = find_place(where.start);
  }
  if (newest_piece == nullptr || newest_piece->used == newest_piece->room) {
    const std::size_t last = newest_piece != nullptr ? newest_piece->bytes : 0;
    piece* added = make_piece(std::clamp(2 * last, first_piece, largest_piece));
    added->older = newest_piece;
    newest_piece = added;
  }
  bb_node*& newest = slots[where.slot];
  if (newest == nullptr) ++start_count;
  newest = new (newest_piece->nodes() + newest_piece->used++) bb_node{{.start = where.start}, newest};
  return *newest;
}

void block_store::grow_slots() {
  const std::size_t old_count = slot_count;
  const std::size_t new_count = std::max(first_slots, old_count * 2);
  auto old_slots = std::exchange(slots, std::make_unique<bb_node*[]>(new_count));
  slot_count = new_count;
  slot_shift = 64 - std::countr_zero(new_count);
  for (std::size_t slot = 0; slot < old_count; ++slot) {
    if (old_slots[slot] != nullptr) slots[slot_of(old_slots[slot]->record.start)] = old_slots[slot];
  }
}

}  // namespace ceilmeter
