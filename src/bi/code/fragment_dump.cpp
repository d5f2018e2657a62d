// A line of code:
//   cache address, word, mnemonic, place that a branch leads to  |  source address, word, mnemonic
// The source side is empty where the word above stands for the same source word.
#include "bi/code/fragment_dump.h"

#include <cstdarg>
#include <cstdio>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/exit_branch.h"
#include "bi/code/run_groups.h"
#include "bi/code/scan_rules.h"
#include "bi/code/source_map.h"
#include "bi/kernel/memory_probe.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr std::size_t MOST_WORDS = 4096;  // Ends the walk if the record describes no code.
constexpr std::size_t MOST_LINKS = 32;
constexpr std::size_t TRAMPOLINE_WORDS = 4;
constexpr std::size_t SIDE_SIZE = 80;

[[gnu::format(printf, 1, 2)]] void put(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  mora_log_message("src/bi/fragment_dump", __LINE__, __func__, LEVEL_INFO, format, arguments);
  va_end(arguments);
}

const char* name_of_kind(std::uint32_t kind) {
  switch (kind) {
    case EXIT_NOT_SET: return "no exit";
    case EXIT_STUB_BLOCK: return "not scanned yet";
    case EXIT_DIRECT: return "direct";
    case EXIT_REGISTER: return "register";
    case EXIT_B_COND: return "b.cond";
    case EXIT_CBZ: return "cbz";
    case EXIT_TBZ: return "tbz";
    case EXIT_TRACE: return "trampoline";
    case EXIT_COMPARE: return "cb<cc>";
    default: return "unknown";
  }
}

bool read_source_word(std::uint64_t address, std::uint32_t* word) {
  std::uint64_t pair = 0;
  if (!read_word(address & ~std::uint64_t{7}, &pair)) return false;
  *word = static_cast<std::uint32_t>(pair >> ((address & 4) * 8));
  return true;
}

// Whether the word is a branch to a fixed place.
bool has_destination(std::uint32_t word) {
  exit_branch branch{};
  return a64_decode(&word) == A64_B || decode_exit_branch(word, &branch);
}

bool is_in_exit(const bb_meta& meta, const std::uint32_t* place) {
  if (meta.exit_code_addr == nullptr) return false;
  return place >= meta.exit_code_addr && address_of(place) < address_of(meta.exit_code_addr) + BB_SIZE;
}

// The word behind the last one of a fragment of a trace, or of a trampoline.
std::uint64_t end_in_traces(const thread_data* thread, std::int32_t id) {
  const bb_meta& meta = thread->metas[id];
  if (is_counting_trampoline(meta)) return address_of(meta.exit_code_addr + 1);
  if (meta.exit_kind == EXIT_TRACE) return meta.cache_entry + TRAMPOLINE_WORDS * sizeof(std::uint32_t);
  const trace_state& trace = thread->active_trace;
  if (id + 1 < trace.id) return thread->metas[id + 1].cache_entry;
  return trace.active != 0 ? address_of(trace.write) : address_of(thread->trace_write_cursor);
}

// A block ends behind the branch to the dispatcher in its exit, or with the piece of the cache that the exit lies in.
// A block without an exit, for a place that cannot be executed, ends in words that nobody has written.
bool is_last_of_block(const thread_data* thread, const bb_meta& meta, const std::uint32_t* place) {
  if (meta.exit_code_addr == nullptr && place[1] == 0) return true;
  const bool in_exit = is_in_exit(meta, place);
  if ((in_exit || meta.exit_code_addr == nullptr) &&
      (address_of(place + 1) - address_of(thread->code_cache)) % BB_SIZE == 0) {
    return true;
  }
  return in_exit && a64_decode(place) == A64_B && branch_destination(*place, place) == thread->dispatcher_stub_addr;
}

void put_word(const thread_data* thread, const std::uint32_t* place, std::uint64_t source, bool is_new_source) {
  char to[SIDE_SIZE] = "";
  if (has_destination(*place)) {
    const std::uint64_t target = branch_destination(*place, place);
    std::snprintf(to, sizeof to, "0x%lx (%d)", target, addr_to_fragment_id(thread, target));
  }
  char original[SIDE_SIZE] = "";
  std::uint32_t word = 0;
  if (is_new_source && source != 0) {
    if (read_source_word(source, &word)) {
      std::snprintf(original, sizeof original, "0x%lx %08x %s", source, word, mnemonic_of(word));
    } else {
      std::snprintf(original, sizeof original, "0x%lx is not readable", source);
    }
  }
  put("  0x%lx %08x %-8s %-24s | %s", address_of(place), *place, mnemonic_of(*place), to, original);
}

void put_code(const thread_data* thread, std::int32_t id) {
  const bb_meta& meta = thread->metas[id];
  const std::uint64_t end = id >= BB_COUNT ? end_in_traces(thread, id) : 0;
  std::uint64_t last_source = 0;
  const auto* place = reinterpret_cast<const std::uint32_t*>(meta.cache_entry);
  for (std::size_t count = 0; count < MOST_WORDS && place != nullptr; ++count) {
    if (id >= BB_COUNT && address_of(place) >= end) return;
    const std::uint64_t source = source_of_cache_address(thread, address_of(place));
    put_word(thread, place, source, source != last_source);
    last_source = source;
    if (id < BB_COUNT && is_last_of_block(thread, meta, place)) return;
    place = next_fragment_word(thread, place);
  }
}

void put_links(const thread_data* thread, const bb_meta& meta) {
  std::size_t count = 0;
  for (const cc_link* link = meta.linked_from; link != nullptr && count < MOST_LINKS; link = link->next, ++count)
    put("  linked from 0x%lx (%d)", link->word, addr_to_fragment_id(thread, link->word));
}

}  // namespace

void log_fragment(const thread_data* thread, std::int32_t id) {
  if (id < 0 || id >= BB_META_COUNT) {
    put("fragment %d: there is no such index", id);
    return;
  }
  const bb_meta& meta = thread->metas[id];
  put("fragment %d: source 0x%lx, %u words seen; cache 0x%lx, exit %p, %s, links %u, continues %d", id,
      meta.source_addr, meta.source_words, meta.cache_entry, static_cast<void*>(meta.exit_code_addr),
      name_of_kind(meta.exit_kind), meta.link_state, meta.parent_block);
  if (!is_cache_address(thread, meta.cache_entry)) return;
  if (is_conditional_exit(meta.exit_kind))
    put("  taken to 0x%lx, else to 0x%lx", meta.taken_source_addr, meta.skipped_source_addr);
  put_code(thread, id);
  if (id >= BB_COUNT && meta.trampoline > id) put("  leaves by the trampoline %d", meta.trampoline);
  put_links(thread, meta);
}

}  // namespace ceilmeter

extern "C" void dump_fragment(int id) {
  if (ceilmeter::current_thread != nullptr) ceilmeter::log_fragment(ceilmeter::current_thread, id);
}
