// The plug-in interface: all that code linked into the tool sees of the engine and may include of it. A plug-in
// registers callbacks before mora_run. The engine calls them at fixed events: the code events while it translates
// application code, the others as they happen. At a code event a plug-in can write instructions of its own into the
// fragment. These run each time the translated code runs, and that is the plug-in's cost; the callback itself costs
// running code nothing.
//
// Callbacks run on the application's thread and, as all of the engine does, on the engine's stack, which is small: keep
// frames so, too. They may use the tool's C and C++ libraries. Several threads can be in the same callback at once,
// each with its own context. Nothing here throws. What can fail returns a negative number, and 0 otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/a64/emit.h"

namespace ceilmeter {

struct thread_data;  // The engine's record of a thread; opaque to plug-ins.
struct scan_state;   // And that of a translation.

// Starts the application `argv[0]` in this process. Does not return: the process ends with the application's status.
// Register everything before.
int mora_run(int argc, char** argv, char** envp);

// Events and their context
// ------------------------

// Each event is named with the context's fields that it fills. `thread_data`, `event` and `plugin_id` are always
// filled.
enum mora_event : std::uint32_t {
  // While a fragment is translated: fragment, read_address, decoded, write_p, write_limit. Each happens once per
  // translation, not once per execution. After a cache flush the engine translates anew.
  MORA_PRE_INST = 1,   // Before each instruction, `read_address`. It can be taken over: mora_replace_inst.
  MORA_POST_INST = 2,  // After it. Behind the instruction that ends the fragment no code is allowed.
  // At a block's start, `read_address`. A block also ends, and a new one starts, at each SVC. If the fragment begins
  // between a load-exclusive and its store-exclusive, this event and MORA_PRE_FRAGMENT, with their code, come behind
  // the store: an access to memory in front of it may make it fail each time. The instructions up to the store have
  // had their events before.
  MORA_PRE_BB = 3,
  MORA_POST_BB = 4,        // At its end, `end_address`, the address past its last instruction. No code is allowed.
  MORA_PRE_FRAGMENT = 5,   // Around a fragment: a block with all that follows its system calls, or a part of a trace.
  MORA_POST_FRAGMENT = 6,  // No code is allowed.
  // The following events come while the application runs, when they happen.
  MORA_PRE_SYSCALL = 7,  // Before an application's system call: number, args, skip_syscall, result.
  // After it: number, result, and of `args` the first argument alone, as it was before the call.
  MORA_POST_SYSCALL = 8,
  // The calling thread has joined the list. Also for the first thread and for the child of a fork.
  MORA_THREAD_INIT = 9,
  MORA_THREAD_EXIT = 10,  // `thread_data` leaves the list. At the process's end: on the thread that ends it.
  // While the engine translates the block at a watched function's entry, or the one that stands for its return.
  // `read_address` is the function's address. Code written here runs at each entry or return, before the function's own
  // code or the caller's.
  MORA_PRE_FUNCTION = 11,
  MORA_POST_FUNCTION = 12,
  MORA_EXIT = 13,             // The last event, on the thread that ends the process. The C library's exit follows.
  MORA_VM_OP = 14,            // The application's memory has changed: op, addr, size, mapping, fd, offset.
  MORA_FUNCTION_SYMBOL = 15,  // Once per function symbol of an executable mapping: name, address, size.
  MORA_ELF_LOAD = 16,         // The loader has opened the application's interpreter: path, loaded_fd.
  MORA_CLONE = 17,            // Before a new thread of the process starts, on its parent: child_plugin_thread_data.
  MORA_FLUSH = 18,  // The calling thread forgets all that it has translated. Comes before its first thread_init.
};

// `op` of MORA_VM_OP.
enum vm_op : std::uint32_t { VM_MAP = 0, VM_UNMAP = 1, VM_REMAP = 2, VM_PROTECT = 3 };

// The value of `inst` where there is no instruction, and the condition that always holds. Other values of `inst`:
// bi/a64/instructions.h.
inline constexpr std::int32_t MORA_NO_INST = -1;
inline constexpr std::uint32_t MORA_COND_ALWAYS = 14;

struct mora_fragment {
  std::uint32_t type;  // 0: basic block; 1: part of a trace; 2: a trace's head.
  std::int32_t id;
};

struct mora_decoded {
  std::int32_t inst;   // Of the instruction enumeration, or MORA_NO_INST.
  std::uint32_t cond;  // Of a B.cond, else MORA_COND_ALWAYS.
};

struct mora_mapping {
  std::uint32_t prot;   // As the application asked for it; of a VM_REMAP the low half of the new length.
  std::uint32_t flags;  // Those of mmap, with marks of the engine's own in bits 29 and 30.
};

// What a callback gets; valid for the length of the call. Fields that share a place belong to different events.
// Plug-ins use the accessors below and write no field except `regs_to_pop`.
struct mora_context {
  struct thread_data* thread_data;
  std::uint32_t event;  // A mora_event.
  std::uint32_t plugin_id;
  union {
    mora_fragment fragment;
    std::uint64_t number;             // System call.
    std::uint32_t op;                 // vm_op.
    const char* name;                 // function_symbol; ends with the callback.
    const char* path;                 // elf_load; ends with the callback.
    void** child_plugin_thread_data;  // clone: the child's slots, one per plug-in.
  };
  union {
    const std::uint32_t* read_address;
    std::uint64_t* args;     // System call: x0 and the following registers. pre_syscall: changes take effect.
    std::uint64_t addr;      // vm_op.
    std::uint64_t address;   // function_symbol: at run time.
    std::int32_t loaded_fd;  // elf_load.
  };
  union {
    mora_decoded decoded;
    std::uint8_t skip_syscall;
    std::uint64_t size;  // vm_op, function_symbol: bytes.
  };
  union {
    std::uint32_t* write_p;  // Where the plug-in's next instruction goes.
    std::uint64_t result;    // System call.
    mora_mapping mapping;    // vm_op.
  };
  union {
    std::uint32_t* write_limit;  // End of the space that belongs to the fragment so far.
    std::int32_t fd;             // vm_op; -1: none.
  };
  union {
    const std::uint32_t* end_address;  // post_bb.
    std::uint64_t offset;              // vm_op: in the file.
  };
  // Registers that the engine pops when the callback has returned, as by mora_emit_restore_regs; 0 at its entry. For a
  // plug-in that has pushed them by mora_emit_save_regs and returns in many places.
  std::uint32_t regs_to_pop;
  std::uint32_t regs_on_entry;        // regs_to_pop as the callback found it.
  std::uint32_t plugin_stack_offset;  // 64-bit words that the plug-in's pushes hold on the application's stack.
  std::uint8_t replace;               // The plug-in takes the instruction over.
  bool* stop;                         // The scan's. If set, the fragment ends here.
  // The engine's own, behind the fields for plug-ins.
  bool code_allowed;  // Whether what is written at write_p becomes part of the fragment.
  scan_state* scan;   // Of the code events.
};

// The result is ignored.
using mora_callback = int (*)(mora_context* ctx);

// Registration
// ------------
//
// Before mora_run, on one thread. There is room for ten plug-ins.

// Adds a plug-in and returns the context by which the functions below know it. Null if there are ten. The context is
// the same record for every plug-in and holds only the last one, so register all of a plug-in before the next is added.
mora_context* mora_add_plugin();

// -3: there is no such event. -1: there is no such plug-in. -2: the plug-in already has a callback for the event.
int mora_bind_event(mora_context* ctx, std::uint32_t event, mora_callback fn);

// mora_on_X(ctx, fn) is mora_bind_event(ctx, MORA_X, fn).
template <std::uint32_t event>
int mora_bind(mora_context* ctx, mora_callback fn) {
  return mora_bind_event(ctx, event, fn);
}

inline constexpr auto* mora_on_pre_inst = mora_bind<MORA_PRE_INST>;
inline constexpr auto* mora_on_post_inst = mora_bind<MORA_POST_INST>;
inline constexpr auto* mora_on_pre_bb = mora_bind<MORA_PRE_BB>;
inline constexpr auto* mora_on_post_bb = mora_bind<MORA_POST_BB>;
inline constexpr auto* mora_on_pre_fragment = mora_bind<MORA_PRE_FRAGMENT>;
inline constexpr auto* mora_on_post_fragment = mora_bind<MORA_POST_FRAGMENT>;
inline constexpr auto* mora_on_pre_syscall = mora_bind<MORA_PRE_SYSCALL>;
inline constexpr auto* mora_on_post_syscall = mora_bind<MORA_POST_SYSCALL>;
inline constexpr auto* mora_on_thread_init = mora_bind<MORA_THREAD_INIT>;
inline constexpr auto* mora_on_thread_exit = mora_bind<MORA_THREAD_EXIT>;
inline constexpr auto* mora_on_pre_function = mora_bind<MORA_PRE_FUNCTION>;
inline constexpr auto* mora_on_post_function = mora_bind<MORA_POST_FUNCTION>;
inline constexpr auto* mora_on_exit = mora_bind<MORA_EXIT>;
inline constexpr auto* mora_on_vm_op = mora_bind<MORA_VM_OP>;
inline constexpr auto* mora_on_function_symbol = mora_bind<MORA_FUNCTION_SYMBOL>;
inline constexpr auto* mora_on_elf_load = mora_bind<MORA_ELF_LOAD>;
inline constexpr auto* mora_on_clone = mora_bind<MORA_CLONE>;
inline constexpr auto* mora_on_flush = mora_bind<MORA_FLUSH>;

// A pointer of the plug-in's, one for all threads. -1 or null for a plug-in that is not registered.
int mora_set_plugin_data(mora_context* ctx, void* data);
void* mora_get_plugin_data(const mora_context* ctx);

// A pointer of the plug-in's per thread: that of the context's thread. -1 (null) for a plug-in that is not registered,
// -4 (null) for a context without a thread. Null in a new thread, unless the clone event has set it.
int mora_set_thread_data(mora_context* ctx, void* data);
void* mora_get_thread_data(const mora_context* ctx);

// At clone: the pointer that the new thread will find as its own. -4 at any other event.
int mora_set_child_thread_data(mora_context* ctx, void* data);

// Accessors
// ---------
//
// Meaningful at the events that fill the field (mora_event). Addresses are the application's, except cc_addr.

inline std::int32_t mora_get_fragment_id(const mora_context* ctx) { return ctx->fragment.id; }
inline std::uint32_t mora_get_fragment_type(const mora_context* ctx) { return ctx->fragment.type; }
inline std::uint64_t mora_get_source_addr(const mora_context* ctx) {
  return reinterpret_cast<std::uint64_t>(ctx->read_address);
}
inline std::uint64_t mora_get_end_addr(const mora_context* ctx) {
  return reinterpret_cast<std::uint64_t>(ctx->end_address);
}
inline std::int32_t mora_get_inst(const mora_context* ctx) { return ctx->decoded.inst; }
inline std::int32_t mora_get_inst_size(const mora_context* ctx) { return ctx->decoded.inst == MORA_NO_INST ? -1 : 4; }
inline std::uint32_t* mora_get_cc_addr(const mora_context* ctx) { return ctx->write_p; }
// For a plug-in that has written by other means than the services below.
inline void mora_set_cc_addr(mora_context* ctx, std::uint32_t* cache_address) { ctx->write_p = cache_address; }
inline std::uint32_t mora_get_cond(const mora_context* ctx) { return ctx->decoded.cond; }
inline bool mora_is_cond(const mora_context* ctx) { return ctx->decoded.cond != MORA_COND_ALWAYS; }
inline std::uint32_t mora_get_inverted_cond(const mora_context* /*ctx*/, std::uint32_t cond) { return cond ^ 1; }

// The instruction words of the block, for code that may change: the engine loads each word once, so these are the words
// that are translated, whatever stands in memory meanwhile. At pre_bb: whether the block begins with these words. Its
// end is not known yet; the same words, read again, end at the same place.
bool mora_block_begins_with(const mora_context* ctx, const std::uint32_t* words, std::size_t count);
// At post_bb: the words from the block's start to end_address; valid for the length of the call. Null if the engine has
// not kept them all, in fragments of more than 16,384 instructions.
const std::uint32_t* mora_get_block_words(const mora_context* ctx);

// The kernel's thread id of the context's thread; -1 without a thread.
std::int32_t mora_get_thread_id(const mora_context* ctx);

// At MORA_EXIT: the signal by which the process ends after the event; 0: it exits.
std::int32_t mora_get_ending_signal();

// The thread that joined the list before the context's. Null on the process's first thread, also on the first thread of
// a fork's child. Compare it with null only.
const thread_data* mora_get_next_thread(const mora_context* ctx);

// At clone, and in thread_init of a thread that a clone has made: the arguments of the clone, x0 first, and the new
// thread's stack. Null and 0 elsewhere.
const std::uint64_t* mora_get_clone_args(const mora_context* ctx);
std::uint64_t mora_get_child_stack(const mora_context* ctx);

inline std::uint64_t mora_get_syscall_number(const mora_context* ctx) { return ctx->number; }
inline std::uint64_t* mora_get_syscall_args(const mora_context* ctx) { return ctx->args; }
inline std::uint64_t mora_get_result(const mora_context* ctx) { return ctx->result; }

inline std::uint32_t mora_get_vm_op(const mora_context* ctx) { return ctx->op; }
inline std::uint64_t mora_get_vm_addr(const mora_context* ctx) { return ctx->addr; }
inline std::uint64_t mora_get_vm_size(const mora_context* ctx) { return ctx->size; }
inline std::uint32_t mora_get_vm_prot(const mora_context* ctx) { return ctx->mapping.prot; }
inline std::uint32_t mora_get_vm_flags(const mora_context* ctx) { return ctx->mapping.flags; }
inline std::int32_t mora_get_vm_fd(const mora_context* ctx) { return ctx->fd; }
inline std::uint64_t mora_get_vm_offset(const mora_context* ctx) { return ctx->offset; }

inline const char* mora_get_symbol_name(const mora_context* ctx) { return ctx->name; }
inline std::uint64_t mora_get_symbol_address(const mora_context* ctx) { return ctx->address; }
inline std::uint64_t mora_get_symbol_size(const mora_context* ctx) { return ctx->size; }

inline const char* mora_get_loaded_path(const mora_context* ctx) { return ctx->path; }
inline std::int32_t mora_get_loaded_fd(const mora_context* ctx) { return ctx->loaded_fd; }

// Services with effects
// ---------------------

// Takes the instruction over: the engine does not copy it, and what the plug-in writes stands in its place. At pre_inst
// only. At any other code event the engine logs a warning and goes on.
int mora_replace_inst(mora_context* ctx);

// At pre_function: notes another address for the function. The engine does not replace functions. It logs the warning
// of mora_replace_inst and goes on with the function. -1 at any other event.
int mora_replace_function(mora_context* ctx, std::uint64_t address);

// At pre_syscall: the call is not made. Its result is what mora_set_result sets, and its first argument if nothing is
// set. -1 at any other event.
int mora_skip_syscall(mora_context* ctx);

// At pre_syscall after mora_skip_syscall, and at post_syscall; -1 elsewhere. At post_syscall the value reaches the
// application only if the call was skipped or the engine handled it. A call that the kernel has made keeps the kernel's
// result.
int mora_set_result(mora_context* ctx, std::uint64_t value);

// Makes write_p an address that application code can branch to, until the next flush. The code that the plug-in writes
// there is entered as a fragment, with the application's x0 and x1 on the stack: its first instruction is ldp x0, x1,
// [sp], #16. -1 outside a scan.
int mora_add_to_entry_table(mora_context* ctx);

// Ends the fragment here. The engine then writes no exit, so the plug-in's code must lead elsewhere by itself
// (mora_emit_indirect_branch). -1 outside a scan.
int mora_stop_scan(mora_context* ctx);

// Put these around code of a plug-in's own that runs in a function called from the cache (mora_emit_guarded_call), if
// it uses the heap, a lock or shared data. A fork then waits until the code is over. Otherwise the child might find a
// lock taken by a thread that it does not have. The engine does the same around callbacks. Calls may be nested. Nothing
// in between may wait for the application.
void mora_enter_callback();
void mora_leave_callback();

// Makes sure that more than `size` bytes can be written at write_p in one piece. May move write_p. -1 outside a scan,
// and where no code is allowed.
int mora_reserve_space(mora_context* ctx, std::uint32_t size);

// At pre_bb: adds 1 to *counter each time the block runs. The engine chooses how. The value is exact at thread_init of
// a fork's child, thread_exit, exit, flush, pre_syscall and post_syscall, and in functions that are called from the
// cache by the services below. It need not be at any other moment, and the plug-in writes to it only before the first
// run. A block may be counted in several words, and several blocks in one. The word is aligned to 8 and belongs to the
// thread that translates, until its thread_exit; it may begin with any value. -1 at any other event, and for a word
// that is not aligned.
int mora_count_runs(mora_context* ctx, std::uint64_t* counter);

// Code emission
// -------------
//
// Each service writes at write_p and moves it. It returns -1 and writes nothing where no code is allowed, or if the
// instructions cannot hold the operands. Each service makes sure of the space for its own instructions. Between two
// services the code may go on in another place of the cache, to which a branch leads. To have several of them in one
// piece, or to write words by the emit_X family, reserve the space first. MORA_CALLBACK_SPACE bytes are free when a
// callback is entered.
//
// Registers are numbers; 31 is the stack pointer or zero, as the instruction has it. Loads, stores and arithmetic are
// of 64 bits. Immediates are in bytes. The application's registers and flags are live everywhere: a plug-in saves and
// restores what its code changes.

inline constexpr std::uint32_t MORA_CALLBACK_SPACE = 60;

// Pushes and pops the registers of a mask; bit n stands for xn. sp stays aligned to 16. The mask that has saved
// registers restores them. Flags are not saved.
int mora_emit_save_regs(mora_context* ctx, std::uint32_t mask);
int mora_emit_restore_regs(mora_context* ctx, std::uint32_t mask);

int mora_emit_load_const(mora_context* ctx, std::uint32_t reg, std::uint64_t value);

// rn 31 is the stack pointer, rd 31 only then; else rd 31 is zero.
int mora_emit_mov(mora_context* ctx, std::uint32_t rd, std::uint32_t rn);

// `imm` within plus or minus 0xffffff. An addition of 0 is a mora_emit_mov, or nothing if rd is rn.
int mora_emit_add_imm(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t imm);

// A negative `rm` subtracts register -rm. `shift` 0 LSL, 1 LSR, 2 ASR, by at most 63.
int mora_emit_add_shifted_reg(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t rm,
                              std::uint32_t shift, std::uint32_t amount);
int mora_emit_add_reg(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t rm);

int mora_emit_ldr(mora_context* ctx, std::uint32_t rt, std::uint32_t rn);
int mora_emit_str(mora_context* ctx, std::uint32_t rt, std::uint32_t rn);
int mora_emit_ldr_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm);  // 0, 8 ... 32760
int mora_emit_str_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm);
// `post`: the base is changed after the access; else before it. -256 to 255.
int mora_emit_ldr_index(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9, bool post);
int mora_emit_str_index(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9, bool post);
// -512, -504 ... 504.
int mora_emit_stp_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn, std::int32_t imm);
int mora_emit_ldp_post(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn, std::int32_t imm);
// stp rt, rt2, [rn, #-16]! and ldp rt, rt2, [rn], #16.
int mora_emit_push_pair(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn);
int mora_emit_pop_pair(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn);

