// The state of one scan: where it reads, where it writes, and whose it is. The scanner's rules, the delivery of its
// events to plug-ins and the function watches all work on this record.
#pragma once

#include <cstdint>

#include "bi/code/scan_ahead.h"
#include "bi/mora.h"

namespace ceilmeter {

enum fragment_type : std::uint32_t {
  FRAGMENT_BLOCK = 0,       // A basic block.
  FRAGMENT_TRACE = 1,       // A fragment of a trace after the first: reached by falling through, it has no entry word.
  FRAGMENT_TRACE_HEAD = 2,  // The first fragment of a trace.
};

// The code that counts a block's runs until it is hot.
struct counter_words {
  std::uint32_t* first;  // Null: there is none.
  std::uint32_t* end;
  bool is_plugins;  // It is a plug-in's counter as well, see run_counter.h.
};

struct scan_state {
  thread_data* thread;
  std::int32_t bb_id;
  fragment_type type;
  const std::uint32_t* read;      // The source word being read.
  const std::uint32_t* bb_start;  // Start of the block as callbacks know it; moves past each SVC.
  std::uint32_t* write;           // The next cache word to write.
  std::uint32_t* limit;           // End of the block being written, or of the code cache for a trace.
  bool stop;                      // The fragment has ended. Plug-ins may set it.
  bool starts_behind_store;       // The events of the fragment's start wait for its first store-exclusive.
  std::uint32_t word;             // What was read there. Nobody loads the word again.
  source_window source;           // All that has been read of the fragment.
  bool has_sp;                    // sp is the application's, of a block that uses the spare stack.
  bool is_heard;                  // Plug-ins are told of this scan's events, see plugins_listen. The thread has
                                  // entered a callback for all of them (mora_enter_callback).
  counter_words counter;          // At the fragment's start.
};

}  // namespace ceilmeter
