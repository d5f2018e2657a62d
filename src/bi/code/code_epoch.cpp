// Two pairs of accesses keep a thread from slipping through. Each is a store, a full fence, and a load of the other's
// word, on both sides:
//
//   a thread that leaves a call    runs_call = 0;     fence; reads code_epoch
//   a thread that drops            code_epoch + 1;    fence; reads runs_call
//
//   a thread that enters a call    runs_call = 1;     fence; waits while visit_wanted
//   a thread that drops            visit_wanted = 1;  fence; reads runs_call: takes the wish back, or sends the signal
//
// By the second pair a signal never strikes in the kernel, where it would end the application's call with EINTR.
#include "bi/code/code_epoch.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "bi/code/code_cache.h"
#include "bi/code/drop_range.h"
#include "bi/code/shared_mappings.h"
#include "bi/code/stubs.h"
#include "bi/code/translated_pages.h"
#include "bi/kernel/call_mask.h"

namespace ceilmeter {

namespace {

// What visit_wanted says besides 0. The signal is about to be sent; it has been sent. Only then can it have been merged
// with another one.
constexpr std::uint32_t VISIT_WANTED = 1;
constexpr std::uint32_t VISIT_SENT = 2;

// No signal has number 0: its counter counts the visits that the thread owes.
constexpr int VISITS = 0;

std::uint64_t current_epoch() { return std::atomic_ref(engine.code_epoch).load(std::memory_order_acquire); }

// What the last epochs have dropped. A thread that has missed more than there is room for drops everything.
struct dropped_range {
  std::uint64_t start;
  std::uint64_t end;
};
constexpr std::uint64_t KEPT_EPOCHS = 256;
dropped_range dropped_ranges[KEPT_EPOCHS];

dropped_range& range_of(std::uint64_t epoch) { return dropped_ranges[epoch % KEPT_EPOCHS]; }

bool drop_up_to(thread_data* thread, std::uint64_t epoch) {
  bool dropped = false;
  for (std::uint64_t missed = thread->code_epoch + 1; missed <= epoch; ++missed) {
    const std::uint64_t start = std::atomic_ref(range_of(missed).start).load(std::memory_order_relaxed);
    const std::uint64_t end = std::atomic_ref(range_of(missed).end).load(std::memory_order_relaxed);
    // The place may have been written for a later epoch meanwhile. That one has begun before: the fence orders the look
    // behind the loads, and pairs with the one in drop_code.
    std::atomic_thread_fence(std::memory_order_acquire);
    const std::uint64_t begun = std::atomic_ref(engine.begun_code_epoch).load(std::memory_order_relaxed);
    if (begun - missed >= KEPT_EPOCHS) {
      flush_code_cache(thread);
      return true;
    }
    dropped = drop_fragments(thread, start, end) || dropped;
  }
  return dropped;
}

// Never goes back: the handler of a visit may have acknowledged a later epoch in the middle of apply_code_epoch, or the
// thread itself while another one acknowledges in its place. Two threads that wait for each other's acknowledgement
// would wait for ever if one was taken back.
void acknowledge(thread_data* thread, std::uint64_t epoch) {
  std::atomic_ref acknowledged(thread->acknowledged_epoch);
  std::uint64_t before = acknowledged.load(std::memory_order_relaxed);
  // Release: pairs with the load in is_behind. By then the thread's exit is trapped.
  while (before < epoch && !acknowledged.compare_exchange_weak(before, epoch, std::memory_order_release)) {
  }
}

bool is_in_call(thread_data* thread) { return std::atomic_ref(thread->runs_call).load(std::memory_order_acquire) != 0; }

// Whether the thread may still begin a block from before the epoch.
bool is_behind(thread_data* thread, std::uint64_t epoch) {
  return !is_in_call(thread) && std::atomic_ref(thread->acknowledged_epoch).load(std::memory_order_acquire) < epoch;
}

// The caller holds thread_list_lock, so that one thread at a time sets the wish.
void want_visit(thread_data* thread, std::uint64_t epoch) {
  std::atomic_ref wanted(thread->visit_wanted);
  if (wanted.fetch_or(VISIT_WANTED, std::memory_order_seq_cst) != 0) return;  // The signal is on its way.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (is_in_call(thread)) {
    wanted.store(0, std::memory_order_release);
    return;
  }
  siginfo_t info{};
  info.si_signo = SIGILL;
  info.si_code = SI_QUEUE;
  info.si_pid = getpid();
  info.si_value.sival_ptr = &engine;
  // A child in its parent's memory is a process of its own, and asks its parent's threads as well.
  if (raw_syscall(SYS_rt_tgsigqueueinfo, static_cast<std::uint64_t>(thread->process),
                  static_cast<std::uint64_t>(thread->tid), SIGILL, address_of(&info)) == 0) {
    // Unless it is answered already. Release: pairs with the loads in visit_was_merged.
    std::uint32_t unanswered = VISIT_WANTED;
    wanted.compare_exchange_strong(unanswered, VISIT_WANTED | VISIT_SENT, std::memory_order_release);
    return;
  }
  // A child that has ended, or has become another user, cannot be asked. Nobody waits for it; the latter looks at the
  // epoch where it comes to the engine by itself.
  wanted.store(0, std::memory_order_release);
  acknowledge(thread, epoch);
}

// Whether another thread is behind the epoch. `first`: each of them is also asked to come.
bool others_are_behind(const thread_data* self, std::uint64_t epoch, bool first) {
  bool behind = false;
  owned_lock_take(&engine.thread_list_lock);
  for (thread_data* first_listed : {engine.thread_list, engine.hosted_children}) {
    for (thread_data* listed = first_listed; listed != nullptr; listed = listed->next) {
      for (thread_data* thread = listed; thread != nullptr; thread = thread->vfork_child) {
        if (thread == self || !is_behind(thread, epoch)) continue;
        behind = true;
        if (first) want_visit(thread, epoch);
      }
    }
  }
  owned_lock_leave(&engine.thread_list_lock);
  return behind;
}

bool is_ending() { return std::atomic_ref(engine.exit_flag).load(std::memory_order_relaxed) != 0; }

}  // namespace

