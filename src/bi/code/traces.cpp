// The construction of a trace, from its head becoming hot to its last fragment.
//
//   entry_addr     ldp x0, x1, [sp], #16        the head, scanned anew
//                  the head's words
//   exit_code_addr b.!cond .                    left by the other side; no target before the installation
//                  the next fragment's words    over the rest of the head's exit stub
//                  ...
//   exit_code_addr the last fragment's exit as the scanner has left it: it leads here, to the next fragment
//                  ldp x0, x1, [sp], #16        the snippet that the newest fragment is entered by, once
//                  b   the fragment's first word
//
// An exit that follows the taken side of a CB<cc>, which is not inverted, has two words:
//
//   exit_code_addr cb<cc> .+8                   on along the path
//                  b      .                     left by the other side; no target before the installation
//
// Before the installation only the newest fragment runs, from its snippet to its exit stub. So no branch without a
// target is reached. This also holds if a signal's handler runs in between: interrupted code resumes by its source
// address, in a block. The unfinished trace is then given up when the next head becomes hot.
//
// The instruction cache is cleared over the pieces that a visit to the engine has written at its end (written_code.h).
// The thread that writes them is the thread that runs them, on its way back from the engine into the cache.
#include "bi/code/traces.h"

#include <atomic>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_epoch.h"
#include "bi/code/code_words.h"
#include "bi/code/dispatcher.h"
#include "bi/code/exit_branch.h"
#include "bi/code/code_writer.h"
#include "bi/code/run_counter.h"
#include "bi/code/run_groups.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"
#include "bi/code/trace_install.h"
#include "bi/engine_switches.h"
#include "common/log.h"

