// The handler that the kernel calls for every signal of the application. What it does depends on where the thread
// stands (signal_place.cpp). Most signals are only counted (signal_delivery.cpp), after the exit of the interrupted
// fragment has been trapped (exit_trap.cpp). Where the application's state is complete, its handler's frame is made
// (signal_frame.cpp).
//
// Everything here runs on the engine's signal stack, with every signal blocked, and always ends by the return from the
// kernel's frame: into the interrupted code, to the dispatcher, or into the application's handler.
#include "bi/signals/signals.h"

#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_epoch.h"
#include "bi/code/drop_range.h"
#include "bi/code/run_groups.h"
#include "bi/code/scanner.h"
#include "bi/code/spare_stack.h"
#include "bi/signals/ending_signals.h"
#include "bi/signals/exit_trap.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/last_words.h"
#include "bi/signals/signal_actions.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signal_frame.h"
#include "bi/signals/signal_place.h"
#include "bi/signals/stack_end.h"
#include "bi/signals/turns.h"
#include "bi/code/stubs.h"
#include "bi/kernel/syscalls.h"
#include "bi/kernel/threads.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/signals"};

constexpr std::uint64_t PSTATE_BTYPE = 0xc00;

// A signal that has arrived, and what the kernel has put on the signal stack for it.
struct arrival {
  signal_frame* frame;
  frame_end end;
  std::uint64_t mask;  // What the thread blocked when it came.

  int signum() const { return frame->info.si_signo; }
  mcontext_t& context() const { return frame->ucontext.uc_mcontext; }
};

// Whether the signal is a fault of the running code. If somebody has sent a signal of the same number, it is like any
// other.
bool is_fault(int signum, const siginfo_t* info) { return is_synchronous(signum) && info->si_code > 0; }

bool is_access_fault(int signum) { return signum == SIGSEGV || signum == SIGBUS; }

// In place of the call that the trap stands for. The signal becomes pending while all are blocked, as they are in every
// handler of the engine's. The kernel delivers it when it restores the context with the application's mask, at the word
// behind the trap.
void raise_at_return(const thread_data* thread, ucontext_t* ucontext) {
  raise_in_kernel(thread);
  std::memcpy(&ucontext->uc_sigmask, &thread->application_mask, sizeof thread->application_mask);
  ucontext->uc_mcontext.pc += sizeof(std::uint32_t);
}

void set_kernel_action(int signum, std::uint64_t handler) {
  struct sigaction action {};
  action.sa_handler = handler == 0 ? SIG_DFL : SIG_IGN;
  sigaction(signum, &action, nullptr);
}

// The process ends by the signal as soon as the kernel has taken the frame back: on the engine's stack, whose frames
// nobody needs any more, and with the application's mask, so that a second request to end is heard.
void end_behind_frame(thread_data* thread, const arrival& signal, int signum) {
  mcontext_t& context = signal.context();
  context.regs[0] = address_of(thread);
  context.regs[1] = static_cast<std::uint64_t>(signum);
  context.regs[29] = context.regs[30] = 0;  // A debugger's walk ends here.
  context.sp = engine_stack(thread);
  context.pc = address_of(reinterpret_cast<const void*>(mora_terminate_by_signal));
  context.pstate &= ~PSTATE_BTYPE;  // Which branch was interrupted is no matter of the function's.
  const std::uint64_t mask = disclose_mask(thread, &signal.frame->ucontext, signal.mask) | signal_bit(signum);
  std::memcpy(&signal.frame->ucontext.uc_sigmask, &mask, sizeof mask);
}

// Ends the process as the kernel does where a signal can have no frame. Comes back only if SIGSEGV is being traced.
void die_of_sigsegv(thread_data* thread, const arrival& signal) {
  if (is_ending_signal(SIGSEGV)) return end_behind_frame(thread, signal, SIGSEGV);
  set_kernel_action(SIGSEGV, 0);
  const std::uint64_t segv = signal_bit(SIGSEGV);
  raw_syscall(NR_TGKILL, static_cast<std::uint64_t>(getpid()), static_cast<std::uint64_t>(gettid()), SIGSEGV);
  raw_syscall(NR_RT_SIGPROCMASK, SIG_UNBLOCK, address_of(&segv), 0, KERNEL_SIGSET_SIZE);
}

// The application's stack could not take the frame. The kernel then raises SIGSEGV in the place of the signal, which
// is lost: its handler may have a stack of its own. A SIGSEGV that cannot be handled ends the process.
void handle_lack_of_stack(thread_data* thread, const arrival& signal) {
  const bool is_blocked = (signal.mask & signal_bit(SIGSEGV)) != 0;
  if (signal.signum() == SIGSEGV || is_blocked) return die_of_sigsegv(thread, signal);
  const application_action action = take_application_action(SIGSEGV);
  siginfo_t& info = signal.frame->info;
  std::memset(&info, 0, sizeof info);
  info.si_signo = SIGSEGV;
  info.si_code = SI_KERNEL;
  if (action.handler <= 1 || !enter_handler(thread, signal.frame, signal.end, action, signal.mask))
    die_of_sigsegv(thread, signal);
}

