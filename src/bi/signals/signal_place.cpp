// Contexts of interrupted threads. The labels and the frames are those of stubs.S.
#include "bi/signals/signal_place.h"

#include <asm/sigcontext.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/kernel/call_mask.h"
#include "bi/code/code_cache.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/scan_rules.h"
#include "bi/code/source_map.h"
#include "bi/code/spare_stack.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t TAG = std::uint64_t{0xff} << 56;

constexpr std::uint64_t CONDITION_FLAGS = 0xf0000000;  // N, Z, C and V in PSTATE.

bool is_between(const thread_data* thread, std::uint64_t pc, const std::uint8_t* begin, const std::uint8_t* end) {
  const std::uint64_t base = address_of(thread->code_cache);
  return pc >= base + stub_offset(begin) && pc < base + stub_offset(end);
}

// A word of the frame that a stub has where the engine's stack of the thread begins; `size` is the whole frame's.
std::uint64_t frame_word(const thread_data* thread, std::uint64_t size, std::uint64_t offset) {
  return *reinterpret_cast<const std::uint64_t*>(engine_stack(thread) - size + offset);
}

std::uint64_t* save_area(const thread_data* thread) {
  return reinterpret_cast<std::uint64_t*>(engine_stack(thread) - SYSCALL_AREA_SIZE);
}

fpsimd_context* fpsimd_record(mcontext_t& context) {
  auto* head = reinterpret_cast<_aarch64_ctx*>(context.__reserved);
  auto* end = context.__reserved + sizeof context.__reserved;
  while (reinterpret_cast<unsigned char*>(head + 1) <= end && head->magic != 0 && head->size != 0) {
    if (head->magic == FPSIMD_MAGIC) return reinterpret_cast<fpsimd_context*>(head);
    head = reinterpret_cast<_aarch64_ctx*>(reinterpret_cast<unsigned char*>(head) + head->size);
  }
  return nullptr;
}

// The register that the code of the source word has pushed when it makes its access, or NOTHING_BORROWED.
std::uint32_t borrowed_register(const std::uint32_t* source) {
  if (!is_source_readable(source) || a64_decode(source) != A64_LDR_LITERAL) return NOTHING_BORROWED;
  return borrowed_by_literal_load(source, *source);
}

}  // namespace

bool leave_stub_entry(thread_data* thread, mcontext_t& context) {
  const auto* pushed = reinterpret_cast<const std::uint64_t*>(context.sp);
  if (is_stub_point(thread, context.pc, redirect_stub)) {
    context.pc = thread->redirect_target & ~TAG;
    context.sp = application_sp(thread, context.sp);
    return true;
  }
  if (is_stub_point(thread, context.pc, dispatcher_entry_stub)) {
    // The branch has been made: the application stands where it leads, and pc has no tag. An IC IVAU that the
    // dispatcher has not heard of is made again.
    context.pc = (context.regs[0] & ~TAG) - (thread->invalidates != 0 ? sizeof(std::uint32_t) : 0);
    thread->invalidates = 0;
    context.regs[0] = pushed[0];
    context.regs[1] = pushed[1];
  } else if (is_stub_point(thread, context.pc, hot_counter_stub)) {
    context.pc = source_of_cache_address(thread, context.regs[30] - sizeof(std::uint32_t));
    context.regs[1] = pushed[0];
    context.regs[30] = pushed[1];
  } else if (is_stub_point(thread, context.pc, syscall_wrapper) ||
             is_stub_point(thread, context.pc, syscall_of_own_block)) {
    context.pc = context.regs[29] - sizeof(std::uint32_t);
    context.regs[29] = pushed[0];
    context.regs[30] = pushed[1];
  } else {
    return false;
  }
  context.sp = application_sp(thread, context.sp + 16);
  return true;
}

namespace {

// Whether the lookup of a register branch has faulted at its second push, where it has changed no register yet.
bool is_second_push_of_lookup(const thread_data* thread, std::uint64_t pc) {
  const std::int32_t id = exit_owner(thread, pc);
  if (id <= 0 || thread->metas[id].exit_kind != EXIT_REGISTER) return false;
  return pc == address_of(thread->metas[id].exit_code_addr + 1);
}

// The words that lower and raise the stack pointer around what the engine adds to a new thread's blocks.
constexpr std::uint32_t LOWER_SP = 0xd10003ff | KEPT_BELOW_SP << 10;  // sub sp, sp, #KEPT_BELOW_SP
constexpr std::uint32_t RAISE_SP = 0x910003ff | KEPT_BELOW_SP << 10;  // add sp, sp, #KEPT_BELOW_SP

}  // namespace

bool is_copy(const thread_data* thread, const std::uint32_t* place) {
  const std::uint64_t source = source_of_cache_address(thread, address_of(place));
  const std::uint32_t* next = next_fragment_word(thread, place);
  const bool is_last = next == nullptr || source_of_cache_address(thread, address_of(next)) != source;
  const auto* word = reinterpret_cast<const std::uint32_t*>(source);
  return is_last && is_source_readable(word) && *word == *place;
}

