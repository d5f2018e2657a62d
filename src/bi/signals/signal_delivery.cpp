// The counters belong to their thread. Updates are atomic, because a nested signal can strike between a load and a
// store.
#include "bi/signals/signal_delivery.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

#include "bi/kernel/call_mask.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signals.h"
#include "bi/signals/turns.h"
#include "bi/kernel/threads.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_epoch.h"
#include "bi/code/stub_layout.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

// From the result area of deliver_pending_signal, in words, to the cache address that the thread is on its way to.
constexpr std::ptrdiff_t REENTRY_CACHE_ADDRESS = (REENTRY_NEXT - REENTRY_RESULT) / 8;
constexpr std::ptrdiff_t REENTRY_STACK_POINTER = (REENTRY_APP_SP - REENTRY_RESULT) / 8;  // And to its stack pointer.

constexpr std::uint32_t SYNCHRONOUS_SIGNALS = 0x800009b0;

// Only this thread counts down. A signal that comes in between counts up, so a positive value stays positive.
void count_one_less(thread_data* thread, int signum) {
  std::atomic_ref(thread->pending_signals[signum]).fetch_sub(1, std::memory_order_relaxed);
  std::atomic_ref(thread->pending_signal_count).fetch_sub(1, std::memory_order_relaxed);
}

// Nearly every signal has a record, so who the process is is seldom asked.
void take_counted_signal(thread_data* thread, int signum) {
  if (!take_held_record(thread->held, signum)) take_held_signal(thread->held, signum, thread->process, getuid());
  count_one_less(thread, signum);
}

// Hands the signal to the kernel again, with what was sent with it.
void queue_again(thread_data* thread, int signum) {
  take_counted_signal(thread, signum);
  raise_in_kernel(thread);
}

// Gives counted signals that the thread blocks back to the kernel, where they stay pending. A call may wait for them
// (sigsuspend, sigtimedwait, a signal descriptor), so the kernel has to know of them. They were counted before they
// were blocked; the mask of another signal's handler blocks them.
void give_back_blocked_signals(thread_data* thread) {
  const std::uint64_t mask = application_mask(thread);
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if ((mask & signal_bit(signum)) == 0) continue;
    // A blocked signal does not come again, so its counter stands still.
    while (std::atomic_ref(thread->pending_signals[signum]).load(std::memory_order_relaxed) > 0) {
      queue_again(thread, signum);
    }
  }
}

}  // namespace

void raise_in_kernel(const thread_data* thread) {
  raw_syscall(NR_RT_TGSIGQUEUEINFO, static_cast<std::uint64_t>(thread->process),
              static_cast<std::uint64_t>(thread->tid), static_cast<std::uint64_t>(thread->held.raised.si_signo),
              address_of(&thread->held.raised));
}

int find_deliverable_signal(const thread_data* thread) {
  const std::uint64_t mask = application_mask(thread);
  auto& counters = const_cast<thread_data*>(thread)->pending_signals;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if ((mask & signal_bit(signum)) != 0) continue;
    if (std::atomic_ref(counters[signum]).load(std::memory_order_relaxed) >= 1) return signum;
  }
  return -1;
}

std::uint64_t synchronous_signals() { return SYNCHRONOUS_SIGNALS >> 1; }  // As a mask signal n is bit n - 1.

bool is_synchronous(int signum) { return signum < 32 && (SYNCHRONOUS_SIGNALS >> signum & 1) != 0; }

void count_visit(thread_data* thread) {
  std::atomic_ref(thread->pending_signal_count).fetch_add(1, std::memory_order_relaxed);
}

bool has_to_visit_engine(thread_data* thread) {
  // What a thread in its cache has to drop comes as a visit, which is counted. A thread that leaves a call has been
  // sent none: it looks by itself.
  return std::atomic_ref(thread->pending_signal_count).load(std::memory_order_relaxed) != 0 ||
         is_behind_code_epoch(thread);
}

void count_signal(thread_data* thread, const siginfo_t& info) {
  // A signal without a queue that is pending merges with the next one, as in the kernel. Else a timer that is faster
  // than its handler would leave ever more of them behind.
  const bool is_pending = std::atomic_ref(thread->pending_signals[info.si_signo]).load(std::memory_order_relaxed) != 0;
  if (is_pending && info.si_signo < FIRST_QUEUED_SIGNAL) return;
  hold_signal(thread->held, info);  // Before it is counted: who takes it off its counter looks for the record.
  std::atomic_ref(thread->pending_signals[info.si_signo]).fetch_add(1, std::memory_order_relaxed);
  count_visit(thread);
}

std::uint64_t handled_signals() {
  std::uint64_t mask = 0;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if (is_synchronous(signum)) continue;
    const std::uint64_t handler = std::atomic_ref(application_handlers()[signum]).load(std::memory_order_relaxed);
    if (handler > 1) mask |= signal_bit(signum);
  }
  return mask;
}

void block_handled_signals() {
  const std::uint64_t mask = handled_signals();
  raw_syscall(NR_RT_SIGPROCMASK, SIG_BLOCK, address_of(&mask), 0, KERNEL_SIGSET_SIZE);
}

bool has_deliverable_signal(thread_data* thread) {
  if (is_process_ending(thread)) return true;
  if (find_deliverable_signal(thread) >= 0) return true;
  if (std::atomic_ref(thread->pending_signal_count).load(std::memory_order_relaxed) != 0)
    give_back_blocked_signals(thread);
  let_through(thread);
  return false;
}

// The signal becomes pending with everything blocked, and strikes as it is unblocked; with it may come others that the
// kernel has held back. A trap does both where there is one. Else the signal becomes pending here, and the stub's call
// unblocks it. SIGILL can be blocked in the second case alone.
extern "C" std::uint64_t deliver_pending_signal(std::uint64_t source, std::uint64_t* info) {
  thread_data* thread = current_thread;
  if (is_process_ending(thread)) abandon_thread(thread);
  take_visits(thread);
  // What the stub is about to go to may be gone. A turn is given to what the thread goes to now.
  if (follow_code_epoch(thread)) info[REENTRY_CACHE_ADDRESS] = lookup_or_scan(thread, source);
  // Read the sum before the counters. If a signal comes in between, the stub then asks again.
  const std::int32_t judged = std::atomic_ref(thread->pending_signal_count).load(std::memory_order_relaxed);
  const int signum = find_deliverable_signal(thread);
  const application_place place = {source, info[REENTRY_STACK_POINTER], info[REENTRY_CACHE_ADDRESS]};
  // The rest of a block that was left in its middle runs first: it is not to be counted again.
  const bool is_resumed = thread->resumed.entry != 0 && thread->resumed.entry == info[REENTRY_CACHE_ADDRESS];
  if (signum < 0 || is_resumed || give_turn(thread, signum, find_held_signal(thread->held, signum), place)) {
    if (signum < 0) let_through(thread);
    info[0] = static_cast<std::uint64_t>(judged);
    return 0;
  }
  if (raises_by_trap(thread)) {
    hold_all_back(thread, ~SIGILL_BIT);
    take_counted_signal(thread, signum);
  } else {
    hold_all_back(thread, ~std::uint64_t{0});
    queue_again(thread, signum);
  }
  info[0] = SIG_SETMASK;
  info[1] = address_of(&thread->application_mask);
  info[2] = 0;
  end_holding_back(thread);
  return 1;
}

}  // namespace ceilmeter
