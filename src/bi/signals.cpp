// The dispatcher of signals, and the traps that lead a thread out of linked code.
//
// A fragment's exit is in one of three forms: as scanned, linked, or trapped. A trap stands only until the fragment
// next runs through its exit: it is undone there, by the thread itself, and the link records know nothing of it.
// Another thread's code is never patched: mora_terminate sends a signal, and each thread patches its own. The instruction
// cache is cleared over exactly the words written: the thread that executes them is this one, on its way back into them by
// an exception return, which is a context synchronisation.
//
// Everything here runs on the stack of the interrupted code, which is the application's.
#include "bi/signals.h"

#include <asm/sigcontext.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/call_mask.h"
#include "bi/code_cache.h"
#include "bi/code_words.h"
#include "bi/signal_actions.h"
#include "bi/stubs.h"
#include "bi/syscalls.h"
#include "bi/threads.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/signals"};

// HVC raises SIGILL at the application's privilege level. Its immediate tells what the trap has replaced.
constexpr std::uint32_t TRAP_REGISTER_BRANCH = 148;
constexpr std::uint32_t TRAP_DIRECT_EXIT = 149;
constexpr std::uint32_t TRAP_RAISE = 150;  // In the stub text, for the call that raises a signal.

constexpr std::uint32_t BR_X0 = 0xd61f0000;  // br x0

// SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV, SIGSYS.
constexpr std::uint32_t SYNCHRONOUS_SIGNALS = 0x800009b0;

constexpr std::uint64_t NR_RT_SIGPROCMASK = 135;

constexpr std::uint32_t CONDITION_ALWAYS = 14;

bool is_synchronous(int signum) { return (SYNCHRONOUS_SIGNALS >> signum & 1) != 0 && signum < 32; }

// A fault of the running code, and not a signal of the same number that somebody has sent: that one is like any other.
bool is_fault(int signum, const siginfo_t* info) { return is_synchronous(signum) && info->si_code > 0; }

// The value of a register as an instruction reads it: number 31 is zero.
std::uint64_t register_value(const mcontext_t& context, std::uint32_t reg) { return reg == 31 ? 0 : context.regs[reg]; }

fpsimd_context* fpsimd_record(mcontext_t& context) {
  auto* head = reinterpret_cast<_aarch64_ctx*>(context.__reserved);
  auto* end = context.__reserved + sizeof context.__reserved;
  while (reinterpret_cast<unsigned char*>(head + 1) <= end && head->magic != 0 && head->size != 0) {
    if (head->magic == FPSIMD_MAGIC) return reinterpret_cast<fpsimd_context*>(head);
    head = reinterpret_cast<_aarch64_ctx*>(reinterpret_cast<unsigned char*>(head) + head->size);
  }
  return nullptr;
}

// From the end of the stub text, rounded up to a block, to the end of the code cache.
bool is_in_code_range(const thread_data* thread, std::uint64_t pc) {
  const std::uint64_t begin = address_of(thread->code_cache) + std::uint64_t{BB_SIZE} * static_cast<std::uint64_t>(stub_block_count());
  return pc >= begin && pc < address_of(thread->code_cache) + CODE_CACHE_SIZE;
}

bool is_stub_point(const thread_data* thread, std::uint64_t pc, const std::uint8_t* place) {
  return pc == address_of(thread->code_cache) + stub_offset(place);
}

bool is_between(const thread_data* thread, std::uint64_t pc, const std::uint8_t* begin, const std::uint8_t* end) {
  const std::uint64_t base = address_of(thread->code_cache);
  return pc >= base + stub_offset(begin) && pc < base + stub_offset(end);
}

// Anywhere in the cache. Of the stub text nothing but the application's stack can fault.
bool is_in_cache(const thread_data* thread, std::uint64_t pc) {
  return pc >= address_of(thread->code_cache) && pc < address_of(thread->code_cache) + CODE_CACHE_SIZE;
}

// The place in a fragment that the thread stands at, or comes back to without a look at the held signals: from a stub
// that counts, or that calls a plug-in's function.
std::uint64_t fragment_place(const thread_data* thread, const mcontext_t& context) {
  if (guarded_return_address != 0) return guarded_return_address;
  const std::uint64_t pc = context.pc;
  const bool counts = is_between(thread, pc, hot_counter_stub, hot_counter_return) ||
                      is_stub_point(thread, pc, hot_counter_return);
  const bool calls = pc >= address_of(reinterpret_cast<const void*>(guarded_call_stub)) &&
                     pc < address_of(guarded_call_stubs_end);
  return counts || calls ? context.regs[30] : pc;
}

