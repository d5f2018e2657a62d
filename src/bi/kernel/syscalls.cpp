// What happens around a system call of the application's: syscall_handler_pre acts on those that the engine has to know
// of, and lets all others through to the kernel with the application's registers; syscall_handler_post takes the thread
// back. Everything here runs on the engine's stack, below the frame of syscall_wrapper.
//
// A thread's status is 1 exactly while a call that was let through may be in the kernel. mora_terminate leaves such a
// thread alone: it cannot reach rewritten code without passing syscall_handler_post, which finds the process ending.
#include "bi/kernel/syscalls.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>

#include "bi/kernel/call_mask.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_epoch.h"
#include "bi/code/spare_stack.h"
#include "bi/kernel/executable_path.h"
#include "bi/kernel/fork.h"
#include "bi/kernel/hosted_child.h"
#include "bi/kernel/locked_memory.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/signals/application_stack.h"
#include "bi/signals/signal_actions.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signal_frame.h"
#include "bi/signals/signals.h"
#include "bi/signals/turns.h"
#include "bi/kernel/quick_calls.h"
#include "bi/kernel/standard_files.h"
#include "bi/code/stubs.h"
#include "bi/kernel/threads.h"
#include "bi/kernel/vfork.h"
#include "bi/kernel/vm_ops.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/syscalls"};