// The handler's blocks are ordinary ones, and so are those that it returns to: a signal writes below the stack pointer.
void run_handler_of(thread_data* thread, arrival& signal, const application_action& action) {
  leave_own_blocks(thread);
  signal.mask = disclose_mask(thread, &signal.frame->ucontext, signal.mask);
  if (!enter_handler(thread, signal.frame, signal.end, action, signal.mask)) handle_lack_of_stack(thread, signal);
}

// A fault of the application's. Its handler finds the source instruction and goes on where it says. Without a source
// instruction, which no code of the cache is without, the handler would find pc 0.
void handle_synchronous(thread_data* thread, arrival& signal) {
  const application_action action = take_application_action(signal.signum());
  left_trace(thread, signal.context().pc);
  if (action.handler <= 1) {
    log_crash(thread, signal.frame->info, signal.context());
    // The fault is in the cache, where the thread holds nothing of the engine's.
    if (action.handler == 0 && is_ending_signal(signal.signum()))
      return end_behind_frame(thread, signal, signal.signum());
    set_kernel_action(signal.signum(), action.handler);
    return;  // The instruction faults again, and the default action applies.
  }
  mcontext_t& context = signal.context();
  siginfo_t& info = signal.frame->info;
  const std::uint64_t pc = context.pc;
  const bool cannot_execute = is_in_fault_block(thread, pc);
  if (!restore_faulted_context(thread, context)) context.pc = 0;
  // For an undefined instruction or a breakpoint the kernel names the place of the instruction. For an access it
  // names the address accessed.
  if (address_of(info.si_addr) == pc) info.si_addr = reinterpret_cast<void*>(context.pc);
  // There may be code at its address later.
  if (cannot_execute) drop_fragments(thread, context.pc, context.pc + sizeof(std::uint32_t));
  run_handler_of(thread, signal, action);
}

// The context is the application's, with a source address as its pc. If another thread has changed the action since the
// signal arrived, there is no handler. The thread then goes on, and the kernel's default action follows once the signal
// is unblocked.
void run_handler(thread_data* thread, arrival& signal) {
  const int signum = signal.signum();
  const application_action action = take_application_action(signum);
  if (action.handler > 1) return run_handler_of(thread, signal, action);
  if (action.handler == 0 && is_ending_signal(signum)) return end_behind_frame(thread, signal, signum);
  leave_own_blocks(thread);
  context_redirect_to_dispatcher(thread, &signal.frame->ucontext, signal.context().pc);
  if (action.handler != 0) return;
  if (signum == SIGILL) set_kernel_action(signum, 0);  // The one action that the application cannot take back.
  raw_syscall(NR_TGKILL, static_cast<std::uint64_t>(getpid()), static_cast<std::uint64_t>(gettid()),
              static_cast<std::uint64_t>(signum));
}

// Behind the newest fragment of a trace, which the thread has yet to enter: the snippet may have counted that. What
// stands there later is no harm: such a thread is only led out in the place of ending at once.
bool is_in_snippet(const thread_data* thread, std::uint64_t pc) {
  const std::uint64_t snippet = address_of(thread->snippet);
  return pc >= snippet && pc < snippet + TRACE_SNIPPET_SPACE;
}

void stop_for_exit(thread_data* thread, ucontext_t* ucontext) {
  const std::uint64_t pc = ucontext->uc_mcontext.pc;
  // The thread still has some way to go to its end, so its signals are blocked as in block_handled_signals.
  std::uint64_t mask = 0;
  std::memcpy(&mask, &ucontext->uc_sigmask, sizeof mask);
  mask |= handled_signals();
  std::memcpy(&ucontext->uc_sigmask, &mask, sizeof mask);
  if (is_code_address(thread, pc)) {
    const std::int32_t id = exit_owner(thread, pc);
    // In the exit nothing of the application's state matters any more.
    if (id >= 0 && pc >= address_of(thread->metas[id].exit_code_addr) && !is_in_snippet(thread, pc)) {
      left_trace(thread, pc);
      abandon_thread(thread);
    }
    if (id >= 0) trap_fragment_exit(thread, id, pc);
  }
  count_visit(thread);  // deliver_pending_signal ends the thread.
}

// Another thread has dropped code. This one goes on to the end of its basic block, and from there to the engine.
void trap_next_exit(thread_data* thread, const mcontext_t& context) {
  const std::uint64_t place = fragment_place(context);
  if (!is_code_address(thread, place)) return;
  if (const std::int32_t id = exit_owner(thread, place); id >= 0) trap_fragment_exit(thread, id, place);
}

