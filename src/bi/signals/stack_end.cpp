#include "bi/signals/stack_end.h"

#include <cstddef>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/run_groups.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/source_map.h"
#include "bi/code/spare_stack.h"
#include "bi/code/stubs.h"
#include "bi/signals/signal_place.h"
#include "bi/signals/signals.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t REGISTER_MASK = 31;
constexpr int SECOND_SHIFT = 10;

// stp a, b, [sp, #-16]! and str a, [sp, #-16]!, and the loads that take them back.
bool is_pair_push(std::uint32_t word) { return (word & 0xffff83e0) == 0xa9bf03e0; }
bool is_push(std::uint32_t word) { return is_pair_push(word) || (word & 0xffffffe0) == 0xf81f0fe0; }
bool is_pop(std::uint32_t word) { return (word & 0xffff83e0) == 0xa8c103e0 || (word & 0xffffffe0) == 0xf84107e0; }

bool is_guarded_call(std::uint64_t pc) {
  return pc == address_of(reinterpret_cast<const void*>(guarded_call_stub)) ||
         pc == address_of(reinterpret_cast<const void*>(guarded_call_stub_sve));
}

// Takes back what the code of the place's source word has pushed before the place.
void take_back_pushes(const thread_data* thread, std::uint64_t pc, mcontext_t& context) {
  constexpr std::size_t most = 32;
  std::uint32_t pushes[most];
  std::size_t count = 0;
  const auto* place = reinterpret_cast<const std::uint32_t*>(thread->metas[exit_owner(thread, pc)].cache_entry);
  for (; place != nullptr; place = next_fragment_word(thread, place)) {
    if (begins_source_code(thread, place)) count = 0;
    if (address_of(place) == pc) break;
    if (is_push(*place) && count < most) pushes[count++] = *place;
    if (is_pop(*place) && count != 0) --count;
  }
  const auto restore = [&context](std::uint32_t reg, std::uint64_t value) {
    if (reg != REGISTER_MASK) context.regs[reg] = value;
  };
  while (count != 0) {
    const std::uint32_t word = pushes[--count];
    const auto* pushed = reinterpret_cast<const std::uint64_t*>(context.sp);
    restore(word & REGISTER_MASK, pushed[0]);
    if (is_pair_push(word)) restore(word >> SECOND_SHIFT & REGISTER_MASK, pushed[1]);
    context.sp += 16;
  }
}

// How the block that was left at `source` goes on. Where a block has not begun yet, it is one like any other.
resumed_block resumption_at(const thread_data* thread, std::uint64_t place, const source_place& source) {
  const std::uint64_t first = thread->metas[exit_owner(thread, place)].source_addr;
  const resumed_block rest = {source.address, source.address, 0, 0};
  if (!source.is_between) return rest;
  if (source.address == first) return {};
  const auto* before = reinterpret_cast<const std::uint32_t*>(source.address) - 1;
  if (!is_source_readable(before)) return rest;
  if (a64_decode(before) == A64_SVC) return {};
  return is_store_exclusive(*before) ? resumed_block{source.address, first, 0, 1} : rest;
}

// In a fragment: makes the context that of the source instruction.
bool leave_fragment(thread_data* thread, std::uint64_t place, mcontext_t& context, resumed_block* resumed) {
  const source_place source = find_source_place(thread, place);
  if (source.address == 0) return false;
  left_trace(thread, place);
  take_back_pushes(thread, place, context);
  if (has_lowered_sp(thread, place)) context.sp = application_sp(thread, context.sp);
  context.pc = source.address;
  *resumed = resumption_at(thread, place, source);
  return true;
}

// At the first push of a stub: the block that a branch leads to has not begun. A system call, and an IC IVAU that the
// dispatcher has not heard of, is made again.
bool leave_stub(thread_data* thread, mcontext_t& context, resumed_block* resumed) {
  const std::uint64_t caller = context.regs[30] - sizeof(std::uint32_t);
  if (is_stub_point(thread, context.pc, hot_counter_stub) && source_of_cache_address(thread, caller) == 0) return false;
  const bool calls =
      is_stub_point(thread, context.pc, syscall_wrapper) || is_stub_point(thread, context.pc, syscall_of_own_block);
  const bool repeats = thread->invalidates != 0 || calls;
  if (!leave_stub_entry(thread, context)) return false;
  if (repeats) *resumed = {context.pc, context.pc, 0, 0};
  return true;
}

}  // namespace

bool go_on_at_stack_end(thread_data* thread, ucontext_t* ucontext) {
  mcontext_t& context = ucontext->uc_mcontext;
  if (uses_spare_stack(thread)) return false;  // It has room. The fault is the application's.
  std::uint64_t place = context.pc;
  const bool calls = is_guarded_call(place);
  if (calls) place = context.regs[30] - sizeof(std::uint32_t);
  resumed_block resumed{};
  if (is_code_address(thread, place)) {
    const auto* word = reinterpret_cast<const std::uint32_t*>(place);
    if (!calls && (!is_push(*word) || is_copy(thread, word))) return false;
    if (!leave_fragment(thread, place, context, &resumed)) return false;
  } else if (!is_cache_address(thread, place) || !leave_stub(thread, context, &resumed)) {
    return false;
  }
  begin_spare_stack(thread, context.sp);
  thread->resumed = resumed;
  context.sp = spare_stack_end(thread);
  context_redirect_to_dispatcher(thread, ucontext, context.pc);
  return true;
}

bool move_sp_at_trap(thread_data* thread, mcontext_t& context) {
  if (!uses_spare_stack(thread) || !is_code_address(thread, context.pc)) return false;
  const auto* place = reinterpret_cast<const std::uint32_t*>(context.pc);
  const bool raises = is_sp_trap(*place, TRAP_RAISE_SP);
  if ((!raises && !is_sp_trap(*place, TRAP_LOWER_SP)) || is_copy(thread, place)) return false;
  context.sp = raises ? thread->spare_for_sp : sp_between_blocks(thread, context.sp);
  context.pc += sizeof(std::uint32_t);
  return true;
}

}  // namespace ceilmeter