// The kernel reads the number of a call, and every argument of type int, from the low half of its register.
std::uint32_t low_half(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

// What becomes of a call.
enum class call_action {
  HANDLED,     // The result is known; the kernel does not see the call any more.
  MAKE,        // The stub is to make it.
  MAKE_FINAL,  // The same, for the one call that does not come back.
  CLONE,       // syscall_clone makes it, once the stub has saved the rest of the application's registers.
};

// The context that the kernel will restore is rewritten so that the thread comes to the dispatcher with the source
// address that the application returns to.
void redirect_signal_return(std::uint64_t* args, thread_data* thread) {
  // The kernel's frame lies at the application's stack pointer and begins with a siginfo.
  auto* context = reinterpret_cast<ucontext_t*>(args[SYSCALL_APP_SP / 8] + sizeof(siginfo_t));
  note_handler_return(thread, context->uc_mcontext.pc);
  take_back_frame(thread, context);
  leave_own_blocks(thread);
  context_redirect_to_dispatcher(thread, context, context->uc_mcontext.pc);
  sigdelset(&context->uc_sigmask, SIGILL);  // The handler may have changed it.
  return_to_mask(thread, context);
}

// The application closes descriptors by number, or puts its own in their places. The numbers may be those of the
// engine's duplicates: the engine forgets them, because it must not close a descriptor that is the application's by
// then.
void give_up_descriptors(std::uint32_t first, std::uint32_t last) {
  interval_map_forget_descriptors(&engine.exec_ranges, first, last);
}

constexpr std::uint64_t CLOSE_ON_EXEC_ONLY = 4;  // A flag of close_range, as young as its number.

// The standard descriptors of the range stay open and are noted as closed, as `close` does it. The kernel judges the
// arguments.
call_action handle_close_range(const std::uint64_t* args, std::int64_t* result) {
  const std::uint32_t first = low_half(args[0]);
  const std::uint32_t last = low_half(args[1]);
  if ((args[2] & CLOSE_ON_EXEC_ONLY) != 0) return call_action::MAKE;
  give_up_descriptors(std::max<std::uint32_t>(first, STDERR_FILENO + 1), last);
  if (first > STDERR_FILENO || first > last) return call_action::MAKE;
  constexpr std::uint64_t no_file = ~std::uint32_t{0};
  const bool has_others = last > STDERR_FILENO;
  const std::uint64_t first_other = has_others ? STDERR_FILENO + 1 : no_file;
  *result = raw_syscall(SYS_CLOSE_RANGE, first_other, has_others ? last : no_file, args[2]);
  if (*result == 0) {
    for (std::uint32_t fd = first; fd <= std::min<std::uint32_t>(last, STDERR_FILENO); ++fd) note_close(fd);
  }
  return call_action::HANDLED;
}

// What a child in its parent's memory does to descriptors of its own is not noted: the notes are its parent's.
bool is_descriptor_call(std::uint64_t number) {
  return number == SYS_dup3 || number == SYS_close || number == SYS_CLOSE_RANGE;
}

// PR_GET_SHADOW_STACK_STATUS, PR_SET_SHADOW_STACK_STATUS and PR_LOCK_SHADOW_STACK_STATUS, younger than some C
// libraries' headers. Rewritten calls and returns do not use such a stack, but the engine's own would from then on, and
// a return would not find its call there. The answer is that of a kernel without such stacks.
bool concerns_shadow_stacks(std::uint32_t operation) { return operation >= 74 && operation <= 76; }

// The calls that may have an argument replaced, a bit for each number.
constexpr std::size_t CALL_NUMBERS = 512;
constexpr std::array<std::uint64_t, CALL_NUMBERS / 64> calls_with_replacement = [] {
  std::array<std::uint64_t, CALL_NUMBERS / 64> found{};
  for (const mask_place& place : mask_places) found[place.number / 64] |= std::uint64_t{1} << place.number % 64;
  for (const path_place& place : path_places) found[place.number / 64] |= std::uint64_t{1} << place.number % 64;
  return found;
}();

bool may_replace_argument(std::uint64_t number) {
  return number < CALL_NUMBERS && (calls_with_replacement[number / 64] >> number % 64 & 1) != 0;
}

// In the order of the numbers. Whatever has a case here has to be listed in quick_calls.cpp.
call_action act_on_syscall(std::uint64_t number, std::uint64_t* args, thread_data* thread, std::int64_t* result) {
  if (has_own_descriptors(thread) && is_descriptor_call(number)) return call_action::MAKE;
  switch (number) {
    case SYS_dup3: give_up_descriptors(low_half(args[1]), low_half(args[1])); return call_action::MAKE;
    case SYS_close:
      if (!note_close(low_half(args[0]))) {
        give_up_descriptors(low_half(args[0]), low_half(args[0]));
        return call_action::MAKE;
      }
      *result = 0;
      return call_action::HANDLED;
    case SYS_readlinkat:
      *result = readlink_handler(reinterpret_cast<const char*>(args[1]), reinterpret_cast<char*>(args[2]), args[3]);
      return *result < 0 ? call_action::MAKE : call_action::HANDLED;
    case SYS_exit: end_thread(thread, static_cast<std::int32_t>(args[0]));
    case SYS_exit_group: mora_terminate(thread, static_cast<std::int32_t>(args[0]));
    case SYS_set_tid_address:
      if (set_application_tid_word(thread, reinterpret_cast<std::int32_t*>(args[0]))) return call_action::MAKE;
      *result = thread->tid;
      return call_action::HANDLED;
    case SYS_sigaltstack:
      *result = handle_sigaltstack(thread, args[0], args[1], args[SYSCALL_APP_SP / 8]);
      return call_action::HANDLED;
    case SYS_rt_sigaction: *result = handle_rt_sigaction(args); return call_action::HANDLED;
    case SYS_rt_sigreturn: redirect_signal_return(args, thread); return call_action::MAKE_FINAL;
    case SYS_shmat: *result = handle_shmat(args); return call_action::HANDLED;
    case SYS_shmdt: *result = handle_shmdt(args); return call_action::HANDLED;
    case SYS_brk: *result = static_cast<std::int64_t>(brk_handler(args[0])); return call_action::HANDLED;
    case SYS_munmap: *result = handle_munmap(args); return call_action::HANDLED;
    case SYS_mremap: *result = handle_mremap(args); return call_action::HANDLED;
    case SYS_clone:
      if ((args[0] & (CLONE_THREAD | CLONE_VM)) != 0) return call_action::CLONE;
      prepare_fork(thread, args);
      return call_action::MAKE;
    case SYS_mmap: *result = handle_mmap(args); return call_action::HANDLED;
    case SYS_mprotect: *result = handle_mprotect(args); return call_action::HANDLED;
    case SYS_mlockall: *result = handle_mlockall(args[0]); return call_action::HANDLED;
    case SYS_membarrier:
      settle_code_epoch(thread);  // One of its commands makes all threads see changed code.
      return call_action::MAKE;
    // Made as it stands clone3 would start a thread on a stack without the wrapper's frame. As on a kernel that does
    // not have it, the C library falls back to clone.
    case SYS_clone3:
    // The kernel begins a restartable sequence again when it finds the thread interrupted in it, by the addresses of
    // the application's code, where no thread ever is. Nearly always the thread's own C library, the tool's, has
    // registered first, and the kernel would refuse it anyway; as on a kernel without it, the application does without.
    case SYS_rseq: *result = -ENOSYS; return call_action::HANDLED;
    case SYS_prctl:
      if (!concerns_shadow_stacks(low_half(args[0]))) return call_action::MAKE;
      *result = -EINVAL;
      return call_action::HANDLED;
    case SYS_CLOSE_RANGE: return handle_close_range(args, result);
    default:
      if (may_replace_argument(number)) {
        replace_call_mask(thread, number, args);
        replace_executable_path(thread, number, args);
      }
      return call_action::MAKE;
  }
}

// Code may have gone, or be about to change, by this thread's doing or another's. The rest of this block may be linked
// to what has been made of it, or be made of it itself: the thread goes on in a block that knows of nothing.
void return_behind_drops(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst) {
  if (follow_code_epoch(thread) || thread->flush_seen != 0) {
    args[SYSCALL_CACHE_RETURN / 8] = lookup_or_scan(thread, next_inst);
  }
}

}  // namespace

