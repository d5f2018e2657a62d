// Two levels: a table of leaves for the 48 bits of an address, and a leaf for each GiB from which something was
// translated. Both are mostly pages of zeroes that nobody has touched. A leaf also has a summary, a bit for each page
// that was ever marked, which is never cleared: a range of many pages is looked through by it.
#include "bi/code/translated_pages.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>

namespace ceilmeter {

namespace {

constexpr int ADDRESS_BITS = TRANSLATED_ADDRESS_BITS;
constexpr int LEAF_BITS = TRANSLATED_LEAF_BITS;
constexpr int PAGE_BITS = TRANSLATED_PAGE_BITS;
constexpr int LINE_BITS = TRANSLATED_LINE_BITS;
static_assert(TRANSLATED_LINE == std::uint64_t{1} << LINE_BITS);
static_assert(PAGE_BITS - LINE_BITS == 6, "a page's lines are the bits of a word");

constexpr std::uint64_t PAGE = std::uint64_t{1} << PAGE_BITS;
constexpr std::uint64_t LEAF = std::uint64_t{1} << LEAF_BITS;
constexpr std::uint64_t PAGES_IN_LEAF = LEAF / PAGE;
constexpr std::uint64_t BLOCK = 64 * PAGE;  // What a word of the summary stands for.

// The lines come first: rewritten code knows them alone.
struct translated_leaf {
  std::uint64_t lines[PAGES_IN_LEAF];
  std::uint64_t ever[PAGES_IN_LEAF / 64];
};

bool is_beyond(std::uint64_t end) { return (end - 1) >> ADDRESS_BITS != 0; }

translated_leaf* leaf_of(std::uint64_t address) {
  // Acquire: pairs with the exchange that publishes the leaf.
  std::uint64_t* lines = std::atomic_ref(translated.leaves[address >> LEAF_BITS]).load(std::memory_order_acquire);
  return reinterpret_cast<translated_leaf*>(lines);
}

translated_leaf* make_leaf(std::uint64_t address) {
  void* memory = mmap(nullptr, sizeof(translated_leaf), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  std::uint64_t* there = nullptr;
  auto* made = static_cast<translated_leaf*>(memory);
  std::atomic_ref place(translated.leaves[address >> LEAF_BITS]);
  if (place.compare_exchange_strong(there, made->lines, std::memory_order_acq_rel)) return made;
  munmap(memory, sizeof(translated_leaf));  // Another thread was first.
  return reinterpret_cast<translated_leaf*>(there);
}

std::uint64_t page_index(std::uint64_t address) { return address >> PAGE_BITS & (PAGES_IN_LEAF - 1); }

// The lines of the page at `page` that [start, end) touches; it touches at least one.
std::uint64_t touched_lines(std::uint64_t page, std::uint64_t start, std::uint64_t end) {
  const std::uint64_t first = start > page ? (start - page) >> LINE_BITS : 0;
  const std::uint64_t last = end - page >= PAGE ? 63 : (end - page - 1) >> LINE_BITS;
  return (~std::uint64_t{0} >> (63 - last)) & (~std::uint64_t{0} << first);
}

void set_bits(std::uint64_t& word, std::uint64_t bits) {
  std::atomic_ref marks(word);
  // Acquire: behind a mark of another thread the words are read as that thread would read them.
  if ((~marks.load(std::memory_order_acquire) & bits) != 0) marks.fetch_or(bits, std::memory_order_acq_rel);
}

// Marks a line of the page `index` of the leaf. Apart from the look at a mark that is there, which needs no frame then.
[[gnu::noinline]] void set_line(translated_leaf& leaf, std::uint64_t index, std::uint64_t line_bit) {
  set_bits(leaf.ever[index / 64], std::uint64_t{1} << index % 64);
  set_bits(leaf.lines[index], line_bit);
  std::atomic_thread_fence(std::memory_order_seq_cst);  // As in mark_translated.
}

}  // namespace

translated_record translated;

void note_marks_are_not_enough(std::uint64_t why) {
  // Relaxed: for marks, the fence of mark_translated follows; of an alias the writer of code learns behind the call.
  std::atomic_ref(translated.not_enough).fetch_or(why, std::memory_order_relaxed);
}

bool marks_are_not_enough(std::uint64_t why) {
  return (std::atomic_ref(translated.not_enough).load(std::memory_order_relaxed) & why) != 0;
}

void mark_translated(std::uint64_t start, std::uint64_t end) {
  if (is_beyond(end)) {
    note_marks_are_not_enough(MARKS_ARE_LOST);
  } else {
    for (std::uint64_t page = start & ~(PAGE - 1); page < end; page += PAGE) {
      translated_leaf* leaf = leaf_of(page);
      if (leaf == nullptr) leaf = make_leaf(page);
      if (leaf == nullptr) {
        note_marks_are_not_enough(MARKS_ARE_LOST);
        break;
      }
      set_bits(leaf->ever[page_index(page) / 64], std::uint64_t{1} << page_index(page) % 64);
      set_bits(leaf->lines[page_index(page)], touched_lines(page, start, end));
    }
  }
  std::atomic_thread_fence(std::memory_order_seq_cst);  // Pairs with the fence in has_translated.
}

void mark_translated_line(std::uint64_t line) {
  translated_leaf* leaf = is_beyond(line + TRANSLATED_LINE) ? nullptr : leaf_of(line);
  if (leaf == nullptr) {
    mark_translated(line, line + TRANSLATED_LINE);
    return;
  }
  const std::uint64_t index = page_index(line);
  const std::uint64_t line_bit = std::uint64_t{1} << (line >> LINE_BITS) % 64;
  // Acquire, as in set_bits. The page's bit was set before the line's, and is never cleared.
  if ((std::atomic_ref(leaf->lines[index]).load(std::memory_order_acquire) & line_bit) == 0) {
    set_line(*leaf, index, line_bit);
    return;
  }
  std::atomic_thread_fence(std::memory_order_seq_cst);  // As in mark_translated.
}

bool has_translated(std::uint64_t start, std::uint64_t end) {
  std::atomic_thread_fence(std::memory_order_seq_cst);  // Pairs with the fence in mark_translated.
  if (marks_are_not_enough(MARKS_ARE_LOST)) return true;
  if (start >= end || is_beyond(end)) return false;  // Nothing was translated beyond.
  for (std::uint64_t page = start & ~(PAGE - 1); page < end;) {
    translated_leaf* leaf = leaf_of(page);
    if (leaf == nullptr) {
      page = (page | (LEAF - 1)) + 1;
      continue;
    }
    const std::uint64_t index = page_index(page);
    if (std::atomic_ref(leaf->ever[index / 64]).load(std::memory_order_relaxed) == 0) {
      page = (page | (BLOCK - 1)) + 1;
      continue;
    }
    const std::uint64_t marks = std::atomic_ref(leaf->lines[index]).load(std::memory_order_relaxed);
    if ((marks & touched_lines(page, start, end)) != 0) return true;
    page += PAGE;
  }
  // A mark may be gone because another thread has dropped the code. Pairs with the release in clear_translated: the
  // epoch that the caller looks at next is that one, or a later one.
  std::atomic_thread_fence(std::memory_order_acquire);
  return false;
}

void clear_translated(std::uint64_t start, std::uint64_t end) {
  start = (start + TRANSLATED_LINE - 1) & ~(TRANSLATED_LINE - 1);
  end &= ~(TRANSLATED_LINE - 1);
  if (start >= end || is_beyond(end)) return;
  for (std::uint64_t page = start & ~(PAGE - 1); page < end;) {
    translated_leaf* leaf = leaf_of(page);
    if (leaf == nullptr) {
      page = (page | (LEAF - 1)) + 1;
      continue;
    }
    std::atomic_ref marks(leaf->lines[page_index(page)]);
    // Release, with the store of the epoch behind it: who finds the mark gone finds the epoch as well.
    if (marks.load(std::memory_order_relaxed) != 0) {
      marks.fetch_and(~touched_lines(page, start, end), std::memory_order_acq_rel);
    }
    page += PAGE;
  }
}

}  // namespace ceilmeter