namespace {

bool is_lowering(std::uint32_t word) { return word == LOWER_SP || is_sp_trap(word, TRAP_LOWER_SP); }
bool is_raising(std::uint32_t word) { return word == RAISE_SP || is_sp_trap(word, TRAP_RAISE_SP); }

}  // namespace

bool has_lowered_sp(const thread_data* thread, std::uint64_t pc) {
  const std::int32_t id = exit_owner(thread, pc);
  if (!has_own_blocks(thread) || id <= 0) return false;
  bool is_lowered = true;
  const auto* place = reinterpret_cast<const std::uint32_t*>(thread->metas[id].cache_entry);
  for (; place != nullptr && address_of(place) != pc; place = next_fragment_word(thread, place)) {
    if ((is_lowering(*place) || is_raising(*place)) && !is_copy(thread, place)) is_lowered = is_lowering(*place);
  }
  return is_lowered;
}

bool is_sp_trap(std::uint32_t word, std::uint32_t code) {
  constexpr std::uint32_t hvc = 0xd4000002;
  return word == (hvc | code << 5);
}

bool is_stub_point(const thread_data* thread, std::uint64_t pc, const std::uint8_t* place) {
  return pc == address_of(thread->code_cache) + stub_offset(place);
}

std::uint64_t fragment_place(const mcontext_t& context) {
  if (guarded_return_address != 0) return guarded_return_address;
  const std::uint64_t pc = context.pc;
  const bool calls =
      pc >= address_of(reinterpret_cast<const void*>(guarded_call_stub)) && pc < address_of(guarded_call_stubs_end);
  return calls ? context.regs[30] : pc;
}

bool is_before_syscall(const thread_data* thread, std::uint64_t pc) {
  if (is_between(thread, pc, quick_call_window, quick_return_point)) return true;
  return is_between(thread, pc, syscall_call_window, syscall_return_point) &&
         std::atomic_ref(const_cast<thread_data*>(thread)->status).load(std::memory_order_relaxed) == THREAD_IN_SYSCALL;
}

void look_again(const thread_data* thread, mcontext_t& context) {
  const std::uint64_t pc = context.pc;
  const std::uint64_t base = address_of(thread->code_cache);
  if (is_between(thread, pc, reentry_window, reentry_branch)) {
    context.pc = base + stub_offset(reentry_window);
  } else if (is_stub_point(thread, pc, reentry_branch) || is_stub_point(thread, pc, reentry_resume_branch)) {
    context.pc = base + stub_offset(cache_reentry_stub);
  } else if (is_between(thread, pc, reentry_resume_window, reentry_resume_branch)) {
    context.regs[0] = frame_word(thread, REENTRY_SIZE, REENTRY_NEXT);
    context.regs[1] = frame_word(thread, REENTRY_SIZE, REENTRY_NEXT + 8);
    context.sp = frame_word(thread, REENTRY_SIZE, REENTRY_APP_SP);
    context.regs[3] = reinterpret_cast<const std::uint64_t*>(context.sp)[1];
    context.pc = base + stub_offset(reentry_window);
  } else if (is_between(thread, pc, syscall_restart_window, syscall_call_window)) {
    context.pc = base + stub_offset(syscall_restart_window);
  } else if (is_between(thread, pc, quick_restart_window, quick_call_window)) {
    context.pc = base + stub_offset(quick_restart_window);
  } else if (is_between(thread, pc, quick_look_window, quick_branch) || is_stub_point(thread, pc, quick_branch)) {
    const std::uint64_t* area = save_area(thread);
    context.regs[0] = area[SYSCALL_CACHE_RETURN / 8];
    context.regs[1] = area[SYSCALL_NEXT_SOURCE / 8];
    context.regs[29] = area[SYSCALL_X29 / 8];
    context.regs[30] = area[SYSCALL_X30 / 8];
    context.pc = base + stub_offset(quick_call_visit);
  }
}

void leave_reentry_stub(const thread_data* thread, mcontext_t& context) {
  const auto* frame = reinterpret_cast<const std::uint64_t*>(context.sp);
  context.regs[2] = frame[0];
  context.regs[3] = thread->held.saved_x3;
  context.regs[8] = frame[1];
  context.regs[0] = frame[2];
  context.regs[1] = frame[3];
  context.pc = frame_word(thread, REENTRY_SIZE, REENTRY_NEXT + 8);
  context.sp = application_sp(thread, context.sp + STUB_APP_FRAME_SIZE);
}

