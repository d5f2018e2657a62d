// Setting and taking away traps. The instruction cache is cleared over exactly the words written. The thread that
// executes them is this one, and it comes back to them by an exception return, which is a context synchronisation.
#include "bi/signals/exit_trap.h"

#include <cstring>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/exit_branch.h"
#include "bi/code/run_groups.h"
#include "bi/signals/signals.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/signals"};  // Not its own name: see the log's units in docs/engine.md.

constexpr std::uint32_t BR_X0 = 0xd61f0000;  // br x0

// How many bytes of a conditional exit in a trace a trap replaces: the words that leave the trace. The word behind them
// is the next fragment's and may be the first one of that one's exit, with a trap of its own. In the last fragment it
// is the branch that closes the trace.
std::uint32_t trace_exit_trap_size(const bb_meta& meta) {
  const bool has_way_out_of_its_own = meta.exit_kind == EXIT_COMPARE && (meta.link_state & LINK_TAKEN_FIRST) != 0;
  const std::uint32_t size = has_way_out_of_its_own ? 8 : 4;
  return (meta.link_state & LINK_CLOSES_TRACE) != 0 ? size + 4 : size;
}

// How many bytes of a direct exit a trap replaces: those that a link may have made a way out.
std::uint32_t get_direct_branch_exit_trap_sz(const bb_meta& meta, std::int32_t fragment_id) {
  switch (meta.exit_kind) {
    case EXIT_DIRECT: return 4;
    case EXIT_B_COND:
    case EXIT_CBZ:
    case EXIT_TBZ:
      if (fragment_id >= BB_COUNT) return trace_exit_trap_size(meta);
      return (meta.link_state & LINK_BOTH) != 0 ? 12 : 8;
    case EXIT_COMPARE: return fragment_id >= BB_COUNT ? trace_exit_trap_size(meta) : 12;
    default: log(LEVEL_FATAL, "unknown branch type: %d", static_cast<int>(meta.exit_kind)); return 0;
  }
}

void trap_register_branch(const bb_meta& meta) {
  std::uint32_t* word = meta.exit_code_addr;
  for (;; ++word) {
    const int inst = a64_decode(word);
    if (inst == A64_HVC) return;  // There already.
    if (inst == A64_BR) break;
  }
  a64_hvc(word, TRAP_REGISTER_BRANCH);
  clear_instruction_cache(meta.exit_code_addr, word + 1);
}

// The target is in the register that the lookup has held it in.
void undo_register_trap(thread_data* thread, ucontext_t* ucontext, const bb_meta& meta) {
  mcontext_t& context = ucontext->uc_mcontext;
  auto* word = reinterpret_cast<std::uint32_t*>(context.pc);
  *word = BR_X0;
  clear_instruction_cache(word, word + 1);
  // Read the target first: its register may be x1, which the next lines overwrite.
  const std::uint64_t target = meta.rn == 31 ? 0 : context.regs[meta.rn];
  const auto* stack = reinterpret_cast<const std::uint64_t*>(context.sp);
  context.regs[0] = stack[0];
  context.regs[1] = stack[1];
  context.sp += 16;
  context_redirect_to_dispatcher(thread, ucontext, target);
}

void undo_direct_trap(thread_data* thread, ucontext_t* ucontext, bb_meta& meta, std::int32_t id) {
  const mcontext_t& context = ucontext->uc_mcontext;
  left_trace(thread, context.pc);
  // Put back only words that still are traps. A thread that stood just behind the trapped words, on its way to the
  // dispatcher, has linked the second side since, and that link has to stay.
  const std::uint32_t words = get_direct_branch_exit_trap_sz(meta, id) / 4;
  for (std::uint32_t word = 0; word < words; ++word) {
    if (a64_decode(meta.exit_code_addr + word) == A64_HVC) meta.exit_code_addr[word] = meta.overwritten_exit[word];
  }
  clear_instruction_cache(meta.exit_code_addr, meta.exit_code_addr + words);
  if (!is_direct_exit(meta.exit_kind)) {
    log(LEVEL_FATAL, "signal: interpreting of %d fragments not implemented", static_cast<int>(meta.exit_kind));
  }
  std::uint64_t registers[31];  // A copy: the context's are of another integer type.
  static_assert(sizeof registers == sizeof context.regs);
  std::memcpy(registers, context.regs, sizeof registers);
  const bool taken = meta.exit_kind == EXIT_DIRECT || is_taken(unpack_exit_branch(meta), registers, context.pstate);
  context_redirect_to_dispatcher(thread, ucontext, taken ? meta.taken_source_addr : meta.skipped_source_addr);
}

}  // namespace

void trap_fragment_exit(thread_data* thread, std::int32_t fragment_id, std::uint64_t pc) {
  if (uses_spare_stack(thread)) return;  // Each exit of its blocks comes to the dispatcher by itself.
  std::int32_t id = fragment_id;
  for (;;) {
    // A fragment of a trace that ends in a direct branch just goes on in the next one, unless it closes the trace.
    while (id >= BB_COUNT && thread->metas[id].exit_kind == EXIT_DIRECT &&
           (thread->metas[id].link_state & LINK_CLOSES_TRACE) == 0 && id + 1 < thread->active_trace.id) {
      ++id;
    }
    if (thread->metas[id].exit_kind != EXIT_TRACE) break;
    // The thread leaves the trampoline into a fragment, which may be one of another trace.
    id = exit_owner(thread, thread->metas[id].rejoin_cache_addr);
    if (id < 0) return;
    pc = thread->metas[id].cache_entry;
  }
  bb_meta& meta = thread->metas[id];
  if (meta.exit_kind == EXIT_REGISTER) {
    trap_register_branch(meta);
    return;
  }
  if (meta.link_state == LINK_NONE) return;  // Its stub comes to the dispatcher by itself.
  const std::uint32_t size = get_direct_branch_exit_trap_sz(meta, id);
  if (pc > address_of(meta.exit_code_addr) + size || a64_decode(meta.exit_code_addr) == A64_HVC) return;
  std::memcpy(meta.overwritten_exit, meta.exit_code_addr, size);
  for (std::uint32_t word = 0; word < size / 4; ++word) a64_hvc(meta.exit_code_addr + word, TRAP_DIRECT_EXIT);
  clear_instruction_cache(meta.exit_code_addr, meta.exit_code_addr + size / 4);
}

std::uint32_t* untrapped_word(thread_data* thread, std::uint32_t* place) {
  if (a64_decode(place) != A64_HVC) return place;
  const std::int32_t id = exit_owner(thread, address_of(place));
  if (id < 0) return place;
  bb_meta& meta = thread->metas[id];
  if (!is_direct_exit(meta.exit_kind)) return place;
  const std::uint32_t size = get_direct_branch_exit_trap_sz(meta, id);
  if (place < meta.exit_code_addr || place >= meta.exit_code_addr + size / 4) return place;
  return meta.overwritten_exit + (place - meta.exit_code_addr);
}

void handle_trap(thread_data* thread, ucontext_t* ucontext, std::int32_t id) {
  bb_meta& meta = thread->metas[id];
  std::uint32_t code = 0;
  a64_hvc_decode(reinterpret_cast<const std::uint32_t*>(ucontext->uc_mcontext.pc), &code);
  switch (code) {
    case TRAP_REGISTER_BRANCH: undo_register_trap(thread, ucontext, meta); break;
    case TRAP_DIRECT_EXIT: undo_direct_trap(thread, ucontext, meta, id); break;
    default: log(LEVEL_FATAL, "unknown trap code"); break;
  }
}

}  // namespace ceilmeter