void end_by_fault(const thread_data* thread, const arrival& signal) {
  log_fault(thread, signal.frame->info, signal.context());
  log(LEVEL_FATAL, "synchronous signal outside the code cache");
}

// The process is ending.
void lead_out(thread_data* thread, const arrival& signal, bool fault) {
  if (!fault && is_second_request(signal.frame->info)) return raise_default(signal.signum());
  ucontext_t* ucontext = &signal.frame->ucontext;
  // A thread that has faulted, or stands at a trap of the engine's own, would do so again for ever.
  if (fault && is_cache_address(thread, ucontext->uc_mcontext.pc)) {
    left_trace(thread, ucontext->uc_mcontext.pc);
    abandon_thread(thread);
  }
  if (fault) end_by_fault(thread, signal);
  stop_for_exit(thread, ucontext);
}

// If the application's state is complete, or lies in a stub's frame at known places, completes the context: the handler
// can run now. False elsewhere. `mask` becomes that of a system call which brings its own and was interrupted with it.
bool restore_application_context(thread_data* thread, mcontext_t& context, std::uint64_t* mask) {
  if (is_stub_point(thread, context.pc, reentry_signal_point)) {
    leave_reentry_stub(thread, context);
    return true;
  }
  const bool returns = is_behind_syscall(thread, context.pc);
  if (!returns && !is_before_syscall(thread, context.pc)) return false;
  if (returns) {
    find_mask_of_call(thread, context, mask);
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
  mcontext_t& context = ucontext->uc_mcontext;
  undo_syscall(thread, context);
  leave_syscall(thread);
  context.sp = sp_between_blocks(thread, context.sp);
  context_redirect_to_dispatcher(thread, ucontext, context.pc);
}

}  // namespace

void install_sigill_handler() {
  set_engine_action(SIGILL);
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
  thread->redirect_target = target;
  context.pc = address_of(thread->code_cache) + stub_offset(redirect_stub);
}

namespace {

void dispatch(thread_data* thread, arrival& signal) {
  mcontext_t& context = signal.context();
  ucontext_t* ucontext = &signal.frame->ucontext;
  const int signum = signal.signum();
  const bool fault = is_fault(signum, &signal.frame->info);
  if (!fault && ends_child(signum)) return raise_default(signum);
  look_again(thread, context);
  const std::uint64_t pc = context.pc;

  if (is_process_ending(thread)) return lead_out(thread, signal, fault);
  // First: the kernel may have merged it with a trap or an interruption.
  const bool visits = signum == SIGILL && is_visit(signal.frame->info);
  if (visits || (signum == SIGILL && visit_was_merged(thread))) {
    if (answer_visit(thread)) {
      if (!fault) trap_next_exit(thread, context);  // A fault or a trap leads to the engine by itself.
      acknowledge_visit(thread);
    }
    if (visits) return;
  }
  if (fault && is_stub_point(thread, pc, reentry_raise)) return raise_at_return(thread, ucontext);
  if (fault && signum == SIGILL && move_sp_at_trap(thread, context)) return;
  if (is_interruption(thread, signum, &signal.frame->info)) {
    if (interrupt_call(thread, ucontext)) undo_call_in_turn(thread, ucontext);
    return;
  }
  if (restore_application_context(thread, context, &signal.mask)) return run_handler(thread, signal);
  const std::uint64_t place = fragment_place(context);
  if (is_code_address(thread, place)) {
    const std::int32_t id = exit_owner(thread, place);
    const bool in_exit = id >= 0 && place >= address_of(thread->metas[id].exit_code_addr);
    if (in_exit && fault && signum == SIGILL) return handle_trap(thread, ucontext, id);
    if (!fault) note_progress(thread);
    if (id >= 0 && !fault) trap_fragment_exit(thread, id, place);
  }
  if (fault) {
    if (is_access_fault(signum) && go_on_at_stack_end(thread, ucontext)) return;
    // In the stub text, only an access to the application's stack can fault.
    if (is_cache_address(thread, pc)) return handle_synchronous(thread, signal);
    // Nothing can be delivered from here. Without the engine's care for the end the kernel would have ended the
    // process.
    if (!is_caught_default(signum)) end_by_fault(thread, signal);
    return set_kernel_action(signum, 0);
  }
  count_signal(thread, signal.frame->info);
  if (signum != SIGILL) hold_others_back(thread, ucontext);
}

}  // namespace

extern "C" void signal_dispatcher(signal_frame* frame, std::uint64_t record, std::uint64_t restorer) {
  arrival signal{frame, {record, restorer}, 0};
  std::memcpy(&signal.mask, &frame->ucontext.uc_sigmask, sizeof signal.mask);
  dispatch(current_thread, signal);
}

}  // namespace ceilmeter