namespace ceilmeter {

trace_statistics trace_counts;

#ifdef NDEBUG
trace_switches trace_options;
#else
trace_switches trace_options = {.check = TRACE_CHECK_CHANGES};
#endif

namespace {

constexpr engine_log log{"src/bi/traces"};

std::uint64_t head_source(const thread_data* thread) {
  return thread->metas[thread->active_trace.source_bb].source_addr;
}

// Scans the source into the fragment `id` at `write`. Returns the word behind its last one.
std::uint32_t* scan_trace(thread_data* thread, std::uint64_t source, fragment_type type, std::int32_t id,
                          std::uint32_t* write) {
  log(LEVEL_TRACE, "trace scan: %p to %p, id %d", reinterpret_cast<void*>(source), static_cast<void*>(write), id);
  bb_meta& meta = thread->metas[id];
  meta.source_addr = source;
  meta.cache_entry = address_of(write);
  meta.link_state = LINK_NONE;
  const std::uint32_t length = scan_fragment(thread, reinterpret_cast<const std::uint32_t*>(source), id, type, write);
  if (thread->trace_fragment_overflow != 0) return write;
  std::uint32_t* end = write + length / 4;
  note_written(thread->written, write, end);
  return end;
}

// No trace begins: the thread goes on in the hot block, or in what is scanned in its place.
void go_on_in_block(thread_data* thread, std::uint64_t source, std::uint64_t* ret) {
  thread->active_trace.active = 0;
  ret[0] = lookup_or_scan(thread, source);
}

bool has_room_for_trace(const thread_data* thread) {
  return thread->trace_write_cursor < thread->code_cache + TRACE_HIGH_WATER && thread->trace_id < TRACE_ID_HIGH_WATER &&
         has_links_to_spare(thread->cc_link_pool, TRACE_LINKS);
}

// The same, and the block is no head for as long as it stays as it is.
void stay_in_block(thread_data* thread, std::int32_t source_index, std::uint64_t* ret) {
  const bb_meta& block = thread->metas[source_index];
  stop_asking(thread, block);
  go_on_in_block(thread, block.source_addr, ret);
}

void flush_full_area(thread_data* thread, std::uint64_t source, std::uint64_t* ret) {
  log(LEVEL_TRACE, "trace cache full, flushing the CC");
  count_trace_event(trace_counts.area_full);
  flush_code_cache(thread);
  go_on_in_block(thread, source, ret);
}

// Writes the exit of a fragment. The path goes on at the taken side if `follows_taken`, else at the fall-through side.
// Returns the exit's last word: the branch to the other side. It has no offset yet, so it branches to itself.
std::uint32_t* put_trace_exit(const bb_meta& meta, bool follows_taken) {
  if (!is_conditional_exit(meta.exit_kind)) log(LEVEL_FATAL, "unknown branch type");
  std::uint32_t* place = meta.exit_code_addr;
  exit_branch branch = unpack_exit_branch(meta);
  if (follows_taken && !is_invertible(branch)) {
    encode_exit_branch(place, branch, address_of(place + 2));
    a64_branch(place + 1, address_of(place + 1));
    return place + 1;
  }
  if (follows_taken) invert_exit_branch(&branch);
  encode_exit_branch(place, branch, address_of(place));
  return place;
}

// Writes the exit and notes where its other side has to lead. Returns the word behind the exit. The other side gets a
// stub block, and is scanned only when it is reached: it may never run, and an application that writes its code piece
// by piece may not have written it yet. The making of the stub block may flush the cache.
std::uint32_t* set_up_trace_exit(thread_data* thread, std::int32_t source_index, std::uint64_t target) {
  trace_state& trace = thread->active_trace;
  const bb_meta& meta = thread->metas[source_index];
  const bool follows_taken = target == meta.taken_source_addr;
  const std::uint32_t* first = meta.exit_code_addr;
  std::uint32_t* last = put_trace_exit(meta, follows_taken);
  const std::uint64_t other = follows_taken ? meta.skipped_source_addr : meta.taken_source_addr;
  const std::uint64_t found = other == head_source(thread) ? trace.entry_addr : lookup_or_stub(thread, other);
  // Each fragment has one exit, so there are enough places. An exit without a place would stay a branch to itself, and
  // the application would hang in it.
  if (trace.exit_count >= MAX_TRACE_EXITS) log(LEVEL_FATAL, "trace %d has more exits than fragments", trace.id);
  trace.exits[trace.exit_count++] = {address_of(last), found + ENTRY_WORD_SIZE, source_index};
  note_written(thread->written, first, last + 1);
  return last + 1;
}

// Whether each exit so far would reach the trampolines of a trace whose code ended at `end`.
bool exits_reach(const trace_state& trace, const std::uint32_t* end) {
  for (std::uint32_t exit = 0; exit < trace.exit_count; ++exit) {
    const auto* from = reinterpret_cast<const std::uint32_t*>(trace.exits[exit].from);
    if (!trace_exit_reaches(from, *from, address_of(end) + TRACE_TRAMPOLINE_SPACE)) return false;
  }
  return true;
}

// Closes the trace by a branch at `write` to the fragment at `entry`, where the thread goes on, and installs it.
void close_trace(thread_data* thread, std::int32_t source_index, std::uint32_t* write, std::uint64_t entry,
                 std::uint64_t* next_addr) {
  a64_branch_and_link(thread, write, entry + ENTRY_WORD_SIZE);
  note_written(thread->written, write, write + 1);
  thread->active_trace.write = write + 1;
  thread->metas[source_index].link_state |= LINK_CLOSES_TRACE;
  install_trace(thread);
  *next_addr = entry;
}

// Closes the trace where the path leaves it, by a branch to the block for `target`, or to the trace that has replaced
// that block.
void close_in_block(thread_data* thread, std::int32_t source_index, std::uint32_t* write, std::uint64_t target,
                    std::uint64_t* next_addr) {
  const bool returns = target == head_source(thread);
  const std::uint64_t entry = returns ? thread->active_trace.entry_addr : lookup_or_scan(thread, target);
  if (thread->flush_seen != 0) {
    *next_addr = entry;  // The flush has given up the trace. The entry was found after it.
    return;
  }
  count_trace_event(returns ? trace_counts.ends_in_head : trace_counts.ends_in_block);
  close_trace(thread, source_index, write, entry, next_addr);
}

// Writes LDP x0, x1 and a branch to the fragment, behind the fragment. The dispatcher leaves both registers on the
// stack. The fragment itself has no entry word to pop them, because later runs fall into it. Where it does not count
// its runs either, the snippet counts this one, with the two registers before they are popped.
std::uint32_t* put_entry_snippet(thread_data* thread, std::uint32_t* at, std::int32_t id) {
  const bb_meta& fragment = thread->metas[id];
  std::uint32_t* write = at;
  if (const std::uint64_t* counter = counter_of_member(thread, id); counter != nullptr) {
    const code_writer code{write};
    const auto place = static_cast<std::int32_t>(a64_load_page(&write, x0.number, address_of(counter)));
    code.ldr(x1, offset_address{x0, place});
    code.add(x1, x1, 1);
    code.str(x1, offset_address{x0, place});
  }
  *write++ = POP_X0_X1;
  a64_branch(write++, fragment.cache_entry);
  note_written(thread->written, at, write);
  thread->snippet = at;
  return write;
}

// Extends the trace by the block at `target`. False if the fragment does not fit; the trace is then as it was before.
bool extend_trace(thread_data* thread, std::uint32_t* write, std::uint64_t target, std::uint64_t* next_addr) {
  trace_state& trace = thread->active_trace;
  if (address_of(write) + TRACE_FRAGMENT_SPACE > address_of(thread->code_cache) + CODE_CACHE_SIZE) return false;
  log(LEVEL_TRACE, "Trace fragment: 0x%lx", target);
  const std::int32_t id = trace.id++;
  std::uint32_t* end = scan_trace(thread, target, FRAGMENT_TRACE, id, write);
  if (thread->flush_seen != 0) {
    *next_addr = lookup_or_scan(thread, target);
    return true;
  }
  // The snippet may count, in up to nine words. A bare engine's has two.
  const std::size_t snippet_words = thread->run_scan.counter != nullptr ? TRACE_SNIPPET_SPACE / sizeof *end : 2;
  if (thread->trace_fragment_overflow != 0 || !exits_reach(trace, end + snippet_words)) {
    --trace.id;
    return false;
  }
  ++thread->trace_fragment_count;
  log(LEVEL_TRACE, "len: %ld", static_cast<long>(end - write + 1) * 4);
  *next_addr = address_of(end);
  join_group(thread, id);
  trace.write = put_entry_snippet(thread, end, id);
  if (thread->metas[id].exit_kind == EXIT_REGISTER) {
    count_trace_event(trace_counts.ends_in_register_branch);
    install_trace(thread);
  }
  return true;
}

// The record of a trace that begins at the next free place. Returns its first word.
std::uint32_t* begin_trace(thread_data* thread, std::int32_t source_index, std::uint64_t source) {
  thread->flush_seen = 0;
  trace_state& trace = thread->active_trace;
  auto* entry = reinterpret_cast<std::uint32_t*>(thread->trace_write_cursor);
  log(LEVEL_TRACE, "bb: %d, source: %p, ret to: 0x%lx", source_index, reinterpret_cast<void*>(source),
      address_of(entry));
  begin_groups(thread);
  trace.id = thread->trace_id;
  trace.source_bb = source_index;
  trace.active = 1;
  trace.entry_addr = address_of(entry);
  trace.write = entry;
  trace.exit_count = 0;
  count_trace_event(trace_counts.started);
  log(LEVEL_TRACE, "Create trace: %d (%p), source_bb: %d, entry: %lx", trace.id, static_cast<void*>(entry),
      source_index, trace.entry_addr);
  log(LEVEL_TRACE, "Trace head: %p at 0x%lx", reinterpret_cast<void*>(source), trace.entry_addr);
  return entry;
}

// The entry of the trace that begins at `target`, if there is one: the path has come back to it.
std::uint64_t find_trace(thread_data* thread, std::uint64_t target) {
  if (target == head_source(thread)) return thread->active_trace.entry_addr;
  const std::uint64_t found = hash_lookup_entry(thread, target);
  return found != HASH_MISS && is_in_traces(thread, found) ? found : HASH_MISS;
}

// The hot block becomes the head of a trace, if it can. ret[0] receives the place to go on at.
void make_head(thread_data* thread, std::int32_t source_index, std::uint64_t* ret) {
  thread->trace_fragment_count = 0;
  const bb_meta& head = thread->metas[source_index];
  const std::uint64_t source = head.source_addr;
  const std::uint32_t kind = head.exit_kind;
  ret[1] = source;
  if (follow_code_epoch(thread)) {
    go_on_in_block(thread, source, ret);
    return;
  }
  if (trace_options.off || kind == EXIT_NOT_SET) {
    // A block without an exit is one that a plug-in has ended. A counter of the engine's own has wrapped to 0, so the
    // block runs many times before it comes here again.
    stop_asking(thread, head);
    ret[0] = head.cache_entry;
    return;
  }
  if (!is_direct_exit(kind)) log(LEVEL_FATAL, "unknown exit branch type in trace head: %d", static_cast<int>(kind));

  trace_state& trace = thread->active_trace;
  if (trace.active != 0) count_trace_event(trace_counts.abandoned);
  thread->trace_write_cursor += -address_of(thread->trace_write_cursor) & 3;
  if (!has_room_for_trace(thread)) {
    flush_full_area(thread, source, ret);
    return;
  }
  if (!may_begin_trace(thread)) return stay_in_block(thread, source_index, ret);
  std::uint32_t* entry = begin_trace(thread, source_index, source);
  ret[0] = trace.entry_addr;

  const std::int32_t id = trace.id++;
  const std::uint32_t* end = scan_trace(thread, source, FRAGMENT_TRACE_HEAD, id, entry);
  if (thread->flush_seen != 0) {
    go_on_in_block(thread, source, ret);
    return;
  }
  if (thread->trace_fragment_overflow != 0) {
    // The head may fit into an empty area. If the area is empty already, it never fits.
    const bool area_is_empty = thread->trace_id == BB_COUNT;
    trace.id = thread->trace_id;
    if (area_is_empty) {
      stay_in_block(thread, source_index, ret);
    } else {
      flush_full_area(thread, source, ret);
    }
    return;
  }
  ++thread->trace_fragment_count;
  log(LEVEL_TRACE, "len: %d", static_cast<int>(end - entry + 1) * 4);
  if (!is_direct_exit(thread->metas[id].exit_kind)) {
    // The application has changed or unmapped the code since the block was scanned. No trace begins here, and the block
    // goes on as it would have without one.
    log(LEVEL_DEBUG, "disallowed type of exit in the first trace fragment: %d",
        static_cast<int>(thread->metas[id].exit_kind));
    trace.id = thread->trace_id;
    return stay_in_block(thread, source_index, ret);
  }
  join_group(thread, id);
}

}  // namespace

void count_trace_event(std::uint64_t& number, std::uint64_t by) {
  std::atomic_ref(number).fetch_add(by, std::memory_order_relaxed);  // No other data depends on the number.
}

void raise_trace_record(std::uint64_t& number, std::uint64_t value) {
  std::atomic_ref record(number);
  std::uint64_t seen = record.load(std::memory_order_relaxed);
  while (seen < value && !record.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
  }
}

extern "C" void create_trace(thread_data* thread, std::int32_t source_index, std::uint64_t* ret) {
  begin_deferring(thread->written);
  make_head(thread, source_index, ret);
  finish_written(thread->written);
}

void trace_dispatcher(std::uint64_t target, std::uint64_t* next_addr, std::int32_t source_index, thread_data* thread) {
  thread->flush_seen = 0;
  bb_meta& meta = thread->metas[source_index];
  log(LEVEL_TRACE, "trace dispatcher (target: 0x%lx)", target);
  trace_state& trace = thread->active_trace;
  // Either a register branch has not found its target, or a system call in the last fragment has flushed the cache and
  // so ended its trace.
  if (meta.exit_kind == EXIT_REGISTER || trace.active == 0 || source_index != trace.id - 1) {
    *next_addr = lookup_or_scan(thread, target);
    return;
  }
  if (!has_links_to_spare(thread->cc_link_pool, TRACE_LINKS)) flush_code_cache(thread);

  std::uint32_t* write = nullptr;
  if (thread->flush_seen == 0) {
    switch (meta.exit_kind) {
      case EXIT_B_COND:
      case EXIT_CBZ:
      case EXIT_TBZ:
      case EXIT_COMPARE: write = set_up_trace_exit(thread, source_index, target); break;
      case EXIT_DIRECT: write = meta.exit_code_addr; break;
      default: log(LEVEL_FATAL, "trace dispatcher unknown %p", reinterpret_cast<void*>(target)); return;
    }
  }
  if (thread->flush_seen != 0) {
    *next_addr = lookup_or_scan(thread, target);
    return;
  }
  const bool follows_taken = meta.exit_kind == EXIT_DIRECT || target == meta.taken_source_addr;
  meta.link_state = follows_taken ? LINK_TAKEN_FIRST : LINK_SKIPPED_FIRST;
  *next_addr = address_of(write);
  trace.write = write;

  if (thread->trace_fragment_count >= MAX_TRACE_FRAGMENTS) {
    log(LEVEL_TRACE, "trace fragment count limit, branch to: 0x%lx, written at: %p", target, static_cast<void*>(write));
    close_in_block(thread, source_index, write, target, next_addr);
    return;
  }
  const std::uint64_t hit = find_trace(thread, target);
  log(LEVEL_TRACE, "hash lookup for 0x%lx: 0x%lx", target, hit);
  if (hit != HASH_MISS) {
    count_trace_event(hit == trace.entry_addr ? trace_counts.ends_in_head : trace_counts.ends_in_trace);
    close_trace(thread, source_index, write, hit, next_addr);
    return;
  }
  if (!extend_trace(thread, write, target, next_addr)) {
    count_trace_event(trace_counts.too_long);
    close_in_block(thread, source_index, write, target, next_addr);
  }
}

}  // namespace ceilmeter
