// All of it runs on the thread itself. The timer's signal is SIGILL, which nobody ever blocks and which is the
// engine's. Its action has SA_RESTART. So a call that the kernel would make again after a handler with SA_RESTART is
// found at its SVC, and any other one has its EINTR already.
#include "bi/signals/turns.h"

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "bi/code/code_cache.h"
#include "bi/signals/exit_trap.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signal_place.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

// More than there are signals without a queue.
constexpr std::uint32_t WITHOUT_A_TURN = 100;

constexpr long INTERRUPTION_NANOSECONDS = 1000000;

bool restarts_calls(int signum) {
  std::uint64_t action[4] = {};  // Handler, flags, restorer, mask.
  raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), 0, address_of(action), KERNEL_SIGSET_SIZE);
  return (action[1] & SA_RESTART) != 0;
}

// The record of the place's level of the stack. A level that is not known takes the place of the oldest one.
delivery_place& kept_place(thread_data* thread, const application_place& place) {
  for (delivery_place& kept : thread->delivery_places) {
    if (kept.sp == place.sp) return kept;
  }
  return thread->delivery_places[thread->next_delivery_place++ % DELIVERY_PLACES];
}

// The application has come to the place by itself.
void begin_deliveries(thread_data* thread, int signum, const application_place& place) {
  kept_place(thread, place) = {place.source, place.sp, signal_bit(signum)};
}

// Whether the signal was delivered at this place since the application has come to it.
bool is_delivered_again(thread_data* thread, int signum, const application_place& place) {
  delivery_place& kept = kept_place(thread, place);
  if (kept.source != place.source || kept.sp != place.sp) {
    kept = {place.source, place.sp, 0};
  }
  const bool again = (kept.signals & signal_bit(signum)) != 0;
  kept.signals |= signal_bit(signum);
  return again;
}

// Whether the signal is from a timer, the kernel or another process, and has no queue. The program cannot know when
// such a signal comes. If it comes twice, the second one was sent after the first was delivered.
bool comes_by_itself(const thread_data* thread, const siginfo_t& sent) {
  if (sent.si_signo >= FIRST_QUEUED_SIGNAL) return false;
  const bool has_sender = sent.si_code == SI_USER || sent.si_code == SI_QUEUE || sent.si_code == SI_TKILL;
  return has_sender ? sent.si_pid != thread->process : sent.si_code == SI_TIMER || sent.si_code == SI_KERNEL;
}

}  // namespace

void note_handler_return(thread_data* thread, std::uint64_t source) { thread->handler_return = source; }

void note_progress(thread_data* thread) {
  thread->handler_return = 0;
  thread->deliveries_in_place = 0;
}

bool give_turn(thread_data* thread, int signum, const siginfo_t* sent, const application_place& place) {
  const bool had_turn = thread->has_turn != 0;
  thread->has_turn = 0;
  // Where a handler has returned in its turn, the code that it has interrupted has had none.
  if (thread->handler_return == 0 || thread->handler_return != place.source) {
    if (!had_turn) thread->deliveries_in_place = 0;
    begin_deliveries(thread, signum, place);
    return false;
  }
  thread->handler_return = 0;
  const bool comes_again =
      is_delivered_again(thread, signum, place) && sent != nullptr && comes_by_itself(thread, *sent);
  if (!comes_again && thread->deliveries_in_place < WITHOUT_A_TURN) {
    ++thread->deliveries_in_place;
    return false;
  }
  if (!is_code_address(thread, place.cache)) return false;
  const std::int32_t id = exit_owner(thread, place.cache);
  if (id < 0) return false;
  hold_back_for_turn(thread);
  trap_fragment_exit(thread, id, place.cache);
  thread->has_turn = 1;
  return true;
}

bool begin_call_in_turn(thread_data* thread, std::uint64_t number) {
  // Another program would inherit the wider mask.
  if (thread->has_turn == 0 || number == SYS_execve || number == SYS_execveat) return false;
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = SIGILL;
  event.sigev_value.sival_ptr = thread;
  event._sigev_un._tid = thread->tid;
  std::int32_t timer = 0;
  if (raw_syscall(SYS_timer_create, CLOCK_MONOTONIC, address_of(&event), address_of(&timer)) != 0) return false;
  const itimerspec often = {{0, INTERRUPTION_NANOSECONDS}, {0, INTERRUPTION_NANOSECONDS}};
  thread->interrupter = static_cast<std::uint32_t>(timer) + 1;
  thread->interruptions = 0;
  raw_syscall(SYS_timer_settime, static_cast<std::uint64_t>(timer), 0, address_of(&often), 0);
  return true;
}

void delete_interrupter(thread_data* thread) {
  raw_syscall(SYS_timer_delete, thread->interrupter - 1);
  thread->interrupter = 0;
}

bool is_interruption(const thread_data* thread, int signum, const void* siginfo) {
  const auto* info = static_cast<const siginfo_t*>(siginfo);
  return signum == SIGILL && info->si_code == SI_TIMER && info->si_value.sival_ptr == thread;
}

bool interrupt_call(thread_data* thread, void* ucontext) {
  mcontext_t& context = static_cast<ucontext_t*>(ucontext)->uc_mcontext;
  const std::uint64_t behind = address_of(thread->code_cache) + stub_offset(syscall_return_point);
  if (thread->interrupter == 0 || context.pc != behind - sizeof(std::uint32_t)) return false;
  // The first one may have come before the call was made. By the second it has been.
  if (++thread->interruptions < 2) return false;
  const int signum = find_deliverable_signal(thread);
  if (signum > 0 && restarts_calls(signum)) return true;
  context.regs[0] = static_cast<std::uint64_t>(std::int64_t{-EINTR});
  context.pc = behind;
  return false;
}

}  // namespace ceilmeter