// Between the last look at the held signals and a call that has not been made. A call that does not come back is none
// of those: the thread's status tells, which only a call that does sets.
bool is_before_syscall(const thread_data* thread, std::uint64_t pc) {
  return is_between(thread, pc, syscall_call_window, syscall_return_point) &&
         std::atomic_ref(const_cast<thread_data*>(thread)->status).load(std::memory_order_relaxed) == THREAD_IN_SYSCALL;
}

bool eval_cond(std::uint64_t pstate, std::uint32_t cond) {
  if (cond >= CONDITION_ALWAYS) return true;
  const bool n = (pstate >> 31 & 1) != 0;
  const bool z = (pstate >> 30 & 1) != 0;
  const bool c = (pstate >> 29 & 1) != 0;
  const bool v = (pstate >> 28 & 1) != 0;
  bool result = false;
  switch (cond >> 1) {
    case 0: result = z; break;
    case 1: result = c; break;
    case 2: result = n; break;
    case 3: result = v; break;
    case 4: result = c && !z; break;
    case 5: result = n == v; break;
    default: result = n == v && !z; break;
  }
  return result != ((cond & 1) != 0);
}

// The two forms are told apart the wrong way round: the 64-bit one tests 32 bits. Kept as it is known.
bool eval_cbz(const mcontext_t& context, const bb_meta& meta) {
  std::uint64_t value = register_value(context, meta.rn & 0x1f);
  if ((meta.rn >> 5 & 1) != 0) value &= 0xffffffff;
  return (value == 0) != (meta.exit_condition != 0);
}

// Bits from 32 up are tested as their number less 32, and bit 31 tests all the higher ones with it. Kept as it is
// known.
bool eval_tbz(const mcontext_t& context, const bb_meta& meta) {
  const std::uint32_t bit = std::uint32_t{1} << (meta.rn >> 5 & 31);
  const auto mask = static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(bit)));
  return ((register_value(context, meta.rn & 0x1f) & mask) == 0) != (meta.exit_condition != 0);
}

// How many bytes of a direct exit a trap replaces: those that a link may have made a way out. In the middle of a trace
// that is the one branch that leaves it: the word behind it is the next fragment's, and may be the first of that one's
// exit, with a trap of its own. Only the last fragment of a trace has a second way out, its closing branch.
std::uint32_t get_direct_branch_exit_trap_sz(const bb_meta& meta, std::int32_t fragment_id) {
  const bool both = (meta.link_state & LINK_BOTH) != 0;
  switch (meta.exit_kind) {
    case EXIT_DIRECT: return 4;
    case EXIT_B_COND:
    case EXIT_CBZ:
    case EXIT_TBZ:
      if (fragment_id >= BB_COUNT) return both ? 8 : 4;
      return both ? 12 : 8;
    default: log(LEVEL_FATAL, "unknown branch type: %d", static_cast<int>(meta.exit_kind)); return 0;
  }
}

void trap_register_branch(const bb_meta& meta) {
  std::uint32_t* word = meta.exit_code_addr;
  for (;; ++word) {
    const int inst = a64_decode(word);
    if (inst == A64_HVC) return;  // There already.
    if (inst == A64_BR) break;
  }
  a64_hvc(word, TRAP_REGISTER_BRANCH);
  clear_instruction_cache(meta.exit_code_addr, word + 1);
}

// The trap of a register branch was reached: the target is in the register that the lookup held it in.
void undo_register_trap(thread_data* thread, ucontext_t* ucontext, const bb_meta& meta) {
  mcontext_t& context = ucontext->uc_mcontext;
  auto* word = reinterpret_cast<std::uint32_t*>(context.pc);
  *word = BR_X0;
  clear_instruction_cache(word, word + 1);
  // In the variants that saved the application's x0 and x1 first, the target's register may be one of them.
  const std::uint64_t target = register_value(context, meta.rn);
  const auto* stack = reinterpret_cast<const std::uint64_t*>(context.sp);
  context.regs[0] = stack[0];
  context.regs[1] = stack[1];
  context.sp += 16;
  context_redirect_to_dispatcher(thread, ucontext, target);
}