int mora_emit_and(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::uint32_t rm);
// `bits` is the mask itself. -1 for one that a logical immediate cannot hold.
int mora_emit_and_imm(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::uint64_t bits);

// Branches inside the cache. -1 for a target out of reach. An `offset` counts from the branch itself.
int mora_emit_tbz(mora_context* ctx, std::uint32_t rt, std::uint32_t bit, std::int32_t offset);
// At `place`, which the plug-in has written before; write_p stays.
int mora_emit_tbz_at(mora_context* ctx, std::uint32_t* place, std::uint32_t rt, std::uint32_t bit, std::int32_t offset);
int mora_emit_branch(mora_context* ctx, std::uint64_t target);
int mora_emit_branch_cond(mora_context* ctx, std::uint64_t target, std::uint32_t cond);
int mora_emit_cbz(mora_context* ctx, std::uint64_t target, std::uint32_t reg);
int mora_emit_cbnz(mora_context* ctx, std::uint64_t target, std::uint32_t reg);

// A word that does nothing until it becomes a branch. In the same callback it can be made a branch to where write_p is
// then.
struct mora_branch {
  std::uint32_t* place;
};
int mora_reserve_branch(mora_context* ctx, mora_branch* out);
int mora_patch_branch(mora_context* ctx, const mora_branch* in, std::uint32_t cond);
int mora_patch_b(mora_context* ctx, const mora_branch* in);
int mora_patch_bl(mora_context* ctx, const mora_branch* in);
int mora_patch_cbz(mora_context* ctx, const mora_branch* in, std::uint32_t reg);
int mora_patch_cbnz(mora_context* ctx, const mora_branch* in, std::uint32_t reg);