namespace {

// Where the short way has the call in the kernel: all registers are the application's.
bool is_at_quick_call(const thread_data* thread, std::uint64_t pc) {
  return is_between(thread, pc, quick_call_window, quick_return_point) || is_stub_point(thread, pc, quick_return_point);
}

void leave_quick_call(const thread_data* thread, mcontext_t& context) {
  const std::uint64_t* area = save_area(thread);
  if (is_stub_point(thread, context.pc, quick_call_window)) {  // Except here.
    const auto* pushed = reinterpret_cast<const std::uint64_t*>(context.sp);
    context.regs[0] = pushed[0];
    context.regs[1] = pushed[1];
  }
  context.pc = area[SYSCALL_NEXT_SOURCE / 8];
  context.sp = area[SYSCALL_APP_SP / 8];
}

}  // namespace

bool is_behind_syscall(const thread_data* thread, std::uint64_t pc) {
  return is_stub_point(thread, pc, syscall_return_point) || is_stub_point(thread, pc, quick_return_point);
}

void leave_syscall_wrapper(thread_data* thread, mcontext_t& context) {
  if (is_at_quick_call(thread, context.pc)) return leave_quick_call(thread, context);
  restore_argument(thread, reinterpret_cast<std::uint64_t*>(context.regs), 1);  // The call's result is in x0.
  const std::uint64_t* area = save_area(thread);
  const std::uint64_t flags = context.regs[19];
  if (fpsimd_context* record = fpsimd_record(context)) {
    std::memcpy(record->vregs, area - STUB_SIMD_REGS_SIZE / sizeof *area, STUB_SIMD_REGS_SIZE);
    // The wrapper keeps both beside the flags while the call is in the kernel.
    record->fpsr = static_cast<std::uint32_t>(context.regs[21]);
    record->fpcr = static_cast<std::uint32_t>(context.regs[20]);
  }
  for (std::uint32_t reg = 9; reg <= 21; ++reg) context.regs[reg] = area[reg];
  context.regs[29] = area[SYSCALL_X29 / 8];
  context.regs[30] = area[SYSCALL_X30 / 8];
  // The wrapper's own code changes only the flags in PSTATE. SSBS, DIT and TCO are the application's.
  context.pstate = (context.pstate & ~CONDITION_FLAGS) | (flags & CONDITION_FLAGS);
  context.pc = area[SYSCALL_NEXT_SOURCE / 8];
  context.sp = area[SYSCALL_APP_SP / 8];
}

void find_mask_of_call(const thread_data* thread, const mcontext_t& context, std::uint64_t* mask) {
  // No call of the short way brings a mask.
  if (!is_stub_point(thread, context.pc, syscall_return_point)) return;
  if (static_cast<std::int64_t>(context.regs[0]) != -EINTR) return;
  const std::uint64_t* area = save_area(thread);
  read_mask_of_call(area[SYSCALL_X8 / 8], area, mask);
}

void undo_syscall(thread_data* thread, mcontext_t& context) {
  if (!is_at_quick_call(thread, context.pc)) {
    std::uint64_t* area = save_area(thread);
    restore_argument(thread, area, 0);
    for (std::uint32_t reg = 0; reg <= 8; ++reg) context.regs[reg] = area[reg];
  }
  leave_syscall_wrapper(thread, context);
  context.pc -= sizeof(std::uint32_t);
}

bool is_in_fault_block(const thread_data* thread, std::uint64_t pc) {
  if (!is_code_address(thread, pc)) return false;
  const std::int32_t id = exit_owner(thread, pc);
  return id > 0 && thread->metas[id].exit_kind == EXIT_NOT_SET;
}

bool restore_faulted_context(thread_data* thread, mcontext_t& context) {
  // The one place that writes to the application's stack while sp is the engine's.
  if (is_between(thread, context.pc, syscall_leave, cache_reentry_stub)) {
    context.sp = save_area(thread)[SYSCALL_APP_SP / 8];
  }
  if (!is_code_address(thread, context.pc)) return leave_stub_entry(thread, context);
  const std::uint64_t source = source_of_cache_address(thread, context.pc);
  if (source == 0) return false;
  // The accesses of both rules are the only loads of this kind in their code; their pushes are of another.
  const bool loads = a64_decode(reinterpret_cast<const std::uint32_t*>(context.pc)) == A64_LDR_STR_UNSIGNED;
  const bool unreadable = is_in_fault_block(thread, context.pc);
  const std::uint32_t borrowed = unreadable ? 0 : borrowed_register(reinterpret_cast<const std::uint32_t*>(source));
  if (loads && borrowed != NOTHING_BORROWED) {
    context.regs[borrowed] = *reinterpret_cast<const std::uint64_t*>(context.sp);
    context.sp += 16;
  }
  if (is_second_push_of_lookup(thread, context.pc)) context.sp += 16;
  if (has_lowered_sp(thread, context.pc)) context.sp = application_sp(thread, context.sp);
  context.pc = source;
  return true;
}

}  // namespace ceilmeter
