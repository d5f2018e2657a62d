// What a thread has written into its code cache, and the instruction cache has not heard of yet.
//
// A visit to the engine may write several pieces: a block, a link to it, a trace's exits. Each would need a maintenance
// of its own, with two barriers that wait for all processors. Instead a visit that defers notes the pieces and
// maintains all of them in one pass at its end.
//
//   who                         may see a piece                                  what comes before
//   this thread's fetches       when the visit is over and the stub leaves for   finish_written, which ends with the
//                               the cache                                        barriers and the context
//                                                                                synchronisation
//   a handler of this thread    never in between: a signal that strikes in the   -
//                               engine is counted, and its application code
//                               runs behind cache_reentry_stub
//   reads and patches by the    at once: these are loads and stores of data      program order
//   engine, this thread's own
//   other threads               never: nobody runs another's cache               -
//   the child of a fork         behind the system call that makes it, which no   finish_written of the visit before
//                               visit that defers makes
//
// So it does not matter in which order the pieces are written, or that a link is written before its target has been
// maintained: nothing is fetched from either before the end of the visit. What a visit maintains early, because it has
// written more pieces than are kept, is maintained early and no worse for it.
//
// Each place that writes code calls note_written or clear_instruction_cache by itself. Neither is inline: the test of
// the places takes such calls out, one place at a time (tests/system/coherence).
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

struct written_range {
  std::uint64_t begin;
  std::uint64_t end;
};

// Part of a thread's record.
struct written_code {
  static constexpr std::size_t MOST = 8;
  std::uint32_t defers;  // A visit is on its way that will finish.
  std::uint32_t count;
  written_range ranges[MOST];
};

// Notes words that the thread has written into its cache, or maintains the caches over them at once if the thread does
// not defer. `written` is the thread's record.
void note_written(written_code& written, const void* begin, const void* end);

// Maintains the caches over all that was noted.
void maintain_written(written_code& written);

// Around a visit. The second function maintains the caches over what was noted. It comes before the way back into the
// cache.
inline void begin_deferring(written_code& written) { written.defers = 1; }
inline void finish_written(written_code& written) {
  written.defers = 0;
  if (written.count != 0) maintain_written(written);
}

}  // namespace ceilmeter
