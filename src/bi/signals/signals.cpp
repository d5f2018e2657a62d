// The handler that the kernel calls for every signal of the application. What it does depends on where the thread
// stands (signal_place.cpp). Most signals are only counted (signal_delivery.cpp), after the exit of the interrupted
// fragment has been trapped (exit_trap.cpp).
//
// Everything here runs on the stack of the interrupted code, which is the application's.
#include "bi/signals/signals.h"

#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/signals/exit_trap.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signal_actions.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signal_place.h"
#include "bi/signals/turns.h"
#include "bi/code/stubs.h"
#include "bi/kernel/syscalls.h"
#include "bi/kernel/threads.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/signals"};

constexpr signal_exit GO_ON = {0, 0};

// Whether the signal is a fault of the running code. If somebody has sent a signal of the same number, it is like any
// other.
bool is_fault(int signum, const siginfo_t* info) { return is_synchronous(signum) && info->si_code > 0; }

// In place of the call that the trap stands for. The kernel delivers the signal when it restores the context with the
// application's mask, at the word behind the trap.
void raise_at_return(const thread_data* thread, ucontext_t* ucontext) {
  block_all_signals();
  raise_in_kernel(thread);
  std::memcpy(&ucontext->uc_sigmask, &thread->application_mask, sizeof thread->application_mask);
  ucontext->uc_mcontext.pc += sizeof(std::uint32_t);
}

signal_exit enter_handler(const thread_data* thread, std::uint64_t handler) {
  return {thread->dispatcher_stub_addr, handler};
}

void set_kernel_action(int signum, std::uint64_t handler) {
  struct sigaction action {};
  action.sa_handler = handler == 0 ? SIG_DFL : SIG_IGN;
  sigaction(signum, &action, nullptr);
}

// A fault of the application's. Its handler finds the source instruction and goes on where it says. One case has no
// source instruction: a fault of the engine's own pushes on the application's stack. The handler then finds pc 0.
signal_exit handle_synchronous(thread_data* thread, siginfo_t* info, ucontext_t* ucontext) {
  const int signum = info->si_signo;
  const std::uint64_t handler = take_application_handler(signum);
  if (handler > 1) {
    mcontext_t& context = ucontext->uc_mcontext;
    const std::uint64_t pc = context.pc;
    const bool cannot_execute = is_in_fault_block(thread, pc);
    if (!restore_faulted_context(thread, context)) context.pc = 0;
    // For an undefined instruction or a breakpoint the kernel names the place of the instruction. For an access it
    // names the address accessed.
    if (reinterpret_cast<std::uint64_t>(info->si_addr) == pc) info->si_addr = reinterpret_cast<void*>(context.pc);
    // Flush the block away: there may be code at its address later.
    if (cannot_execute) flush_code_cache(thread);
    disclose_mask(thread, signum, ucontext);
    return enter_handler(thread, handler);
  }
  set_kernel_action(signum, handler);
  return GO_ON;  // The instruction faults again, and the default action applies.
}

// The context is the application's, with a source address as its pc. If another thread has changed the action since the
// signal arrived, there is no handler. The thread then goes on, and the kernel's default action follows once the signal
// is unblocked.
signal_exit run_handler(thread_data* thread, int signum, ucontext_t* ucontext) {
  const std::uint64_t handler = take_application_handler(signum);
  if (handler > 1) {
    disclose_mask(thread, signum, ucontext);
    return enter_handler(thread, handler);
  }
  context_redirect_to_dispatcher(thread, ucontext, ucontext->uc_mcontext.pc);
  if (handler == 0) {
    if (signum == SIGILL) set_kernel_action(signum, handler);  // The one action that the application cannot take back.
    raw_syscall(NR_TGKILL, static_cast<std::uint64_t>(getpid()), static_cast<std::uint64_t>(gettid()),
                static_cast<std::uint64_t>(signum));
  }
  return GO_ON;
}

void stop_for_exit(thread_data* thread, ucontext_t* ucontext) {
  const std::uint64_t pc = ucontext->uc_mcontext.pc;
  // As in block_handled_signals: the thread still has some way to go to its end.
  std::uint64_t mask = 0;
  std::memcpy(&mask, &ucontext->uc_sigmask, sizeof mask);
  mask |= handled_signals();
  std::memcpy(&ucontext->uc_sigmask, &mask, sizeof mask);
  if (is_in_code_range(thread, pc)) {
    const std::int32_t id = exit_owner(thread, pc);
    // In the exit nothing of the application's state matters any more.
    if (id >= 0 && pc >= address_of(thread->metas[id].exit_code_addr)) abandon_thread(thread);
    if (id >= 0) trap_fragment_exit(thread, id, pc);
  }
  count_visit(thread);  // deliver_pending_signal ends the thread.
}