namespace {

inline void come_back(thread_data* thread) {
  // This thread stores its status and then loads the flag; mora_terminate stores the flag and then loads the status.
  // The fence here and the one there forbid that both loads see the old values, which would let this thread run on in
  // the cache while the process is torn down: either it finds the flag, or mora_terminate finds it running and goes on
  // sending signals until it has ended. Without fences a machine may keep both stores back until after the loads.
  std::atomic_ref(thread->status).store(THREAD_RUNNING, std::memory_order_relaxed);
  leave_call(thread);  // Its fence serves both.
  const bool may_end = std::atomic_ref(engine.exit_flag).load(std::memory_order_seq_cst) != 0;
  if (may_end && is_process_ending(thread)) abandon_thread(thread);
}

}  // namespace

void leave_syscall(thread_data* thread) { come_back(thread); }

namespace {

// The end of a call that the kernel does not see any more.
void finish_handled(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst, thread_data* thread,
                    std::uint64_t result) {
  deliver_post_syscall(thread, number, next_inst, &result);
  args[0] = result;
  leave_call(thread);
  return_behind_drops(thread, args, next_inst);
  args[SYSCALL_APP_SP / 8] = sp_between_blocks(thread, args[SYSCALL_APP_SP / 8]);
}

}  // namespace

extern "C" std::uint64_t syscall_handler_pre(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst,
                                             thread_data* thread) {
  // The short way has begun the call, and then found that signals are held: the rest is for syscall_held_signals.
  if (std::atomic_ref(thread->status).load(std::memory_order_relaxed) == THREAD_IN_SYSCALL) return 1;
  number = low_half(number);
  // The call that ends a thread has its words in the record, see rewrite_svc.
  std::uint64_t& stack_pointer = args[SYSCALL_APP_SP / 8];
  if (stack_pointer == address_of(&thread->last_call.stack_pointer)) stack_pointer = thread->last_call.stack_pointer;
  stack_pointer = application_sp(thread, stack_pointer);  // Until the way back.
  if (engine_logs_traces()) log(LEVEL_TRACE, "syscall pre %ld", static_cast<long>(number));
  // The first argument is all that a post-syscall callback gets to see: the result takes its place.
  if (plugins_listen()) thread->syscall_args = args[0];
  std::uint64_t result = 0;
  thread->flush_seen = 0;
  enter_call(thread);
  if (!deliver_pre_syscall(thread, number, args, next_inst, &result)) {
    std::int64_t kernel_result = 0;
    switch (act_on_syscall(number, args, thread, &kernel_result)) {
      case call_action::MAKE:
        // Release: pairs with the acquire in mora_terminate, which may deliver this thread's thread_exit while the
        // thread is in the kernel and then reads what the thread has counted.
        std::atomic_ref(thread->status).store(THREAD_IN_SYSCALL, std::memory_order_release);
        return 1;
      case call_action::MAKE_FINAL:
        leave_call(thread);  // It comes back to the dispatcher, by no other way.
        return 1;
      case call_action::CLONE: return 2;
      case call_action::HANDLED: break;
    }
    result = static_cast<std::uint64_t>(kernel_result);
  }
  finish_handled(number, args, next_inst, thread, result);
  return 0;
}