void undo_direct_trap(thread_data* thread, ucontext_t* ucontext, bb_meta& meta, std::int32_t id) {
  mcontext_t& context = ucontext->uc_mcontext;
  // Only what the trap has replaced. A thread that stood just behind the trapped words, on its way to the dispatcher,
  // has linked the second side since: a word more belongs to the exit now, and that one is the link.
  const std::uint32_t most = get_direct_branch_exit_trap_sz(meta, id) / 4;
  std::uint32_t words = 0;
  for (; words < most && a64_decode(meta.exit_code_addr + words) == A64_HVC; ++words) {
    meta.exit_code_addr[words] = meta.overwritten_exit[words];
  }
  clear_instruction_cache(meta.exit_code_addr, meta.exit_code_addr + words);
  bool taken = true;
  switch (meta.exit_kind) {
    case EXIT_DIRECT: break;
    case EXIT_B_COND: taken = eval_cond(context.pstate, static_cast<std::uint32_t>(meta.exit_condition)); break;
    case EXIT_CBZ: taken = eval_cbz(context, meta); break;
    case EXIT_TBZ: taken = eval_tbz(context, meta); break;
    default:
      log(LEVEL_FATAL, "signal: interpreting of %d fragments not implemented", static_cast<int>(meta.exit_kind));
  }
  context_redirect_to_dispatcher(thread, ucontext, taken ? meta.taken_source_addr : meta.skipped_source_addr);
}

// The signal is that of one of the engine's own traps.
void handle_trap(thread_data* thread, ucontext_t* ucontext, std::int32_t id) {
  bb_meta& meta = thread->metas[id];
  std::uint32_t code = 0;
  a64_hvc_decode(reinterpret_cast<const std::uint32_t*>(ucontext->uc_mcontext.pc), &code);
  switch (code) {
    case TRAP_REGISTER_BRANCH: undo_register_trap(thread, ucontext, meta); break;
    case TRAP_DIRECT_EXIT: undo_direct_trap(thread, ucontext, meta, id); break;
    default: log(LEVEL_FATAL, "unknown trap code"); break;
  }
}

// The signal was raised on purpose in cache_reentry_stub; its frame holds what the stub has borrowed.
void leave_reentry_stub(mcontext_t& context) {
  const auto* frame = reinterpret_cast<const std::uint64_t*>(context.sp);
  context.regs[2] = frame[2];
  context.regs[8] = frame[3];
  context.regs[0] = frame[4];
  context.regs[1] = frame[5];
  context.pc = frame[1];
  context.sp += 48;
}

// A thread that has just looked at the count of held signals, and has not acted on it yet, looks again: the one that
// has come now would else wait for the next time, which may never be. It takes its turn behind those that have come
// before.
void look_again(const thread_data* thread, mcontext_t& context) {
  const std::uint64_t pc = context.pc;
  const std::uint64_t base = address_of(thread->code_cache);
  if (is_between(thread, pc, reentry_window, reentry_branch)) {
    context.pc = base + stub_offset(reentry_window);
  } else if (is_stub_point(thread, pc, reentry_branch) || is_stub_point(thread, pc, reentry_resume_branch)) {
    context.pc = base + stub_offset(cache_reentry_stub);
  } else if (is_between(thread, pc, reentry_resume_window, reentry_resume_branch)) {
    // From sp up 0x20 of results, the cache and the source address, and what the other window finds at its sp.
    const auto* frame = reinterpret_cast<const std::uint64_t*>(context.sp);
    context.regs[0] = frame[4];
    context.regs[1] = frame[5];
    context.sp += 0x30;
    context.pc = base + stub_offset(reentry_window);
  } else if (is_between(thread, pc, syscall_restart_window, syscall_call_window)) {
    context.pc = base + stub_offset(syscall_restart_window);
  }
}

// Makes the call that the trap stands for. The signal finds itself blocked here; it strikes as the kernel gives the
// context back, with the mask that it has, at the word behind the trap.
void raise_at_return(mcontext_t& context) {
  block_all_signals();
  raw_syscall(NR_TGKILL, context.regs[0], context.regs[1], context.regs[2]);
  context.pc += sizeof(std::uint32_t);
}