// The process is ending.
signal_exit lead_out(thread_data* thread, ucontext_t* ucontext, bool fault) {
  // A thread that has faulted, or stands at a trap of the engine's own, would do so again for ever.
  if (fault && is_in_cache(thread, ucontext->uc_mcontext.pc)) abandon_thread(thread);
  if (fault) log(LEVEL_FATAL, "synchronous signal outside the code cache");
  stop_for_exit(thread, ucontext);
  return GO_ON;
}

// If the application's state is complete, or lies in a stub's frame at known places, completes the context: the handler
// can run now. False elsewhere.
bool restore_application_context(thread_data* thread, mcontext_t& context) {
  if (is_stub_point(thread, context.pc, reentry_signal_point)) {
    leave_reentry_stub(thread, context);
    return true;
  }
  const bool returns = is_stub_point(thread, context.pc, syscall_return_point);
  if (!returns && !is_before_syscall(thread, context.pc)) return false;
  if (returns) {
    leave_syscall_wrapper(thread, context);
  } else {
    undo_syscall(thread, context);
  }
  end_interruption(thread);
  leave_syscall(thread);  // The handler is application code: the thread is not in its call any more.
  return true;
}

// The held signal's handler runs, and the application makes the call after it, as with SA_RESTART.
void undo_call_in_turn(thread_data* thread, ucontext_t* ucontext) {
  end_interruption(thread);
  undo_syscall(thread, ucontext->uc_mcontext);
  leave_syscall(thread);
  context_redirect_to_dispatcher(thread, ucontext, ucontext->uc_mcontext.pc);
}

}  // namespace

void install_sigill_handler() {
  struct sigaction action {};
  action.sa_sigaction = reinterpret_cast<void (*)(int, siginfo_t*, void*)>(signal_entry_stub);
  action.sa_flags = SA_SIGINFO | SA_RESTART;  // For turns.h; whoever ends the process does not wait for calls.
  sigaction(SIGILL, &action, nullptr);
  sigset_t sigill;
  sigemptyset(&sigill);
  sigaddset(&sigill, SIGILL);
  sigprocmask(SIG_UNBLOCK, &sigill, nullptr);  // Whoever started the process may have had it blocked.
}

void set_raise_trap(std::uint32_t* place) { a64_hvc(place, TRAP_RAISE); }

bool raises_by_trap(const thread_data* thread) {
  return a64_decode(reinterpret_cast<const std::uint32_t*>(thread->code_cache + stub_offset(reentry_raise))) == A64_HVC;
}

void context_redirect_to_dispatcher(thread_data* thread, void* ucontext, std::uint64_t target) {
  mcontext_t& context = static_cast<ucontext_t*>(ucontext)->uc_mcontext;
  context.sp -= 16;
  auto* stack = reinterpret_cast<std::uint64_t*>(context.sp);
  stack[0] = context.regs[0];
  stack[1] = context.regs[1];
  context.regs[0] = target;
  context.regs[1] = 0;  // No source: no link is made.
  context.pc = thread->dispatcher_stub_addr;
}

extern "C" signal_exit signal_dispatcher(int signum, void* info_pointer, void* ucontext_pointer) {
  auto* ucontext = static_cast<ucontext_t*>(ucontext_pointer);
  mcontext_t& context = ucontext->uc_mcontext;
  thread_data* thread = current_thread;
  auto* info = static_cast<siginfo_t*>(info_pointer);
  const bool fault = is_fault(signum, info);
  look_again(thread, context);
  const std::uint64_t pc = context.pc;

  // Pairs with the store in mora_terminate, which precedes the signal that brought the thread here.
  if (std::atomic_ref(engine.exit_flag).load(std::memory_order_seq_cst) != 0) return lead_out(thread, ucontext, fault);
  if (fault && is_stub_point(thread, pc, reentry_raise)) {
    raise_at_return(thread, ucontext);
    return GO_ON;
  }
  if (is_interruption(thread, signum, info)) {
    if (interrupt_call(thread, ucontext)) undo_call_in_turn(thread, ucontext);
    return GO_ON;
  }
  if (restore_application_context(thread, context)) return run_handler(thread, signum, ucontext);
  const std::uint64_t place = fragment_place(thread, context);
  if (is_in_code_range(thread, place)) {
    const std::int32_t id = exit_owner(thread, place);
    const bool in_exit = id >= 0 && place >= address_of(thread->metas[id].exit_code_addr);
    if (in_exit && fault && signum == SIGILL) {
      handle_trap(thread, ucontext, id);
      return GO_ON;
    }
    if (!fault) note_progress(thread);
    if (id >= 0 && !fault) trap_fragment_exit(thread, id, place);
  }
  if (fault) {
    if (!is_in_cache(thread, pc)) log(LEVEL_FATAL, "synchronous signal outside the code cache");
    return handle_synchronous(thread, info, ucontext);
  }
  count_signal(thread, *info);
  if (signum != SIGILL) hold_others_back(thread, ucontext);
  return GO_ON;
}

}  // namespace ceilmeter
