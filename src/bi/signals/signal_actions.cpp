// The kernel has signal_entry_stub as the handler of every signal that the application handles. engine.signal_handlers
// holds the application's own handlers. An action_disguise holds what else differs, so that the application reads back
// the action that it has set.
#include "bi/signals/signal_actions.h"

#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "bi/kernel/call_mask.h"
#include "bi/kernel/memory_probe.h"
#include "bi/signals/ending_signals.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

// The kernel's struct sigaction.
struct kernel_sigaction {
  std::uint64_t handler;
  std::uint64_t flags;
  std::uint64_t restorer;
  std::uint64_t mask;
};
static_assert(sizeof(kernel_sigaction) == 32);

// How a signal's action in the kernel differs from the one that the application has set, its handler aside.
struct action_disguise {
  bool adds_siginfo;    // SA_SIGINFO is the engine's.
  bool adds_onstack;    // SA_ONSTACK is the engine's.
  bool once;            // SA_RESETHAND was the application's: see take_application_handler.
  bool unmasks_sigill;  // SIGILL was in the application's mask.
};

// Under signal_handlers_lock. The entry of SIGILL describes the action that install_sigill_handler has set.
action_disguise action_disguises[SIGNAL_COUNT] = {{}, {}, {}, {}, {true, false, false, false}};
static_assert(SIGILL == 4);

constexpr std::uint64_t LAST_ACTION_WORD = sizeof(kernel_sigaction) - sizeof(std::uint64_t);

// The action that the kernel gets for one of the application's. It is a copy: the application's record may lie in
// memory that cannot be written, and the application may use it for another signal afterwards.
kernel_sigaction disguised_action(int signum, const kernel_sigaction& wanted, action_disguise* disguise) {
  *disguise = {};
  // SIGILL is never given up, not even to its default action: traps and the end of the process depend on it.
  const bool ends_process = wanted.handler == 0 && is_ending_signal(signum);
  if (signum != SIGILL && wanted.handler <= 1 && !ends_process) return wanted;
  kernel_sigaction action = wanted;
  action.handler = address_of(reinterpret_cast<const void*>(signal_entry_stub));
  disguise->adds_siginfo = (wanted.flags & SA_SIGINFO) == 0;
  action.flags |= SA_SIGINFO;
  // The application's stack may be what has overflowed.
  disguise->adds_onstack = ends_process && (wanted.flags & SA_ONSTACK) == 0;
  if (ends_process) action.flags |= SA_ONSTACK;
  // The kernel does not get SA_RESETHAND: it would remove the handler when the signal arrives. A signal that is only
  // counted then is raised again later and has to find the handler.
  disguise->once = (wanted.flags & SA_RESETHAND) != 0;
  action.flags &= ~std::uint64_t{SA_RESETHAND};
  // A trap that strikes while SIGILL is blocked ends the process.
  disguise->unmasks_sigill = (wanted.mask & SIGILL_BIT) != 0;
  action.mask &= ~SIGILL_BIT;
  return action;
}

// The action as the application has set it. The caller holds signal_handlers_lock.
kernel_sigaction undisguised_action(int signum, kernel_sigaction action) {
  const action_disguise& disguise = action_disguises[signum];
  if (action.handler > 1) action.handler = engine.signal_handlers[signum];
  if (disguise.adds_siginfo) action.flags &= ~std::uint64_t{SA_SIGINFO};
  if (disguise.adds_onstack) action.flags &= ~std::uint64_t{SA_ONSTACK};
  if (disguise.once) action.flags |= SA_RESETHAND;
  if (disguise.unmasks_sigill) action.mask |= SIGILL_BIT;
  return action;
}

// The caller holds signal_handlers_lock.
void set_default_action(int signum) {
  action_disguise disguise{};
  const kernel_sigaction action = disguised_action(signum, {}, &disguise);
  const std::int64_t result =
      raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), address_of(&action), 0, KERNEL_SIGSET_SIZE);
  if (result == 0) action_disguises[signum] = disguise;
}

}  // namespace

std::int64_t handle_rt_sigaction(const std::uint64_t* args) {
  const auto signum = static_cast<int>(args[0]);
  const std::uint64_t act = args[1];
  const std::uint64_t oldact = args[2];
  kernel_sigaction wanted{};
  kernel_sigaction action{};
  kernel_sigaction old{};
  action_disguise disguise{};
  if (act != 0) {
    if (!is_readable(act) || !is_readable(act + LAST_ACTION_WORD)) return -EFAULT;
    std::memcpy(&wanted, reinterpret_cast<const void*>(act), sizeof wanted);
    action = disguised_action(signum, wanted, &disguise);
  }

  // One lock over the call and the table: the table and the kernel always agree.
  pthread_mutex_lock(&engine.signal_handlers_lock);
  const std::int64_t result = raw_syscall(SYS_rt_sigaction, args[0], act != 0 ? address_of(&action) : 0,
                                          oldact != 0 ? address_of(&old) : 0, args[3]);
  if (result == 0) {
    if (oldact != 0) old = undisguised_action(signum, old);
    if (act != 0) {
      // Atomic: the signal dispatcher reads the handler without the lock. Relaxed: it reads nothing else with it.
      std::atomic_ref(engine.signal_handlers[signum]).store(wanted.handler, std::memory_order_relaxed);
      action_disguises[signum] = disguise;
    }
  }
  pthread_mutex_unlock(&engine.signal_handlers_lock);
  if (result != 0 || oldact == 0) return result;
  // As in the kernel, the new action is in force even if the old one cannot be written.
  if (!is_writable(oldact) || !is_writable(oldact + LAST_ACTION_WORD)) return -EFAULT;
  std::memcpy(reinterpret_cast<void*>(oldact), &old, sizeof old);
  return result;
}

std::uint64_t take_application_handler(int signum) {
  pthread_mutex_lock(&engine.signal_handlers_lock);
  const std::uint64_t handler = engine.signal_handlers[signum];
  action_disguise& disguise = action_disguises[signum];
  if (disguise.once && handler > 1) {
    disguise.once = false;
    std::atomic_ref(engine.signal_handlers[signum]).store(0, std::memory_order_relaxed);
    if (signum != SIGILL) set_default_action(signum);
  }
  pthread_mutex_unlock(&engine.signal_handlers_lock);
  return handler;
}

void catch_default_action(int signum) {
  pthread_mutex_lock(&engine.signal_handlers_lock);
  kernel_sigaction now{};
  const std::int64_t result =
      raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), 0, address_of(&now), KERNEL_SIGSET_SIZE);
  if (result == 0 && now.handler == 0) set_default_action(signum);
  pthread_mutex_unlock(&engine.signal_handlers_lock);
}

}  // namespace ceilmeter