// The application's state that is the same before and after its call, out of the wrapper's frame.
void leave_syscall_wrapper(thread_data* thread, mcontext_t& context) {
  restore_argument(thread, reinterpret_cast<std::uint64_t*>(context.regs), 1);  // Its result is in x0.
  const std::uint64_t frame = context.sp;
  const auto* area = reinterpret_cast<const std::uint64_t*>(frame + STUB_SIMD_REGS_SIZE);
  const std::uint64_t flags = context.regs[19];
  if (fpsimd_context* record = fpsimd_record(context)) {
    std::memcpy(record->vregs, reinterpret_cast<const void*>(frame), STUB_SIMD_REGS_SIZE);
    // The wrapper keeps both beside the flags while the call is in the kernel.
    record->fpsr = static_cast<std::uint32_t>(context.regs[21]);
    record->fpcr = static_cast<std::uint32_t>(context.regs[20]);
  }
  for (std::uint32_t reg = 9; reg <= 21; ++reg) context.regs[reg] = area[reg];
  context.regs[29] = area[SYSCALL_X29 / 8];
  context.regs[30] = area[SYSCALL_X30 / 8];
  context.pstate = flags;
  context.pc = area[SYSCALL_NEXT_SOURCE / 8];
  context.sp = frame + SYSCALL_FRAME_SIZE;
}

// The signal came before the call was made, or has interrupted it in a way that lets it be made again (SA_RESTART): the
// application stands at its own SVC, with the arguments as they were.
void undo_syscall(thread_data* thread, mcontext_t& context) {
  auto* area = reinterpret_cast<std::uint64_t*>(context.sp + STUB_SIMD_REGS_SIZE);
  restore_argument(thread, area, 0);
  for (std::uint32_t reg = 0; reg <= 8; ++reg) context.regs[reg] = area[reg];
  leave_syscall_wrapper(thread, context);
  context.pc -= sizeof(std::uint32_t);
}

constexpr signal_exit GO_ON = {0, 0};

signal_exit enter_handler(const thread_data* thread, std::uint64_t handler) {
  return {thread->dispatcher_stub_addr, handler};
}

void set_kernel_action(int signum, std::uint64_t handler) {
  struct sigaction action {};
  action.sa_handler = handler == 0 ? SIG_DFL : SIG_IGN;
  sigaction(signum, &action, nullptr);
}

// The fault is the application's, at a place of rewritten code whose source address is not known: pc reads 0.
signal_exit handle_synchronous(thread_data* thread, int signum, ucontext_t* ucontext) {
  const std::uint64_t handler = take_application_handler(signum);
  if (handler > 1) {
    ucontext->uc_mcontext.pc = 0;
    return enter_handler(thread, handler);
  }
  set_kernel_action(signum, handler);
  return GO_ON;  // The instruction faults again, and the default action applies.
}

// The context is the application's, with a source address as its pc. An action that another thread has taken back since
// the signal arrived leaves no handler: the thread goes on, and the kernel's default action strikes once the signal is
// free.
signal_exit run_handler(thread_data* thread, int signum, ucontext_t* ucontext) {
  const std::uint64_t handler = take_application_handler(signum);
  if (handler > 1) return enter_handler(thread, handler);
  context_redirect_to_dispatcher(thread, ucontext, ucontext->uc_mcontext.pc);
  if (handler == 0) {
    if (signum == SIGILL) set_kernel_action(signum, handler);  // The one action that the application cannot take back.
    raw_syscall(NR_TGKILL, static_cast<std::uint64_t>(getpid()), static_cast<std::uint64_t>(gettid()),
                static_cast<std::uint64_t>(signum));
  }
  return GO_ON;
}

// The signals that the application handles, but for faults, as the kernel has them in a mask.
std::uint64_t handled_signals() {
  std::uint64_t mask = 0;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if (is_synchronous(signum)) continue;
    const std::uint64_t handler = std::atomic_ref(engine.signal_handlers[signum]).load(std::memory_order_relaxed);
    if (handler > 1) mask |= std::uint64_t{1} << (signum - 1);
  }
  return mask;
}

