// The kernel has signal_entry_stub as the handler of every signal that the application handles. engine.signal_handlers
// holds the application's own handlers, application_actions whatever else belongs to them. The application reads back
// what it has set.
#include "bi/signals/signal_actions.h"

#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "bi/kernel/memory_probe.h"
#include "bi/signals/ending_signals.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

// The kernel's struct sigaction is an application_action.
static_assert(sizeof(application_action) == 32);
static_assert(offsetof(application_action, mask) == 24);

// Under signal_handlers_lock. Of a signal with a handler; of SIGILL always, because the kernel's action is the
// engine's.
application_action application_actions[SIGNAL_COUNT];

constexpr std::uint64_t LAST_ACTION_WORD = sizeof(application_action) - sizeof(std::uint64_t);

// A child in its parent's memory has actions of its own, as other children of other threads have theirs.
application_action& kept_action(int signum) {
  const thread_data* thread = current_thread;
  const bool is_own = thread != nullptr && thread->own_actions != nullptr;
  return is_own ? thread->own_actions->actions[signum] : application_actions[signum];
}

// The flags that the kernel does not get as the application has set them.
//   SA_SIGINFO    the engine always wants it
//   SA_ONSTACK    the engine's signal stack takes every frame
//   SA_RESETHAND  the kernel would remove the handler when the signal arrives. A signal that is only counted then is
//                 raised again later and has to find the handler
constexpr std::uint64_t ENGINE_FLAGS = SA_SIGINFO | SA_ONSTACK;
constexpr std::uint64_t REPLACED_FLAGS = ENGINE_FLAGS | SA_RESETHAND;

// While the engine's handler runs no other signal may come: it has one frame's room, and at its end it decides by what
// has been counted so far. The application's mask is set when its handler is entered.
constexpr std::uint64_t EVERY_SIGNAL = ~std::uint64_t{0};

bool is_replaced(int signum, std::uint64_t handler) {
  // SIGILL is never given up, not even to its default action: traps and the end of the process depend on it.
  return signum == SIGILL || handler > 1 || (handler == 0 && is_ending_signal(signum));
}

// The action that the kernel gets for one of the application's. It is a copy: the application's record may lie in
// memory that cannot be written, and the application may use it for another signal afterwards.
application_action engine_action(int signum, const application_action& wanted) {
  if (!is_replaced(signum, wanted.handler)) return wanted;
  application_action action = wanted;
  action.handler = address_of(reinterpret_cast<const void*>(signal_entry_stub));
  action.flags = (wanted.flags & ~REPLACED_FLAGS) | ENGINE_FLAGS;
  action.mask = EVERY_SIGNAL;
  if (signum == SIGILL && wanted.handler <= 1) action.flags |= SA_RESTART;  // See turns.h.
  return action;
}

// The action as the application has set it, from what the kernel tells: it drops flags that it does not know. The
// caller holds signal_handlers_lock.
application_action told_action(int signum, application_action action) {
  if (action.handler <= 1) return action;
  const application_action& set = kept_action(signum);
  action.handler = application_handlers()[signum];
  const std::uint64_t replaced = REPLACED_FLAGS | (signum == SIGILL ? SA_RESTART : 0);
  action.flags = (action.flags & ~replaced) | (set.flags & replaced);
  action.mask = set.mask & ~(signal_bit(SIGKILL) | signal_bit(SIGSTOP));
  return action;
}

// The caller holds signal_handlers_lock.
void set_default_action(int signum) {
  const application_action action = engine_action(signum, {});
  raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), address_of(&action), 0, KERNEL_SIGSET_SIZE);
}

}  // namespace

void copy_actions(action_table* table) {
  owned_lock_take(&engine.signal_handlers_lock);
  for (int signum = 0; signum < SIGNAL_COUNT; ++signum) {
    table->handlers[signum] = application_handlers()[signum];
    table->actions[signum] = kept_action(signum);
  }
  owned_lock_leave(&engine.signal_handlers_lock);
}

void take_copied_actions(const action_table* table) {
  std::memcpy(engine.signal_handlers, table->handlers, sizeof engine.signal_handlers);
  std::memcpy(application_actions, table->actions, sizeof application_actions);
}

std::int64_t handle_rt_sigaction(const std::uint64_t* args) {
  const auto signum = static_cast<int>(args[0]);
  const std::uint64_t act = args[1];
  const std::uint64_t oldact = args[2];
  application_action wanted{};
  application_action action{};
  application_action old{};
  if (act != 0) {
    if (!is_readable(act) || !is_readable(act + LAST_ACTION_WORD)) return -EFAULT;
    std::memcpy(&wanted, reinterpret_cast<const void*>(act), sizeof wanted);
    action = engine_action(signum, wanted);
  }

  // One lock over the call and the table: the table and the kernel always agree.
  owned_lock_take(&engine.signal_handlers_lock);
  const std::int64_t result = raw_syscall(SYS_rt_sigaction, args[0], act != 0 ? address_of(&action) : 0,
                                          oldact != 0 ? address_of(&old) : 0, args[3]);
  if (result == 0) {
    if (oldact != 0) old = told_action(signum, old);
    if (act != 0) {
      // Atomic: the signal dispatcher reads the handler without the lock. Relaxed: it reads nothing else with it.
      std::atomic_ref(application_handlers()[signum]).store(wanted.handler, std::memory_order_relaxed);
      kept_action(signum) = wanted;
    }
  }
  owned_lock_leave(&engine.signal_handlers_lock);
  if (result != 0 || oldact == 0) return result;
  // The new action is in force even if the old one cannot be written, as in the kernel.
  if (!is_writable(oldact) || !is_writable(oldact + LAST_ACTION_WORD)) return -EFAULT;
  std::memcpy(reinterpret_cast<void*>(oldact), &old, sizeof old);
  return result;
}

application_action take_application_action(int signum) {
  owned_lock_take(&engine.signal_handlers_lock);
  application_action& kept = kept_action(signum);
  application_action action = kept;
  action.handler = application_handlers()[signum];
  if ((kept.flags & SA_RESETHAND) != 0 && action.handler > 1) {
    kept.flags &= ~std::uint64_t{SA_RESETHAND};
    std::atomic_ref(application_handlers()[signum]).store(0, std::memory_order_relaxed);
    if (signum != SIGILL) set_default_action(signum);
  }
  owned_lock_leave(&engine.signal_handlers_lock);
  return action;
}

void set_engine_action(int signum) {
  const application_action action{address_of(reinterpret_cast<const void*>(signal_entry_stub)),
                                  ENGINE_FLAGS | SA_RESTART, 0, EVERY_SIGNAL};
  raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), address_of(&action), 0, KERNEL_SIGSET_SIZE);
}

void catch_default_action(int signum) {
  owned_lock_take(&engine.signal_handlers_lock);
  application_action now{};
  const std::int64_t result =
      raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), 0, address_of(&now), KERNEL_SIGSET_SIZE);
  if (result == 0 && now.handler == 0) set_default_action(signum);
  owned_lock_leave(&engine.signal_handlers_lock);
}

}  // namespace ceilmeter