// Calls code that is not the application's; changes x30. Saves nothing.
int mora_emit_call(mora_context* ctx, std::uint64_t target);

// Calls a C function of the tool's with the values that x0 to x(nargs - 1) have then. All other state of the
// application's is kept, with flags and the whole vector state. The function's result is in x0 if nargs is above 0,
// else it is lost. The function runs in the default floating-point mode and on the engine's stack. At most 8 arguments.
int mora_emit_guarded_call(mora_context* ctx, std::uint64_t fn, std::uint32_t nargs);

// The same with constant arguments; the registers that they take are kept as well.
int mora_emit_guarded_call_values(mora_context* ctx, std::uint64_t fn, std::uint32_t nargs,
                                  const std::uint64_t* values);

// Goes to the application address in `reg`, through the same lookup as every register branch of the application.
int mora_emit_indirect_branch(mora_context* ctx, std::uint32_t reg);

// Adds `imm`, up to 4095, to the 64-bit word at `address`, by a plain load and store. Changes no register and no flag.
int mora_emit_counter_add(mora_context* ctx, std::uint64_t address, std::uint32_t imm);

// The same for a function by its name.
template <typename result_t, typename... parameter_t>
int mora_emit_guarded_call(mora_context* ctx, result_t (*fn)(parameter_t...), std::uint32_t nargs) {
  return mora_emit_guarded_call(ctx, reinterpret_cast<std::uint64_t>(fn), nargs);
}