namespace {

// args[0] is the result.
void finish_call(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst, thread_data* thread) {
  restore_argument(thread, args, 1);
  come_back(thread);
  if (!has_own_descriptors(thread)) {
    args[0] = static_cast<std::uint64_t>(settle_descriptor(number, args, static_cast<std::int64_t>(args[0])));
  }
  std::uint64_t result = args[0];
  deliver_post_syscall(thread, number, next_inst, &result);  // What it makes of the result has no effect here.
  thread->flush_seen = 0;
  return_behind_drops(thread, args, next_inst);
  args[SYSCALL_APP_SP / 8] = sp_between_blocks(thread, args[SYSCALL_APP_SP / 8]);
}

}  // namespace

extern "C" void syscall_clone(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst, thread_data* thread) {
  std::int64_t result = 0;
  if ((args[0] & CLONE_THREAD) != 0) {
    result = mora_create_thread(thread, args, next_inst);
  } else if (is_hosted_in_memory(args[0])) {
    result = make_hosted_child(thread, args, next_inst);
  } else {
    result = make_vfork_child(thread, args, next_inst);
  }
  finish_handled(low_half(number), args, next_inst, thread, static_cast<std::uint64_t>(result));
}

// A call that blocks would keep a counted signal from its handler. Natively the signal would have come before the call:
// the handler runs first, and the application makes the call after it, from its own instruction.
extern "C" std::uint64_t syscall_held_signals(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst,
                                              thread_data* thread) {
  number = low_half(number);
  const std::int32_t held = std::atomic_ref(thread->pending_signal_count).load(std::memory_order_relaxed);
  const auto judged = static_cast<std::uint64_t>(held) + 1;
  // These two cannot be made anew, since their arguments have been rewritten. Neither waits for a signal.
  if (number == SYS_rt_sigreturn || number == SYS_clone || !has_deliverable_signal(thread)) return judged;
  if (thread->has_turn != 0 && number == SYS_rt_sigprocmask) {
    // The kernel's mask is the wider one: the call is made here, on the application's.
    args[0] = static_cast<std::uint64_t>(change_application_mask(thread, args));
    finish_call(number, args, next_inst, thread);
    return 0;
  }
  if (begin_call_in_turn(thread, number)) return judged;
  leave_syscall(thread);
  follow_code_epoch(thread);
  restore_argument(thread, args, 0);
  const std::uint64_t call = next_inst - sizeof(std::uint32_t);
  args[SYSCALL_CACHE_RETURN / 8] = lookup_or_scan(thread, call);
  args[SYSCALL_NEXT_SOURCE / 8] = call;
  args[SYSCALL_APP_SP / 8] = sp_between_blocks(thread, args[SYSCALL_APP_SP / 8]);
  return 0;
}

extern "C" void syscall_handler_post(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst,
                                     thread_data* thread) {
  number = low_half(number);
  if (engine_logs_traces()) log(LEVEL_TRACE, "syscall post %ld", static_cast<long>(number));
  if (number == SYS_clone) {
    log(LEVEL_TRACE, "r0 (tid): %ld", static_cast<long>(args[0]));
    finish_fork(thread, args);  // First: locks and signals are held back until then.
  }
  end_interruption(thread);
  finish_call(number, args, next_inst, thread);
}

}  // namespace ceilmeter
