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
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

// No signal has number 0: its counter counts the visits that the thread owes.
constexpr int VISITS = 0;

std::uint64_t current_epoch() { return std::atomic_ref(engine.code_epoch).load(std::memory_order_acquire); }

void acknowledge(thread_data* thread, std::uint64_t epoch) {
  // Release: pairs with the load in is_behind. By then the thread's exit is trapped.
  std::atomic_ref(thread->acknowledged_epoch).store(epoch, std::memory_order_release);
}

bool is_in_call(thread_data* thread) {
  return std::atomic_ref(thread->runs_call).load(std::memory_order_acquire) != 0;
}

// Whether the thread may still begin a block from before the epoch.
bool is_behind(thread_data* thread, std::uint64_t epoch) {
  return !is_in_call(thread) && std::atomic_ref(thread->acknowledged_epoch).load(std::memory_order_acquire) < epoch;
}

// The caller holds thread_list_lock, so that one thread at a time sets the wish.
void want_visit(thread_data* thread) {
  std::atomic_ref wanted(thread->visit_wanted);
  if (wanted.exchange(1, std::memory_order_seq_cst) != 0) return;  // The signal is on its way.
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
  raw_syscall(SYS_rt_tgsigqueueinfo, static_cast<std::uint64_t>(getpid()), static_cast<std::uint64_t>(thread->tid),
              SIGILL, address_of(&info));
}

// Whether another thread is behind the epoch. `first`: each of them is also asked to come.
bool others_are_behind(const thread_data* self, std::uint64_t epoch, bool first) {
  bool behind = false;
  pthread_mutex_lock(&engine.thread_list_lock);
  for (thread_data* thread = engine.thread_list; thread != nullptr; thread = thread->next) {
    if (thread == self || !is_behind(thread, epoch)) continue;
    behind = true;
    if (first) want_visit(thread);
  }
  pthread_mutex_unlock(&engine.thread_list_lock);
  return behind;
}

bool is_ending() { return std::atomic_ref(engine.exit_flag).load(std::memory_order_relaxed) != 0; }

}  // namespace

void drop_code(thread_data* thread) {
  flush_code_cache(thread);
  // Release: pairs with the acquire in follow_code_epoch.
  const std::uint64_t before = std::atomic_ref(engine.code_epoch).fetch_add(1, std::memory_order_acq_rel);
  if (thread->code_epoch != before) return;  // It has missed others, and follows with them.
  thread->code_epoch = before + 1;
  acknowledge(thread, before + 1);
}

void settle_code_epoch(thread_data* thread) {
  const std::uint64_t epoch = current_epoch();
  std::atomic_ref settled(engine.settled_code_epoch);
  std::uint64_t before = settled.load(std::memory_order_acquire);
  if (before >= epoch) return;
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
  flush_code_cache(thread);
  thread->code_epoch = epoch;
  acknowledge(thread, epoch);
  return true;
}

void enter_call(thread_data* thread) {
  std::atomic_ref(thread->runs_call).store(1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  // The signal is on its way, or the wish will be taken back: its sender waits for nobody in between.
  while (std::atomic_ref(thread->visit_wanted).load(std::memory_order_acquire) != 0) sched_yield();
}

void leave_call(thread_data* thread) {
  std::atomic_ref(thread->runs_call).store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

bool answer_visit(thread_data* thread, const siginfo_t& info, bool* out_alone) {
  // Acquire: pairs with the exchange in want_visit; the epoch read next is that of the wish, or a later one.
  if (std::atomic_ref(thread->visit_wanted).exchange(0, std::memory_order_acq_rel) == 0) return false;
  // The signal may be one of the application's that the kernel has merged this one with.
  *out_alone = info.si_code == SI_QUEUE && info.si_value.sival_ptr == &engine;
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
  std::atomic_ref(thread->visit_wanted).store(0, std::memory_order_relaxed);
}

}  // namespace ceilmeter