void stop_for_exit(thread_data* thread, ucontext_t* ucontext) {
  const std::uint64_t pc = ucontext->uc_mcontext.pc;
  // As in block_handled_signals, for a thread that has some way to go to its end.
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
  // The way back into the cache comes to deliver_pending_signal, which ends the thread.
  std::atomic_ref(thread->pending_signal_count).fetch_add(1, std::memory_order_relaxed);
}

// The lowest counted signal that the thread does not block; -1: none.
int find_pending_signal(thread_data* thread) {
  std::uint64_t mask = 0;
  raw_syscall(NR_RT_SIGPROCMASK, SIG_BLOCK, 0, address_of(&mask), KERNEL_SIGSET_SIZE);
  for (int signum = 0; signum < SIGNAL_COUNT; ++signum) {
    // The mask is tested by the number itself, and numbers from 32 up wrap: blocking is approximate here. The kernel
    // has the last word, since the signal is raised anew and stays pending there if it is blocked.
    const auto bit = static_cast<std::int32_t>(std::uint32_t{1} << (signum & 31));
    if ((static_cast<std::uint64_t>(static_cast<std::int64_t>(bit)) & mask) != 0) continue;
    if (std::atomic_ref(thread->pending_signals[signum]).load(std::memory_order_relaxed) >= 1) return signum;
  }
  return -1;
}

// The same, taken off its counter.
int take_pending_signal(thread_data* thread) {
  const int signum = find_pending_signal(thread);
  // Only this thread counts down, and signals that come between count up: a positive value stays positive.
  if (signum >= 0) std::atomic_ref(thread->pending_signals[signum]).fetch_sub(1, std::memory_order_relaxed);
  return signum;
}

}  // namespace

void install_sigill_handler() {
  struct sigaction action {};
  action.sa_sigaction = reinterpret_cast<void (*)(int, siginfo_t*, void*)>(signal_entry_stub);
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGILL, &action, nullptr);
  sigset_t sigill;
  sigemptyset(&sigill);
  sigaddset(&sigill, SIGILL);
  sigprocmask(SIG_UNBLOCK, &sigill, nullptr);  // Whoever started the process may have had it blocked.
}

void block_handled_signals() {
  const std::uint64_t mask = handled_signals();
  raw_syscall(NR_RT_SIGPROCMASK, SIG_BLOCK, address_of(&mask), 0, KERNEL_SIGSET_SIZE);
}

void set_raise_trap(std::uint32_t* place) { a64_hvc(place, TRAP_RAISE); }

