// The scanner turns a stretch of application code into rewritten code in the cache: copies what does not depend on
// where it runs, rewrites what does, and ends a fragment at the first instruction that transfers control. It knows
// nothing of linking. It only reserves the words that the dispatcher turns into links.
//
// The scanner runs on the application's thread and the engine's stack, takes no lock, and writes only to the thread's
// own cache. The caller clears the instruction cache over what was written.
#pragma once

#include <cstdint>

#include "bi/code/code_cache.h"
#include "bi/code/scan_state.h"

namespace ceilmeter {

// Bytes that are kept free after every instruction for the largest exit, and before a register branch for its lookup.
inline constexpr std::uint32_t EXIT_SPACE = 60;
inline constexpr std::uint32_t REGISTER_BRANCH_SPACE = 88;
// A system call that may be the end of its thread, with what follows it.
inline constexpr std::uint32_t LAST_CALL_SPACE = 15 * 4 + EXIT_SPACE;
inline constexpr std::uint32_t AUTHENTICATED_BRANCH_SPACE = REGISTER_BRANCH_SPACE + 8;
// Before the exit of a CB<cc>: three reserved words, push, decision, and twice four words of a target, two of an index
// and a branch.
inline constexpr std::uint32_t COMPARE_EXIT_SPACE = 19 * 4;
// The code that put_invalidation writes.
inline constexpr std::uint32_t INVALIDATION_SPACE = 46 * 4;

// Bytes that fragments leave free at the end of the trace area. They are for an entry snippet, of nine words where it
// counts, and for the trampolines of a trace's exits. A trampoline takes at most 32 bytes with its alignment.
inline constexpr std::uint32_t TRACE_TRAMPOLINE_SPACE = MAX_TRACE_EXITS * 32 + 16;
inline constexpr std::uint32_t TRACE_SNIPPET_SPACE = 9 * 4;
inline constexpr std::uint32_t TRACE_END_SPACE = TRACE_TRAMPOLINE_SPACE + TRACE_SNIPPET_SPACE;
// Bytes that have to be free there when a fragment begins: these, and those that are written between two checks of the
// room.
inline constexpr std::uint32_t TRACE_FRAGMENT_SPACE = 0x600;
static_assert(TRACE_FRAGMENT_SPACE < CODE_CACHE_SIZE - TRACE_HIGH_WATER);
static_assert(TRACE_END_SPACE + AUTHENTICATED_BRANCH_SPACE + 512 < TRACE_FRAGMENT_SPACE);

// The block's first word.
inline std::uint32_t* block_words(const thread_data* thread, std::int32_t bb_id) {
  return reinterpret_cast<std::uint32_t*>(block_address(thread, bb_id));
}

// Fills the fragment `bb_id` with the rewritten code from `read_address` on, at `write`, or at the block's own place if
// that is null. Returns the code's length in bytes, from the fragment's start to the last word written. A block that
// was continued elsewhere has its last word there.
std::uint32_t scan_fragment(thread_data* thread, const std::uint32_t* read_address, std::int32_t bb_id,
                            fragment_type type, std::uint32_t* write);

// The same with 4 added to the length, as this call has always returned it.
inline std::uint32_t scan_a64(thread_data* thread, const std::uint32_t* read_address, std::int32_t bb_id,
                              fragment_type type, std::uint32_t* write) {
  return scan_fragment(thread, read_address, bb_id, type, write) + 4;
}

// How many words of source code the fragment at `read_address` takes in.
std::uint64_t count_source_words(const std::uint32_t* read_address);

// Makes sure that more than `size` bytes are free between *write and *limit. If they are not, the block goes on in
// further blocks: an adjacent one needs no branch, any other one is reached by a branch. A fragment of a trace cannot
// go on elsewhere. If it has no room left, the thread's record notes the overflow, and the rest is written where
// nothing runs it.
void a64_reserve_block_space(thread_data* thread, std::uint32_t** write, std::uint32_t** limit, std::uint32_t size);

// The last part of an exit: x0 gets the target, x1 the index of the block, then the dispatcher. The application's x0
// and x1 have been pushed.
void a64_branch_jump(thread_data* thread, std::uint32_t** write, std::uint64_t target, std::int32_t bb_id);

}  // namespace ceilmeter
