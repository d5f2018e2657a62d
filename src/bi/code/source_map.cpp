#include "bi/code/source_map.h"

#include <algorithm>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/run_groups.h"

namespace ceilmeter {

namespace {

static_assert(SOURCE_MARKS_PER_WORD * MARK_BITS == 64 && MARK_CONTINUED <= MARK_MASK);

std::size_t index_of(const thread_data* thread, const std::uint32_t* place) {
  return static_cast<std::size_t>(place - reinterpret_cast<const std::uint32_t*>(thread->code_cache));
}

// Whether there is a mark for the place: for every word of the code cache. Code can be written elsewhere, as by a test.
bool is_marked(const thread_data* thread, const std::uint32_t* place) {
  return index_of(thread, place) < CODE_CACHE_SIZE / sizeof *place;
}

source_mark mark_of(const thread_data* thread, const std::uint32_t* place) {
  if (!is_marked(thread, place)) return MARK_SAME;
  const std::size_t index = index_of(thread, place);
  const std::uint64_t word = thread->source_marks[index / SOURCE_MARKS_PER_WORD];
  return static_cast<source_mark>(word >> (index % SOURCE_MARKS_PER_WORD * MARK_BITS) & MARK_MASK);
}

// Clears the marks that an earlier fragment has left, all those of a word at once. What stands behind the fragment that
// is being scanned, up to the end of that word, belongs to no other: a block takes whole words, and traces are made one
// behind the other. `place` may be the end of the cache.
void clear_up_to(thread_data* thread, const std::uint32_t* place) {
  while (thread->source_marks_end < place) {
    thread->source_marks[index_of(thread, thread->source_marks_end) / SOURCE_MARKS_PER_WORD] = 0;
    thread->source_marks_end += SOURCE_MARKS_PER_WORD;
  }
}
static_assert(BB_SIZE % (SOURCE_MARKS_PER_WORD * sizeof(std::uint32_t)) == 0, "a block's marks are whole words");
static_assert(CODE_CACHE_SIZE % (SOURCE_MARKS_PER_WORD * sizeof(std::uint32_t)) == 0);

// Outside a scan no fragment has begun, so there is nothing to clear.
bool has_begun(const thread_data* thread) {
  return index_of(thread, thread->source_marks_end) <= CODE_CACHE_SIZE / sizeof(std::uint32_t);
}

const std::uint32_t* target_of_branch(const std::uint32_t* place) {
  std::uint32_t link = 0;
  std::uint32_t imm26 = 0;
  a64_b_decode(place, &link, &imm26);
  return place + a64_sign_extend(imm26, 26);
}

}  // namespace

void begin_source_marks(thread_data* thread, const std::uint32_t* place) {
  thread->source_marks_end = place;
  if (!is_marked(thread, place)) return;
  const std::size_t index = index_of(thread, place);
  const std::size_t before = index % SOURCE_MARKS_PER_WORD;  // Of the fragment in front of this one.
  thread->source_marks[index / SOURCE_MARKS_PER_WORD] &= (std::uint64_t{1} << before * MARK_BITS) - 1;
  thread->source_marks_end = place + (SOURCE_MARKS_PER_WORD - before);
}

void mark_source_beyond_end(thread_data* thread, const std::uint32_t* place, source_mark mark) {
  if (!is_marked(thread, place)) return;
  if (!has_begun(thread)) begin_source_marks(thread, place);
  clear_up_to(thread, place + 1);
  mark_source(thread, place, mark);  // The place now lies before the end.
}

namespace {

static_assert(MARK_SOURCE == 1);
constexpr std::uint64_t ALL_SOURCE = ~std::uint64_t{0} / MARK_MASK;  // MARK_SOURCE in each place.

// Sets the marks of `count` places, at least one, that lie in one word of marks. `index` is that of the first.
void set_source_marks(thread_data* thread, std::size_t index, std::size_t count) {
  const std::uint64_t mask = ~std::uint64_t{0} >> (64 - count * MARK_BITS) << index % SOURCE_MARKS_PER_WORD * MARK_BITS;
  std::uint64_t& word = thread->source_marks[index / SOURCE_MARKS_PER_WORD];
  word = (word & ~mask) | (ALL_SOURCE & mask);
}

[[gnu::noinline]] void mark_words_beyond(thread_data* thread, const std::uint32_t* place, std::size_t count) {
  if (!is_marked(thread, place + count - 1)) return;
  clear_up_to(thread, place + count);
  std::size_t index = index_of(thread, place);
  for (const std::size_t end = index + count; index < end;) {
    const std::size_t here = std::min(SOURCE_MARKS_PER_WORD - index % SOURCE_MARKS_PER_WORD, end - index);
    set_source_marks(thread, index, here);
    index += here;
  }
}

}  // namespace

void mark_source_words(thread_data* thread, const std::uint32_t* place, std::size_t count) {
  if (count == 0) return;
  const std::size_t index = index_of(thread, place);
  // Mostly a few words, of which none lies where an earlier fragment's marks may be left. An end of the marks that lies
  // outside the cache lies at the fragment's first word, and no word before it.
  if (place + count <= thread->source_marks_end && index % SOURCE_MARKS_PER_WORD + count <= SOURCE_MARKS_PER_WORD) {
    set_source_marks(thread, index, count);
  } else {
    mark_words_beyond(thread, place, count);
  }
}

void continue_source_marks(thread_data* thread, const std::uint32_t* place, const std::uint32_t* next) {
  // If nothing was written since the last mark, that mark is for the first word in the new block.
  const source_mark pending = place < thread->source_marks_end ? mark_of(thread, place) : MARK_SAME;
  mark_source(thread, place, MARK_CONTINUED);
  begin_source_marks(thread, next);
  if (pending != MARK_SAME) mark_source(thread, next, pending);
}

void end_source_marks(thread_data* thread, const std::uint32_t* place) {
  if (has_begun(thread)) clear_up_to(thread, place);
}

std::uint64_t source_of_cache_address(const thread_data* thread, std::uint64_t pc) {
  return find_source_place(thread, pc).address;
}

bool begins_source_code(const thread_data* thread, const std::uint32_t* place) {
  const source_mark mark = mark_of(thread, place);
  return mark == MARK_SOURCE || mark == MARK_INSERTED;
}

source_place find_source_place(const thread_data* thread, std::uint64_t pc) {
  constexpr source_place nowhere = {0, true};
  const std::int32_t id = exit_owner(thread, pc);
  if (id <= 0) return nowhere;
  const bb_meta& meta = thread->metas[id];
  if (is_counting_trampoline(meta)) {
    // It has left the fragment, and stands before the block that the exit leads to.
    return pc > address_of(meta.exit_code_addr) ? nowhere : source_place{meta.source_addr, true};
  }
  if (meta.exit_kind == EXIT_TRACE) {
    // A trampoline copies the words before its rejoin address. A place has the same distance to the end of the copies
    // as its original has to that address.
    const std::uint64_t left = address_of(meta.exit_code_addr) - pc;
    return pc > address_of(meta.exit_code_addr) ? nowhere : find_source_place(thread, meta.rejoin_cache_addr - left);
  }
  const auto* end = reinterpret_cast<const std::uint32_t*>(pc);
  std::uint64_t source = meta.source_addr;
  bool between = true;  // Before the first source word, or behind the one counted last.
  std::uint64_t counted = 0;
  std::size_t walked = 0;
  for (const auto* place = reinterpret_cast<const std::uint32_t*>(meta.cache_entry);; ++place) {
    // No fragment is longer than the cache: a record that does not fit the address ends the walk.
    if (++walked > CODE_CACHE_SIZE / sizeof *place || !is_marked(thread, place)) return nowhere;
    const source_mark mark = mark_of(thread, place);
    if (mark == MARK_SOURCE) ++counted;
    if (mark == MARK_SOURCE || mark == MARK_INSERTED) between = mark == MARK_INSERTED;
    if (place == end) break;
    if (mark == MARK_CONTINUED) place = target_of_branch(place) - 1;
  }
  source += counted * sizeof(std::uint32_t);
  return {between ? source : source - sizeof(std::uint32_t), between};
}

const std::uint32_t* next_fragment_word(const thread_data* thread, const std::uint32_t* place) {
  constexpr std::size_t word_count = CODE_CACHE_SIZE / sizeof *place;
  if (index_of(thread, place) >= word_count) return nullptr;
  const std::uint32_t* next = mark_of(thread, place) == MARK_CONTINUED ? target_of_branch(place) : place + 1;
  return index_of(thread, next) < word_count ? next : nullptr;
}

}  // namespace ceilmeter
