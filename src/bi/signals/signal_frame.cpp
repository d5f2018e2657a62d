#include "bi/signals/signal_frame.h"

#include <asm/sigcontext.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/kernel/call_mask.h"
#include "bi/kernel/memory_probe.h"
#include "bi/kernel/pages.h"
#include "bi/signals/application_stack.h"
#include "bi/signals/held_signals.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signal_stack.h"
#include "bi/signals/signals.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t FRAME_ALIGNMENT = 16;
constexpr std::uint64_t FRAME_RECORD_SIZE = 16;
constexpr std::uint64_t ENTRY_PUSH = STUB_APP_FRAME_SIZE;  // For an entry by the dispatcher.

#ifndef SA_RESTORER
constexpr std::uint64_t SA_RESTORER = 0x04000000;  // The kernel's; C libraries keep it to themselves.
#endif

// PSTATE.BTYPE and PSTATE.TCO: a handler begins with both clear, whatever the signal has interrupted.
constexpr std::uint64_t ENTRY_CLEARS = 0xc00 | 1U << 25;

static_assert(sizeof(siginfo_t) == SIGINFO_SIZE);
static_assert(offsetof(signal_frame, ucontext) == SIGINFO_SIZE, "the kernel's frame begins with a siginfo");

// Asked of the kernel page by page, as it would find out by writing. The range may wrap: then a page near the end of
// the addresses is among those asked for, and no application has it.
bool is_writable_range(std::uint64_t begin, std::uint64_t end) {
  if (end <= begin) return false;
  for (std::uint64_t place = begin; place < end; place = page_down(place, page_size()) + page_size()) {
    if (!is_writable(std::min(place, end - sizeof(std::uint64_t)))) return false;
  }
  return true;
}

struct frame_records {
  std::uint64_t size;    // Of those in the context, with the empty one that ends them.
  extra_context* extra;  // Of those that lie behind that, because they do not fit; null: there are none.
};

// The kernel writes no more of the context than its records take, a tenth of it in most frames.
frame_records records_of(mcontext_t& context) {
  auto* begin = reinterpret_cast<std::uint8_t*>(context.__reserved);
  frame_records records{sizeof context.__reserved, nullptr};
  for (std::uint64_t place = 0; place + sizeof(extra_context) <= sizeof context.__reserved;) {
    auto* head = reinterpret_cast<_aarch64_ctx*>(begin + place);
    if (head->magic == EXTRA_MAGIC) records.extra = reinterpret_cast<extra_context*>(head);
    place += head->magic == 0 ? sizeof *head : head->size;
    if (head->magic == 0 || head->size == 0) {
      records.size = place;
      return records;
    }
  }
  return records;
}

void copy_bytes(std::uint64_t to, std::uint64_t from, std::uint64_t size) {
  std::memcpy(reinterpret_cast<void*>(to), reinterpret_cast<const void*>(from), size);
}

void copy_frame(const thread_data* thread, signal_frame* from, signal_frame* to, std::uint64_t size, bool with_info) {
  const std::uint64_t source = address_of(from);
  const std::uint64_t place = address_of(to);
  mcontext_t& context = from->ucontext.uc_mcontext;
  const frame_records records = records_of(context);
  const std::uint64_t first = with_info ? 0 : sizeof from->info;
  const std::uint64_t context_end = address_of(context.__reserved) + records.size - source;
  copy_bytes(place + first, source + first, context_end - first);
  const std::uint64_t record = size - FRAME_RECORD_SIZE;
  if (records.extra != nullptr) {
    copy_bytes(place + context_end, source + context_end, record - context_end);
    reinterpret_cast<extra_context*>(place + (address_of(records.extra) - source))->datap += place - source;
  }
  const stack_t stack = stack_in_frame(thread, context.sp, from->ucontext.uc_stack.ss_flags);
  std::memcpy(&to->ucontext.uc_stack, &stack, sizeof stack);
  const std::uint64_t registers[] = {context.regs[29], context.regs[30]};
  std::memcpy(reinterpret_cast<void*>(place + record), registers, sizeof registers);
}

// Where a handler's code is, if the thread may go there straight away, as by a link. Otherwise the way leads past the
// dispatcher, which scans, and past the look at the held signals: one of them is then raised on top of this one. None
// comes in between, because every signal is blocked up to the return from the kernel's frame.
std::uint64_t straight_entry(const thread_data* thread, std::uint64_t handler) {
  if (std::atomic_ref(const_cast<thread_data*>(thread)->pending_signal_count).load(std::memory_order_relaxed) != 0) {
    return 0;
  }
  const std::uint64_t entry = hash_lookup_entry(thread, handler);
  return entry == HASH_MISS ? 0 : entry + ENTRY_WORD_SIZE;
}

std::uint64_t handler_mask(const application_action& action, int signum, std::uint64_t mask) {
  mask |= action.mask;
  if ((action.flags & SA_NODEFER) == 0) mask |= signal_bit(signum);
  return mask & ~SIGILL_BIT;
}

}  // namespace

bool enter_handler(thread_data* thread, signal_frame* frame, const frame_end& end, const application_action& action,
                   std::uint64_t mask) {
  mcontext_t& context = frame->ucontext.uc_mcontext;
  const int signum = frame->info.si_signo;
  const bool with_info = (action.flags & SA_SIGINFO) != 0;
  const std::uint64_t size = end.record + FRAME_RECORD_SIZE - address_of(frame);
  const std::uint64_t top = signal_frame_top(thread, context.sp, (action.flags & SA_ONSTACK) != 0);
  const std::uint64_t record = (top - FRAME_RECORD_SIZE) & ~(FRAME_ALIGNMENT - 1);
  const std::uint64_t place = record + FRAME_RECORD_SIZE - size;
  const std::uint64_t straight = straight_entry(thread, action.handler);
  const std::uint64_t lowest = straight != 0 ? place : place - ENTRY_PUSH;
  if (!is_writable_range(lowest, record + FRAME_RECORD_SIZE)) return false;

  auto* copy = reinterpret_cast<signal_frame*>(place);
  copy_frame(thread, frame, copy, size, with_info);
  disarm_application_stack(thread);

  context.regs[0] = static_cast<std::uint64_t>(signum);
  if (with_info) {
    context.regs[1] = address_of(&copy->info);
    context.regs[2] = address_of(&copy->ucontext);
  }
  context.regs[29] = record;
  context.regs[30] = (action.flags & SA_RESTORER) != 0 ? action.restorer : end.restorer;
  context.sp = place;
  context.pstate &= ~ENTRY_CLEARS;
  mask = handler_mask(action, signum, mask);
  std::memcpy(&frame->ucontext.uc_sigmask, &mask, sizeof mask);
  if (straight != 0) {
    context.pc = straight;
  } else {
    context_redirect_to_dispatcher(thread, &frame->ucontext, action.handler);
  }
  return true;
}

void take_back_frame(thread_data* thread, ucontext_t* ucontext) {
  restore_application_stack(thread, ucontext->uc_stack, ucontext->uc_mcontext.sp);
  // The kernel sets the thread's signal stack to what the frame says.
  ucontext->uc_stack = kernel_signal_stack(thread);
}

}  // namespace ceilmeter
