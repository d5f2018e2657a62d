// The code cache of a thread: its blocks and fragments by index and by address, lookup, first scan and flush. A
// function that takes a thread_data is called by the thread that it belongs to, or before that thread runs.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The number of blocks at the start of a code cache that the copy of the stub text takes.
std::int32_t stub_block_count();

// The first word of the block with this index.
std::uint8_t* block_address(const thread_data* thread, std::int32_t bb_id);

// The state of a cache without fragments: what a flush sets beside the tables that it empties, and what a new record
// begins with. Tells plug-ins of the flush.
void start_without_fragments(thread_data* thread);

// The index of a free block, after a flush if few are left.
std::int32_t allocate_bb(thread_data* thread);

// Forgets every fragment of the thread. Nothing is overwritten: code that is running finishes and finds an empty table.
void flush_code_cache(thread_data* thread);

// A block's address before the block is scanned: its code comes to the dispatcher, which has it scanned in its place.
// The first function makes it of a block that there is, and leaves the entry table to the second.
std::uint64_t make_stub_block(thread_data* thread, std::int32_t bb_id, std::uint64_t source);
void enter_block(thread_data* thread, std::uint64_t key, std::int32_t bb_id);
std::uint64_t stub_bb(thread_data* thread, std::uint64_t source);
std::uint64_t lookup_or_stub(thread_data* thread, std::uint64_t source);

// Rewrites the code at `source` into block `bb_id`, or into a new one if that is 0. Returns its cache address.
std::uint64_t scan(thread_data* thread, std::uint64_t source, std::int32_t bb_id);

// The cache address for `source`, scanned if need be. `*out_cached`, unless null, tells whether it was there.
std::uint64_t _lookup_or_scan(thread_data* thread, std::uint64_t source, std::int32_t* out_cached);
std::uint64_t lookup_or_scan(thread_data* thread, std::uint64_t source);

// The entry table alone; HASH_MISS if it is not there.
std::uint64_t hash_lookup_entry(const thread_data* thread, std::uint64_t source);

// Where an address lies: anywhere in the thread's code cache, in a fragment (behind the stub text, rounded up to a
// block), in the trace area, or in the cache before that area.
bool is_cache_address(const thread_data* thread, std::uint64_t address);
bool is_code_address(const thread_data* thread, std::uint64_t address);
bool is_in_traces(const thread_data* thread, std::uint64_t address);
bool is_in_blocks(const thread_data* thread, std::uint64_t address);

// The index of the block that an address of the basic-block area lies in, its upper bound included; -1 elsewhere.
std::int32_t cc_addr_to_bb_id(const thread_data* thread, std::uint64_t address);

// The fragment that a cache address belongs to; a continued block belongs to the one that it continues. -1: none.
std::int32_t addr_to_fragment_id(const thread_data* thread, std::uint64_t address);

// The fragment whose record describes the exit of the code at `pc`. A block that was continued more than once is found
// step by step: only the first one's record has the exit. -1: none.
std::int32_t exit_owner(const thread_data* thread, std::uint64_t pc);

// Notes that the branch at `from` goes to `to`, for whoever has to lead it elsewhere later.
void record_cc_link(thread_data* thread, std::uint64_t from, std::uint64_t to);

}  // namespace ceilmeter
