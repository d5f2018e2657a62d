// The blocks that a thread has translated, with their counters. Blocks are appended to pieces of memory that never move
// and are freed together, because emitted code holds the addresses of the counters. The pieces come from the kernel:
// they lie near the thread's code cache then, so that one ADRP reaches a counter, and of a large one only the pages
// that have been used take memory. A store belongs to its thread alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "bintracer/generated_code.h"

namespace ceilmeter {

// A block that a thread has translated. Results are made of copies.
struct bb_record {
  std::uint64_t count = 0;       // Executions since the last flush of the thread's counters.
  std::uint64_t start = 0;       // Application address of the first instruction.
  std::uint64_t end = 0;         // Behind the last one, as last translated.
  std::uint64_t map_seg_id = 0;  // The mapping segment that held `start` when the block was first seen; 0: none.
  // Where there is none: the block's instructions.
  const generated_code* code = nullptr;
};

// Whether both count the same block. Generated code that was written over at the same address is another block.
inline bool is_same_block(const bb_record& a, const bb_record& b) { return a.start == b.start && a.code == b.code; }

struct bb_node {
  bb_record record;
  bb_node* older = nullptr;  // The block of the same start that the thread has translated before.
};

class block_store {
 public:
  block_store() = default;
  block_store(const block_store&) = delete;
  block_store& operator=(const block_store&) = delete;
  ~block_store();

  // Where the blocks that begin at an address belong. Good until a block is added.
  struct place {
    std::uint64_t start;
    std::size_t slot;
  };
  place find_place(std::uint64_t start) const { return {start, slot_count != 0 ? slot_of(start) : 0}; }

  // The newest of the place's blocks; null if there is none.
  bb_node* newest_at(place where) const { return slot_count != 0 ? slots[where.slot] : nullptr; }

  // A new block, the newest of its place and of all. It stays where it is as long as the store.
  bb_node& add(place where);

  // The same by address.
  bb_node* find(std::uint64_t start) const { return newest_at(find_place(start)); }
  bb_node& add(std::uint64_t start) { return add(find_place(start)); }

  // Different starts.
  std::size_t size() const { return start_count; }

  // Calls act(record) for every block, the newest first.
  template <typename action>
  void for_each(action act) {
    for (piece* at = newest_piece; at != nullptr; at = at->older) {
      for (std::size_t index = at->used; index-- > 0;) act(at->nodes()[index].record);
    }
  }

 private:
  // The head of a piece of memory. The blocks stand behind it.
  struct piece {
    piece* older;
    std::size_t bytes;
    std::size_t used;
    std::size_t room;  // In blocks.
    bool is_mapped;    // By the kernel; otherwise the heap has it.

    bb_node* nodes() { return reinterpret_cast<bb_node*>(this + 1); }
  };

  static piece* make_piece(std::size_t bytes);

  // Where the start's newest block stands in `slots`, or the free slot in which it belongs.
  std::size_t slot_of(std::uint64_t start) const {
    constexpr std::uint64_t spread = 0x9e3779b97f4a7c15;
    std::size_t slot = (start >> 2) * spread >> slot_shift;
    while (slots[slot] != nullptr && slots[slot]->record.start != start) slot = (slot + 1) & (slot_count - 1);
    return slot;
  }

  void grow_slots();

  piece* newest_piece = nullptr;
  std::unique_ptr<bb_node*[]> slots;  // By start, open addressing. Null: free.
  std::size_t slot_count = 0;         // 0, or a power of two.
  int slot_shift = 0;                 // 64 less the bits of a slot's number.
  std::size_t start_count = 0;
};

}  // namespace ceilmeter