template <typename value_t>
std::uint64_t mora_argument_word(value_t value) {
  return static_cast<std::uint64_t>(value);
}
template <typename pointee_t>
std::uint64_t mora_argument_word(pointee_t* value) {
  return reinterpret_cast<std::uint64_t>(value);
}

// Integers and pointers as arguments; -1 if there are fewer than nargs.
template <typename function_t, typename... value_t>
int mora_emit_guarded_call_args(mora_context* ctx, function_t fn, std::uint32_t nargs, value_t... values) {
  const std::uint64_t words[] = {mora_argument_word(values)..., 0};
  if (nargs > sizeof...(values)) return -1;
  return mora_emit_guarded_call_values(ctx, mora_argument_word(fn), nargs, words);
}

// Function watches
// ----------------

// From now on each thread delivers pre_function and post_function for the function at `address` when it translates the
// function's first block. So call this before the function first runs. Any thread, any event. 1: added; 0: it was
// watched already, and counts once more. The unmapping of the address removes the watch.
//
// While a post_function callback is registered, a watched function returns by way of the engine. The engine keeps its
// return address on a stack of its own, for 32767 live calls per thread. Do not watch a function then that is left
// otherwise (longjmp, an exception that passes through it) or that looks at its return address (setjmp).
int function_watch_add(std::uint64_t address);

// The same with a name, for those who read the engine's table. The table keeps the first 255 bytes. Null: no name.
int function_watch_add_named(std::uint64_t address, const char* name);

// 0, the value at the start: every function symbol that is found is watched. Otherwise only what function_watch_add
// names is watched. Plug-ins hear of the symbols in both cases. Returns the value before. Before mora_run.
std::uint32_t function_watch_set_manual(std::uint32_t flag);

// Plug-ins are told of function symbols of this name, and of those that further calls name, but of no others: libraries
// have thousands. What is watched does not change. At most eight names of up to 63 bytes; with one that does not fit
// every symbol is told again. Null: forgets the names, and every symbol is told, as at the start. Before mora_run.
void function_symbol_only(const char* name);

}  // namespace ceilmeter
