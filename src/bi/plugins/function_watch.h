// Function watches: the table of watched functions, and the code at a watched function's entry and return that the
// scanner has put into fragments.
//
// The entry code keeps the return address on a stack of the thread's own and gives the function the address of its
// watch's record instead. The record begins with a word that reads RET x30. This word is never executed. The function's
// own return reaches the engine with the record's address, which is not in the cache yet. The scanner translates the
// record like any code, and before the RET it puts code that takes the true address back.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "bi/mora.h"
#include "bi/plugin.h"
#include "bi/code/scan_state.h"

namespace ceilmeter {

inline constexpr std::size_t WATCH_NAME_SIZE = 256;

// A value of engine.function_watches, by the function's address.
struct function_watch {
  std::uint32_t code;  // RET x30. Its address is the function's return address while it is watched.
  char name[WATCH_NAME_SIZE];
  std::uint32_t refcount;
};

// A value of a thread's return_watch, by the record's address. Values lie at multiples of four only, so they are copied
// in and out.
struct return_watch {
  std::uint64_t function;
  // Cache addresses of the entry code in the function's last translation; entry_begin 0: there is none.
  std::uint64_t entry_begin;
  std::uint64_t entry_end;
};

static_assert(offsetof(function_watch, code) == 0 && sizeof(function_watch) == 264 && sizeof(return_watch) == 24);

// Whether there is any watch. One is added before its function first runs, on whatever thread: relaxed, because without
// any there is nothing to wait for.
inline bool are_functions_watched() {
  return std::atomic_ref(engine.function_watches.count).load(std::memory_order_relaxed) != 0;
}

// Whether the function events have to be delivered at this address. False in a process without plug-ins.
bool is_watched_function(const std::uint32_t* read_address);

// At a block's start, if functions are watched: writes the entry code, with pre_function, if the block is a watched
// function's first.
void put_function_entry(scan_state& state, const std::uint32_t* read_address);

// Before an instruction: writes the return code, with post_function, if the instruction is that of a watch's record. If
// post_function writes no code, the function's entry code is taken out of this thread's fragments.
void put_function_return(scan_state& state, const std::uint32_t* read_address);

// Delivers one of the two function events at the scan's cursor. Defined with the delivery of the other events of a
// scan.
void deliver_function_event(scan_state& state, mora_event event, std::uint64_t function);

// After a flush: forgets the entry code that the thread has noted, because it does not belong to its fragments any
// more.
void forget_function_entries(thread_data* thread);

}  // namespace ceilmeter