bool has_deliverable_signal(thread_data* thread) {
  return std::atomic_ref(engine.exit_flag).load(std::memory_order_relaxed) != 0 || find_pending_signal(thread) >= 0;
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

void trap_fragment_exit(thread_data* thread, std::int32_t fragment_id, std::uint64_t pc) {
  std::int32_t id = fragment_id;
  for (;;) {
    // In a trace the fragment may lie before the trace's real exit: those that ended in a direct branch just go on.
    while (id >= BB_COUNT && thread->metas[id].exit_kind == EXIT_DIRECT &&
           (thread->metas[id].link_state & LINK_BOTH) == 0 && id + 1 < thread->active_trace.id) {
      ++id;
    }
    if (thread->metas[id].exit_kind != EXIT_TRACE) break;
    // From the trampoline the thread goes on into a fragment, which may be one of another trace.
    id = exit_owner(thread, thread->metas[id].taken_source_addr);
    if (id < 0) return;
    pc = thread->metas[id].cache_entry;
  }
  bb_meta& meta = thread->metas[id];
  if (meta.exit_kind == EXIT_REGISTER) {
    trap_register_branch(meta);
    return;
  }
  if (meta.link_state == LINK_NONE) return;  // Its stub comes to the dispatcher by itself.
  const std::uint32_t size = get_direct_branch_exit_trap_sz(meta, id);
  if (pc > address_of(meta.exit_code_addr) + size || a64_decode(meta.exit_code_addr) == A64_HVC) return;
  std::memcpy(meta.overwritten_exit, meta.exit_code_addr, size);
  for (std::uint32_t word = 0; word < size / 4; ++word) a64_hvc(meta.exit_code_addr + word, TRAP_DIRECT_EXIT);
  clear_instruction_cache(meta.exit_code_addr, meta.exit_code_addr + size / 4);
}

std::uint32_t* untrapped_word(thread_data* thread, std::uint32_t* place) {
  if (a64_decode(place) != A64_HVC) return place;
  const std::int32_t id = exit_owner(thread, address_of(place));
  if (id < 0) return place;
  bb_meta& meta = thread->metas[id];
  if (meta.exit_kind < EXIT_DIRECT || meta.exit_kind > EXIT_TBZ || meta.exit_kind == EXIT_REGISTER) return place;
  const std::uint32_t size = get_direct_branch_exit_trap_sz(meta, id);
  if (place < meta.exit_code_addr || place >= meta.exit_code_addr + size / 4) return place;
  return meta.overwritten_exit + (place - meta.exit_code_addr);
}

extern "C" signal_exit signal_dispatcher(int signum, void* info_pointer, void* ucontext_pointer) {
  const auto* info = static_cast<const siginfo_t*>(info_pointer);
  auto* ucontext = static_cast<ucontext_t*>(ucontext_pointer);
  mcontext_t& context = ucontext->uc_mcontext;
  thread_data* thread = current_thread;
  const bool fault = is_fault(signum, info);
  look_again(thread, context);
  const std::uint64_t pc = context.pc;

  // Pairs with the store in mora_terminate, which precedes the signal that brought the thread here.
  if (std::atomic_ref(engine.exit_flag).load(std::memory_order_seq_cst) != 0) {
    // What has faulted, or stands at a trap of the engine's own, would do so again for ever.
    if (fault && is_in_cache(thread, pc)) abandon_thread(thread);
    if (fault) log(LEVEL_FATAL, "synchronous signal outside the code cache");
    stop_for_exit(thread, ucontext);
    return GO_ON;
  }
  if (fault && is_stub_point(thread, pc, reentry_raise)) {
    raise_at_return(context);
    return GO_ON;
  }
  if (is_stub_point(thread, pc, reentry_signal_point)) {
    leave_reentry_stub(context);
    return run_handler(thread, signum, ucontext);
  }
  const bool returns = is_stub_point(thread, pc, syscall_return_point);
  if (returns || is_before_syscall(thread, pc)) {
    if (returns) {
      leave_syscall_wrapper(thread, context);
    } else {
      undo_syscall(thread, context);
    }
    leave_syscall(thread);  // The handler is application code: the thread is not in its call any more.
    return run_handler(thread, signum, ucontext);
  }
  const std::uint64_t place = fragment_place(thread, context);
  if (is_in_code_range(thread, place)) {
    const std::int32_t id = exit_owner(thread, place);
    const bool in_exit = id >= 0 && place >= address_of(thread->metas[id].exit_code_addr);
    if (in_exit && fault && signum == SIGILL) {
      handle_trap(thread, ucontext, id);
      return GO_ON;
    }
    if (id >= 0) trap_fragment_exit(thread, id, place);
  }
  if (fault) {
    if (!is_in_cache(thread, pc)) log(LEVEL_FATAL, "synchronous signal outside the code cache");
    return handle_synchronous(thread, signum, ucontext);
  }
  // Atomic, because a nested signal can strike between a load and a store; both belong to this thread alone.
  std::atomic_ref(thread->pending_signals[signum]).fetch_add(1, std::memory_order_relaxed);
  std::atomic_ref(thread->pending_signal_count).fetch_add(1, std::memory_order_relaxed);
  return GO_ON;
}

extern "C" std::uint64_t deliver_pending_signal(std::uint64_t, std::uint64_t* info) {
  thread_data* thread = current_thread;
  if (std::atomic_ref(engine.exit_flag).load(std::memory_order_seq_cst) != 0) abandon_thread(thread);
  // Before they are looked through: one that comes meanwhile makes the stub ask again.
  const std::int32_t judged = std::atomic_ref(thread->pending_signal_count).load(std::memory_order_relaxed);
  const int signum = take_pending_signal(thread);
  if (signum < 0) {
    info[0] = static_cast<std::uint64_t>(judged);
    return 0;
  }
  info[0] = static_cast<std::uint64_t>(getpid());
  info[1] = static_cast<std::uint64_t>(gettid());
  info[2] = static_cast<std::uint64_t>(signum);
  std::atomic_ref(thread->pending_signal_count).fetch_sub(1, std::memory_order_relaxed);
  return 1;
}

}  // namespace ceilmeter