void drop_code(thread_data* thread, std::uint64_t start, std::uint64_t end) {
  if (!has_translated(start, end)) return;
  owned_lock_take(&engine.code_epoch_lock);
  const std::uint64_t epoch = current_epoch() + 1;
  std::atomic_ref(engine.begun_code_epoch).store(epoch, std::memory_order_relaxed);
  // Release, in there: who finds the marks gone finds that an epoch has begun. Marks that are set from here on stay, as
  // what they stand for may be translated behind the drop.
  clear_translated(start, end);
  // Who finds the place written for this epoch finds that it has begun (drop_up_to).
  std::atomic_thread_fence(std::memory_order_release);
  dropped_range& range = range_of(epoch);
  std::atomic_ref(range.start).store(start, std::memory_order_relaxed);
  std::atomic_ref(range.end).store(end, std::memory_order_relaxed);
  // Release: pairs with the acquire in follow_code_epoch.
  std::atomic_ref(engine.code_epoch).store(epoch, std::memory_order_release);
  owned_lock_leave(&engine.code_epoch_lock);
  apply_code_epoch(thread);
}

std::uint64_t invalidated_line_bytes() {
  // The smallest line of all instruction caches, in words, as a power of two: what the application is shown as well.
  static const std::uint64_t line = [] {
    std::uint64_t ctr = 0;
    asm("mrs %0, ctr_el0" : "=r"(ctr));
    return std::uint64_t{4} << (ctr & 15);
  }();
  return line;
}

void invalidate_line(thread_data* thread, std::uint64_t address) {
  const std::uint64_t line = invalidated_line_bytes();
  const std::uint64_t start = address & ~(line - 1);
  drop_code(thread, start, start + line);
  drop_aliases(thread, start, start + line);
  settle_code_epoch(thread);
}

void settle_code_epoch(thread_data* thread) {
  const std::uint64_t epoch = std::atomic_ref(engine.begun_code_epoch).load(std::memory_order_acquire);
  std::atomic_ref settled(engine.settled_code_epoch);
  std::uint64_t before = settled.load(std::memory_order_acquire);
  if (before >= epoch) return;
  while (current_epoch() < epoch) sched_yield();  // Another thread is just noting its drop.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  constexpr int quick_looks = 50;
  constexpr useconds_t longest_pause = 1000;
  useconds_t pause = 20;
  int looks = 0;
  // A process that ends stops its threads by itself.
  for (bool first = true; others_are_behind(thread, epoch, first) && !is_ending(); first = false) {
    if (++looks < quick_looks) {
      sched_yield();
    } else {
      usleep(pause);
      pause = std::min(2 * pause, longest_pause);
    }
  }
  while (before < epoch && !settled.compare_exchange_weak(before, epoch, std::memory_order_acq_rel)) {
  }
}

bool apply_code_epoch(thread_data* thread) {
  take_visits(thread);  // First: a visit that is counted from here on is for a later epoch.
  const std::uint64_t epoch = current_epoch();
  if (epoch == thread->code_epoch) return false;
  const bool dropped = drop_up_to(thread, epoch);
  thread->code_epoch = epoch;
  acknowledge(thread, epoch);
  return dropped;
}

void wait_for_visit(thread_data* thread) {
  // In a process that ends, the handler of the visit's signal leads the thread out and answers no wish.
  while (std::atomic_ref(thread->visit_wanted).load(std::memory_order_acquire) != 0 && !is_ending()) sched_yield();
}

bool is_visit(const siginfo_t& info) { return info.si_code == SI_QUEUE && info.si_value.sival_ptr == &engine; }

bool visit_was_merged(thread_data* thread) {
  const std::atomic_ref wanted(thread->visit_wanted);
  // Its sender waits for nobody in between.
  while (wanted.load(std::memory_order_acquire) == VISIT_WANTED) sched_yield();
  if (wanted.load(std::memory_order_acquire) == 0) return false;
  // SIGILL is blocked in its handler: a visit that was not merged is pending, and comes behind this signal. To answer
  // it now would let its signal strike later, in a system call of the application's.
  std::uint64_t pending = 0;
  raw_syscall(SYS_rt_sigpending, address_of(&pending), sizeof pending);
  return (pending & SIGILL_BIT) == 0;
}

bool answer_visit(thread_data* thread) {
  // Acquire: pairs with the RMW in want_visit; the epoch read next is that of the wish, or a later one.
  if (std::atomic_ref(thread->visit_wanted).exchange(0, std::memory_order_acq_rel) == 0) return false;
  std::atomic_ref(thread->pending_signals[VISITS]).fetch_add(1, std::memory_order_relaxed);
  std::atomic_ref(thread->pending_signal_count).fetch_add(1, std::memory_order_relaxed);
  return true;
}

void acknowledge_visit(thread_data* thread) { acknowledge(thread, current_epoch()); }

void take_visits(thread_data* thread) {
  const std::int32_t visits = std::atomic_ref(thread->pending_signals[VISITS]).exchange(0, std::memory_order_relaxed);
  if (visits != 0) std::atomic_ref(thread->pending_signal_count).fetch_sub(visits, std::memory_order_relaxed);
}

void forget_visits(thread_data* thread) {
  engine.begun_code_epoch = engine.code_epoch;
  std::atomic_ref(thread->visit_wanted).store(0, std::memory_order_relaxed);
}

}  // namespace ceilmeter
