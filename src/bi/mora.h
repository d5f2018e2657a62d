// The engine's core: its records for the process, for each thread and for each fragment, the sizes of the code cache,
// and what starts and ends an application under the engine. An application address is a source address; an address in
// the code cache is a cache address. Application code never runs where it was loaded. What runs is its rewritten copy
// in the code cache of the thread, one fragment at a time.
//
// Who may touch what: a thread_data, with all that it holds, belongs to its own thread. There are two exceptions.
// mora_terminate and settle_code_epoch read some fields under thread_list_lock. A signal may change the counters of
// pending signals at any moment. Code caches are private to a thread, so patching code needs no lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/containers/hash_table.h"
#include "bi/signals/application_stack.h"
#include "bi/signals/held_signals.h"
#include "bi/containers/interval_map.h"
#include "bi/containers/linked_pool.h"
#include "bi/containers/owned_lock.h"
#include "bi/containers/robin_map.h"
#include "bi/containers/shared_lock.h"
#include "bi/code/stub_layout.h"
#include "bi/code/written_code.h"
#include "bi/kernel/pages.h"

namespace ceilmeter {

// Sizes. Emitted code and documented limits depend on them.
inline constexpr std::size_t CODE_CACHE_SIZE = 0x1000000;
inline constexpr std::uint32_t BB_SIZE = 256;    // The unit of the basic-block area.
inline constexpr std::int32_t BB_COUNT = 55000;  // Indices below are basic blocks, those above trace fragments.
inline constexpr std::size_t BB_AREA_SIZE = 14080000;
inline constexpr std::int32_t BB_META_COUNT = 115000;
inline constexpr std::int32_t BB_FLUSH_THRESHOLD = 54969;  // allocate_bb flushes when next_block is beyond it.
inline constexpr std::int32_t ENTRY_TABLE_SIZE = 0x80009;
inline constexpr std::uint32_t LINK_POOL_CAPACITY = 100000;
inline constexpr std::size_t RETURN_STACK_SIZE = 32768;
inline constexpr std::size_t MAX_PLUGINS = 10;
inline constexpr std::size_t PLUGIN_SLOTS = 20;
inline constexpr std::size_t MAX_TRACE_EXITS = 21;
inline constexpr std::int32_t MAX_TRACE_FRAGMENTS = 21;
inline constexpr std::size_t TRACE_HIGH_WATER = 0xfff800;    // No trace begins here or higher in the cache.
inline constexpr std::int32_t TRACE_ID_HIGH_WATER = 114950;  // No trace begins with an index from here up.
inline constexpr std::int64_t EXEC_RANGES_CAPACITY = 512;
inline constexpr std::size_t FRAGMENT_CHAINS = 4096;
inline constexpr int SIGNAL_COUNT = 65;  // Signal numbers from 1; 0 is unused.
inline constexpr std::size_t DELIVERY_PLACES = 16;
inline constexpr std::size_t SCAN_WORDS = 16384;          // How many source words of a fragment are kept.
inline constexpr std::size_t SOURCE_MARKS_PER_WORD = 32;  // Two bits for each word of the code cache.

static_assert(BB_AREA_SIZE == std::size_t{BB_COUNT} * BB_SIZE);
static_assert(CODE_CACHE_SIZE - BB_AREA_SIZE == 2697216, "the trace area is the rest of the code cache");
static_assert(TRACE_ID_HIGH_WATER + 2 * MAX_TRACE_FRAGMENTS <= BB_META_COUNT, "each fragment may need a trampoline");
static_assert(MAX_TRACE_FRAGMENTS <= static_cast<std::int32_t>(MAX_TRACE_EXITS), "a fragment leaves by one exit");
static_assert(CODE_CACHE_SIZE <= 128 * 1024 * 1024, "a B reaches any place of the cache from any other");

enum bb_exit_kind : std::uint32_t {
  EXIT_NOT_SET = 0,
  EXIT_STUB_BLOCK = 1,  // Reserved: the block leads to the dispatcher and is not scanned yet.
  EXIT_DIRECT = 3,      // B, BL.
  EXIT_REGISTER = 4,    // BR, BLR, RET, and those to signed addresses.
  EXIT_B_COND = 5,
  EXIT_CBZ = 6,      // CBZ, CBNZ.
  EXIT_TBZ = 7,      // TBZ, TBNZ.
  EXIT_TRACE = 8,    // The trampoline of a trace's exit.
  EXIT_COMPARE = 9,  // CB<cc>, CBB<cc>, CBH<cc>.
};

// Values of bb_meta::link_state. A first link is 1 or 2. The value 4 is ORed in; it means one thing for a block and
// another for a fragment of a trace.
enum bb_link_state : std::uint32_t {
  LINK_NONE = 0,
  LINK_SKIPPED_FIRST = 1,  // A trace's fragment: the path goes on at the fall-through side.
  LINK_TAKEN_FIRST = 2,    // Always for an unconditional exit. A trace's fragment: the path takes the branch.
  LINK_BOTH = 4,           // A block: the second side is linked, too.
  LINK_CLOSES_TRACE = 4,   // A trace's fragment: it is the last one, and the branch that closes the trace follows.
  LINK_COUNTS = 8,         // A trampoline: it counts how often its trace is left by it (run_groups.h).
};

// The place of a branch word that was patched to reach a fragment. A record of the thread's link pool.
using cc_link = linked_record;  // `word` is the cache address of the branch.

inline constexpr std::size_t OVERWRITTEN_EXIT_WORDS = 3;

// One fragment. The record of index i below BB_COUNT describes the block at code_cache + i * BB_SIZE.
struct bb_meta {
  std::uint64_t source_addr;  // Of the fragment's first instruction.
  std::uint64_t cache_entry;
  std::uint32_t exit_kind;        // A bb_exit_kind.
  std::int32_t parent_block;      // The block that this one continues; 0: none.
  std::uint32_t* exit_code_addr;  // First word of the exit code.
  union {
    std::uint64_t taken_source_addr;  // Taken side of the exit.
    std::uint64_t rejoin_cache_addr;  // EXIT_TRACE: the cache address that the trampoline goes on at.
  };
  std::uint64_t skipped_source_addr;  // Fall-through side.
  std::uint64_t exit_condition;       // Of a conditional exit, with rn: see pack_exit_branch.
  std::uint32_t link_state;           // Of bb_link_state.
  std::uint32_t rn;                   // EXIT_REGISTER: the register that holds the target. Else see exit_condition.
  std::int32_t trampoline;            // Of a trace fragment: the index of its exit's trampoline.
  cc_link* linked_from;               // Places that branch straight to this fragment.
  std::uint32_t overwritten_exit[OVERWRITTEN_EXIT_WORDS];  // What a trap has overwritten.
  // How many words the scan looked at, from source_addr on, including the one behind the last.
  std::uint32_t source_words;
};

struct trace_exit {
  std::uint64_t from;  // Cache address of the conditional branch.
  std::uint64_t to;    // Cache address that it is to reach.
  std::int32_t fragment_id;
};

// The trace under construction.
struct trace_state {
  std::int32_t id;         // Next index for a fragment or a trampoline.
  std::int32_t source_bb;  // The head block.
  std::uint32_t* write;
  std::uint64_t entry_addr;
  std::uint32_t active;
  std::uint32_t exit_count;
  trace_exit exits[MAX_TRACE_EXITS];
};

// How the runs of fragments of traces are counted, see code/run_groups.h. Of each index of the trace area:
struct run_record {
  std::uint64_t passes;        // Of a leader, and of a trampoline that counts.
  std::uint64_t* counter;      // The plug-in's word; null: the fragment is in no group.
  std::uint64_t begins_group;  // It is a leader.
};
// The fragment that is being scanned or was scanned last, and what the trace so far lets follow.
struct group_scan {
  std::uint64_t* counter;             // The plug-in's word, if the fragment's count is left to a group.
  const std::uint32_t* behind_count;  // The word behind the code of the count.
  std::uint32_t ends_group;           // No member may follow.
  std::uint32_t may_join;             // It may be a member of the group before it.
  std::uint32_t is_exclusive;         // A load-exclusive of the trace waits for its store-exclusive.
  std::uint32_t calls_functions;      // The thread's code calls functions of plug-ins.
  std::int32_t end;                   // The first index behind all records.
};

// Where signals have found the application, see signals/turns.h.
struct delivery_place {
  std::uint64_t source;
  std::uint64_t sp;
  std::uint64_t signals;  // Which were delivered there.
};

// A block that goes on where another one could not, see code/spare_stack.h.
struct resumed_block {
  std::uint64_t source;  // Where it goes on; 0: there is none.
  std::uint64_t first;   // Where the other one began.
  std::uint64_t entry;   // The code made for it, while it is the one that runs.
  std::uint32_t counts;  // The other one's start has not been run.
};

inline constexpr std::uint32_t SPARE_STACK_SIZE = 1024;

enum thread_status : std::int32_t {
  THREAD_RUNNING = 0,     // In application or engine code.
  THREAD_IN_SYSCALL = 1,  // In an application's system call that the engine let through.
  THREAD_ABANDONED = 2,   // Has ended itself in abandon_thread.
};

// A signal action as the application has set it, in the kernel's form.
struct application_action {
  std::uint64_t handler;
  std::uint64_t flags;
  std::uint64_t restorer;
  std::uint64_t mask;
};

// Those of a child that has actions of its own in its parent's memory.
struct action_table {
  std::uint64_t handlers[SIGNAL_COUNT];
  application_action actions[SIGNAL_COUNT];
};

// What the call that ends a thread pushes in place of the application's stack, and the stack pointer at that time.
struct alignas(16) last_call_stack {
  std::uint64_t pushed[4];
  std::uint64_t stack_pointer;
};

// What a child that shares its parent's memory, its host and its parent tell each other, see kernel/hosted_child.h.
// Atomics.
struct hosted_words {
  std::int64_t answer;            // The result of the parent's call; 0: not known yet.
  std::int32_t alive;             // The kernel clears it when the child has left the memory.
  std::uint32_t parent_has_left;  // The parent does not look at the record any more.
};

// One per application thread. Each is a zeroed mapping of its own, so that emitted code can hold addresses of its
// fields.
struct thread_data {
  thread_data* next;
  // The five fields that a system call by the short way looks at, see THREAD_* in stub_layout.h. The stub text clears
  // the first two by one store.
  std::int32_t status;         // A thread_status. Written by its thread, read by mora_terminate: relaxed atomics.
  std::uint32_t runs_call;     // See code_epoch.h: it handles a system call, and looks at the epoch afterwards.
  std::uint32_t visit_wanted;  // The same. Not 0: a signal is or was sent to it that makes it look.
  std::int32_t pending_signal_count;   // The sum of pending_signals; every way back into the cache looks at it.
  std::uint64_t code_epoch;            // The epoch up to which this thread has dropped what others have dropped.
  std::int32_t next_block;             // Next free index of the basic-block area.
  std::uint32_t flush_seen;            // Set by every flush, cleared at each entry into the dispatcher or a call.
  std::uint64_t dispatcher_stub_addr;  // Cache addresses of this thread's copies of stubs.
  std::uint64_t syscall_wrapper_addr;
  std::uint8_t* code_cache;
  last_call_stack last_call;
  // A new thread has not moved its stack pointer from this address yet; 0: it has. See keeps_below_sp.
  std::uint64_t untouched_sp;
  // The application's stack pointer while what is added to its code uses spare_stack; 0: it uses the application's. See
  // code/spare_stack.h.
  std::uint64_t spare_for_sp;
  // See code_epoch.h. The thread itself writes all but visit_wanted, the others read: atomics.
  std::uint64_t acknowledged_epoch;  // It begins no more blocks from before this one.
  std::uint32_t replaced_argument;   // The number, counted from 1, of the one that the kernel gets another of; 0: none.
  std::uint32_t interrupter;         // The timer of a call in a turn, counted from 1, see turns.h; 0: none.
  // For a child in its parent's memory, see kernel/vfork.h. own_actions are its signal actions, unless the call shares
  // them.
  std::uint8_t is_vfork_child;
  std::uint8_t is_hosted;  // Its parent runs on, see kernel/hosted_child.h.
  std::uint8_t shares_descriptors;
  action_table* own_actions;
  thread_data* vfork_child;  // The child that this thread sleeps for. Under thread_list_lock.
  std::uint64_t hot_counter_stub_addr;
  std::uint8_t* trace_write_cursor;  // Next free byte of the trace area.
  std::int32_t trace_id;             // Next free index after the last installed trace.
  std::int32_t trace_fragment_count;
  trace_state active_trace;
  linked_pool* cc_link_pool;
  std::uint64_t tls;        // The application's thread pointer. The register keeps the C library's.
  std::uint64_t child_tls;  // The thread pointer for the child of a fork-like clone.
  void* plugin_thread_data[MAX_PLUGINS];
  std::uint64_t clone_resume_addr;  // Source address where a new thread starts.
  std::int32_t tid;
  std::int32_t process;            // The id of the process that it belongs to.
  std::int32_t* set_tid;           // The parent's word that receives the child's thread id.
  std::uint64_t* clone_args;       // The parent's save area.
  std::uint64_t child_stack;       // The application's stack of a new thread.
  std::uint32_t untouched_visits;  // How often the dispatcher has found it so.
  page_range kept_stack;           // What a thread that has unmapped its own stack still stands on, see handle_munmap.
  std::uint64_t clone_x3;          // What the parent had in x3; `clone_args` has the new thread's TLS there.
  std::uint8_t clone_shares_vm;
  std::uint64_t clone_flags;  // Of a child beside its running parent.
  hosted_words hosted;
  std::int32_t pending_signals[SIGNAL_COUNT];  // By number; 0: visits that others have asked for (code_epoch.h).
  std::uint64_t engine_sp;                     // Stack pointer at the thread's start, to leave it by.
  robin_map return_watch;                      // For post-function events; without buckets until the first.
  std::uint64_t syscall_args;                  // The first argument of the call, for the post-syscall callback.
  std::uint64_t* return_stack_top;
  // How those who wait for the thread learn of its end, see kernel/threads.cpp.
  std::int32_t* library_tid_word;      // The C library wants it cleared at the thread's end; null: not known.
  std::int32_t* application_tid_word;  // The application wants it cleared and its waiter woken.
  std::uint8_t clone_holds_locks;      // The engine's locks are held over the fork-like clone that is being made.
  std::uint64_t saved_signal_mask;     // Around a clone, which blocks every signal. A new thread: its first mask.
  // For a call with a signal mask of its own, see call_mask.h.
  std::uint64_t call_mask;
  std::uint64_t call_mask_pair[2];  // Address and size of it, for calls that want both.
  std::uint64_t replaced_original;  // The application's argument, a mask or a path, while the kernel gets another.
  // The trace fragment that is being scanned: where it begins, and whether it has outgrown the trace area.
  std::uint32_t* trace_fragment_start;
  std::uint32_t trace_fragment_overflow;
  std::int32_t traces_checked;  // How many indices traces had when the checker last looked at all of them.
  std::uint64_t trace_number;   // Of the trace begun last, among those of the process: see engine_switches.h.
  // In the fragment that is being scanned, no mark of an earlier one is left before it, see source_map.h.
  const std::uint32_t* source_marks_end;
  std::uint64_t guarded_arguments[8];  // The application's x0 to x7 around a guarded call with values.
  // Where signals find their stacks, see signal_stack.h and application_stack.h.
  std::uint8_t* signal_stack;        // The engine's own, with its guard page first.
  application_stack own_stack;       // The application's.
  application_stack accepted_stack;  // Flags and size that the kernel has last accepted.
  // Rewritten code writes both when an IC IVAU goes to the dispatcher: the address, and a value that is not 0.
  std::uint64_t invalidated_address;
  std::uint64_t invalidates;
  std::uint64_t longest_fragment_pages;  // How far a fragment reaches beyond its first page at most.
  // Other signals are blocked while one is held, and the mask that the application knows: see held_mask.h.
  std::uint32_t others_held_back;
  std::uint64_t application_mask;
  // Progress under a flood of signals, see turns.h.
  std::uint64_t handler_return;       // Where the last handler has returned to; 0: the application has gone on since.
  std::uint32_t deliveries_in_place;  // How many signals in a row have found the application where the last left it.
  delivery_place delivery_places[DELIVERY_PLACES];
  std::uint32_t next_delivery_place;
  std::uint32_t has_turn;  // One block runs, whatever is held.
  std::uint32_t interruptions;
  // Of a thread at the end of its stack.
  resumed_block resumed;
  std::uint64_t asked_sp;         // For which stack pointer it was last asked whether there is room,
  std::uint32_t blocks_at_end;    // and how many blocks have run since.
  std::uint64_t redirect_target;  // Where redirect_stub is to go.
  group_scan run_scan;
  std::uint32_t* snippet;  // By which the newest fragment of the trace under construction is entered.
  written_code written;    // Code that the instruction cache has to hear of before it runs.
  // What is large stands behind all else: the fields above are reached from the record's address by one instruction.
  bb_meta metas[BB_META_COUNT];
  // Source address to cache address. The slots begin with a page, so that every register branch has their address by
  // one ADRP.
  alignas(4096) std::uint8_t before_entry_table[4096 - sizeof(hash_table)];
  sized_hash_table<ENTRY_TABLE_SIZE> entry_table;
  std::uint8_t exit_counters[BB_COUNT];  // Hotness of each basic block.
  std::uint64_t return_stack[RETURN_STACK_SIZE];
  // Where in the cache the code of each source word begins, see source_map.h.
  std::uint64_t source_marks[CODE_CACHE_SIZE / sizeof(std::uint32_t) / SOURCE_MARKS_PER_WORD];
  // The source words of the fragment that is being scanned, and the class of each, see scan_ahead.h.
  std::uint32_t scan_words[SCAN_WORDS];
  std::uint8_t scan_classes[SCAN_WORDS];
  alignas(16) std::uint8_t spare_stack[SPARE_STACK_SIZE];
  action_table own_action_table;
  held_signals held;  // What was sent with the signals that are counted, see held_signals.h.
  // Fragments by the page of their first source word, see drop_range.h: the first index of each chain, and the next
  // one. 0: none, or not noted; -1: the last one.
  std::int32_t fragment_chains[FRAGMENT_CHAINS];
  std::int32_t chain_next[BB_META_COUNT];
  std::int32_t trace_heads[BB_META_COUNT - BB_COUNT];  // At a trace's head its block; negative: it was dropped.
  run_record run_records[BB_META_COUNT - BB_COUNT];
};

static_assert(offsetof(thread_data, status) == THREAD_STATUS && offsetof(thread_data, runs_call) == THREAD_RUNS_CALL &&
              THREAD_RUNS_CALL == THREAD_STATUS + 4 && THREAD_STATUS % 8 == 0 &&
              offsetof(thread_data, visit_wanted) == THREAD_VISIT_WANTED &&
              offsetof(thread_data, pending_signal_count) == THREAD_PENDING_SIGNAL_COUNT &&
              offsetof(thread_data, code_epoch) == THREAD_CODE_EPOCH);
static_assert((offsetof(thread_data, entry_table) + offsetof(sized_hash_table<ENTRY_TABLE_SIZE>, entries)) % 4096 == 0);

// Process-wide state, each part under the lock that is named with it.
struct engine_globals {
  std::uint64_t code_epoch;  // How often code has been dropped: see begun_code_epoch.
  std::uint32_t exit_flag;   // Set to 1 once, by mora_terminate; read without a lock by every thread.
  std::int32_t argc;         // The application's arguments as given to mora_run.
  char** argv;
  interval_map exec_ranges;  // Executable ranges, each with a duplicate of its descriptor. Has its own lock.
  std::uint64_t signal_handlers[SIGNAL_COUNT];  // The application's handlers. Under the next lock.
  owned_lock signal_handlers_lock;
  std::uint64_t brk;  // The emulated program break and its first value. Under the next lock.
  std::uint64_t initial_brk;
  owned_lock brk_lock;
  std::uint64_t first_size;      // What was mapped when the application began, in bytes; 0: not known.
  thread_data* thread_list;      // Under the next lock.
  thread_data* hosted_children;  // The same, see kernel/hosted_child.h.
  owned_lock thread_list_lock;
  std::uint32_t plugin_count;
  std::uint64_t plugins[MAX_PLUGINS][PLUGIN_SLOTS];  // Slots 1 to 18: callbacks by event; 19: the plug-in's data.
  // Plug-ins' code runs with this lock shared. A fork holds it alone, so that the child finds plug-ins' data and the
  // heap as they are between two callbacks. Taken after brk_lock and before function_watch_lock.
  shared_lock callbacks_lock;
  owned_lock function_watch_lock;
  robin_map function_watches;  // Function address to its record. Under function_watch_lock.
  // Held over a call that changes the application's mappings, and over what the engine notes of it. Taken after
  // brk_lock and before callbacks_lock.
  owned_lock mapping_lock;
  interval_map attached_segments;  // Shared memory segments (shmat), each from its address to its end.
  // See signals/ending_signals.h. The process that catches ending signals, set before there is a second thread; 0:
  // none does.
  std::int32_t process;
  std::int32_t ending_signal;  // By which signal the process ends, and when it came; 0: none. Both are set before
  std::int64_t ending_time;    // exit_flag and read after it.
  // How often code has been dropped, and up to which number every thread has followed: see code_epoch.h. Atomics.
  std::uint64_t begun_code_epoch;  // One ahead of code_epoch while a drop is being noted.
  std::uint64_t settled_code_epoch;
  owned_lock code_epoch_lock;  // Held while a drop is noted. Taken last.
};

static_assert(offsetof(engine_globals, code_epoch) == ENGINE_CODE_EPOCH &&
              offsetof(engine_globals, exit_flag) == ENGINE_EXIT_FLAG);

extern engine_globals engine;

// This thread's record; null on a thread of the tool's own.
extern thread_local thread_data* current_thread;

// Whether plug-ins are to hear of what the calling thread does. A child in its parent's memory is another process, and
// what plug-ins have noted is its parent's.
// Asked at every word of a scan, so only the first test is inline.
[[gnu::noinline]] inline bool is_calling_thread_heard() {
  return current_thread == nullptr || current_thread->is_vfork_child == 0;
}
inline bool plugins_listen() { return engine.plugin_count != 0 && is_calling_thread_heard(); }

// The application's handlers as the calling thread's process has them. Under signal_handlers_lock.
inline std::uint64_t* application_handlers() {
  const thread_data* thread = current_thread;
  return thread != nullptr && thread->own_actions != nullptr ? thread->own_actions->handlers : engine.signal_handlers;
}

inline std::uint64_t address_of(const void* place) { return reinterpret_cast<std::uint64_t>(place); }

// Starts the application `argv[0]` in this process. Does not return: the process ends with the application's status.
int mora_run(int argc, char** argv, char** envp);

// Maps a zeroed record. False if the mapping failed.
bool allocate_thread_data(thread_data** out);

// Gives a record its code cache, stubs and tables. Fatal if one of them cannot be mapped.
void init_thread(thread_data* thread);

// The same for a thread that the application can do without. Returns null, or what could not be mapped, with errno as
// mmap left it. After a failure the record is good for free_thread_data alone.
const char* try_init_thread(thread_data* thread);

// What to do when the kernel refuses memory for a thread, for log lines.
inline constexpr std::uint64_t THREAD_ADDRESS_SPACE = std::uint64_t{40} << 20;
inline constexpr char THREAD_MEMORY_REMEDY[] =
    "each thread takes 40 MiB of address space, 16 MiB of it writable and executable: raise the limits of address "
    "space (ulimit -v) and of committed memory, or allow such memory";

// Puts a record into the list of live threads, or takes it out, and delivers thread_init or thread_exit before the lock
// is released. `lock_held`: the caller has thread_list_lock. The second function returns -1 if the record is not
// listed.
void register_thread(thread_data* thread, bool lock_held);
int unregister_thread(thread_data* thread, bool lock_held);

// Ends the process with `status` after every other thread has left the code cache or is parked in a system call.
[[noreturn]] void mora_terminate(thread_data* thread, std::int32_t status);

// Whether the process of the thread is ending. Pairs with the store in mora_terminate, which precedes the signal that
// brings a thread to look.
bool is_process_ending(const thread_data* thread);
// The same, and the process ends by the signal. Where the application would have ended by it, holding nothing of the
// engine's.
[[noreturn]] void mora_terminate_by_signal(thread_data* thread, std::int32_t signum);

// Ends the calling thread for good while the process ends.
[[noreturn]] void abandon_thread(thread_data* thread);

// Where the engine's stack of the thread begins, downwards: what word_engine_stack of its stubs holds. The first thread
// sets it as it enters the application, any other as it starts.
std::uint64_t* engine_stack_word(const thread_data* thread);
inline std::uint64_t engine_stack(const thread_data* thread) { return *engine_stack_word(thread); }

// A new thread may find arguments below its stack pointer, where a program natively finds what its parent left. Until
// it first moves its stack pointer, whatever the engine adds to its blocks pushes KEPT_BELOW_SP bytes further down:
// each block is entered with sp that much lower, raises it in front of its first word and lowers it again in its exit.
// Such blocks are not linked, have no hot counter and are known by keys of their own (block_key), so that they are not
// run any more once the dispatcher has found the stack pointer moved.
inline constexpr std::uint32_t KEPT_BELOW_SP = 512;
inline bool keeps_below_sp(const thread_data* thread) { return thread->untouched_sp != 0; }
inline std::uint64_t kept_below_sp(const thread_data* thread) { return keeps_below_sp(thread) ? KEPT_BELOW_SP : 0; }

// The same where there is no room below the stack pointer at all, with a stack of the engine's: code/spare_stack.h.
inline bool uses_spare_stack(const thread_data* thread) { return thread->spare_for_sp != 0; }

// Blocks of either kind.
inline bool has_own_blocks(const thread_data* thread) { return (thread->untouched_sp | thread->spare_for_sp) != 0; }

// Their keys in the entry table. A source address is a multiple of 4, and no code lies at one with a tag.
inline constexpr std::uint64_t NEW_THREAD_KEY = 1;
inline constexpr std::uint64_t SPARE_STACK_KEY = 2;
inline constexpr std::uint64_t RESUMED_KEY = 3;
inline constexpr std::uint64_t RESUMED_START_KEY = 3 | std::uint64_t{1} << 62;
inline std::uint64_t block_key(const thread_data* thread, std::uint64_t source) {
  if (!has_own_blocks(thread)) return source;
  if (keeps_below_sp(thread)) return source | NEW_THREAD_KEY;
  if (thread->resumed.source != source) return source | SPARE_STACK_KEY;
  return source | (thread->resumed.counts != 0 ? RESUMED_START_KEY : RESUMED_KEY);
}

// Unmaps a record with its code cache and link pool.
void free_thread_data(thread_data* thread);

// The page size, asked of the kernel once.
std::uint64_t page_size();

}  // namespace ceilmeter
