// The names in the stub text and the other hand-written routines; stubs.S, engine_entries.S and guarded_call.S tell
// what each assumes and keeps. An address in a thread's copy is the copy's base plus the distance from stub_text.
#pragma once

#include <cstdint>

namespace ceilmeter {

struct thread_data;
struct signal_frame;

extern "C" {

extern const std::uint8_t stub_text[];
extern const std::uint8_t stub_text_end[];
extern const std::uint8_t save_vector_state[];
extern const std::uint8_t restore_vector_state[];
extern const std::uint8_t dispatcher_entry_stub[];
extern const std::uint8_t hot_counter_stub[];
extern const std::uint8_t syscall_wrapper[];
extern const std::uint8_t quick_restart_window[];
extern const std::uint8_t quick_call_window[];
extern const std::uint8_t quick_call[];
extern const std::uint8_t quick_return_point[];
extern const std::uint8_t quick_look_window[];
extern const std::uint8_t quick_branch[];
extern const std::uint8_t quick_call_visit[];
extern const std::uint8_t syscall_of_own_block[];
extern const std::uint8_t syscall_restart_window[];
extern const std::uint8_t syscall_call_window[];
extern const std::uint8_t syscall_return_point[];
extern const std::uint8_t syscall_leave[];
extern const std::uint8_t cache_reentry_stub[];
extern const std::uint8_t reentry_window[];
extern const std::uint8_t reentry_branch[];
extern const std::uint8_t reentry_raise[];
extern const std::uint8_t reentry_signal_point[];
extern const std::uint8_t reentry_resume_window[];
extern const std::uint8_t reentry_resume_branch[];
extern const std::uint8_t word_engine_stack[];
extern const std::uint8_t word_thread_data[];
extern const std::uint8_t word_pending_signal_count[];
extern const std::uint8_t word_raised_signal[];
extern const std::uint8_t word_engine[];
extern const std::uint8_t word_redirect_target[];
extern const std::uint8_t redirect_stub[];

void signal_entry_stub();
void guarded_call_stub();
void guarded_call_stub_sve();
extern const std::uint8_t guarded_call_stubs_end[];
void* thread_start_stub(void* thread);
void leave_thread(std::uint64_t engine_sp, std::int32_t* library_tid_word, std::int32_t* application_tid_word);
[[noreturn]] void start_in_cache(std::uint64_t frame, std::uint64_t leave);
void enter_application(std::uint64_t block, std::uint64_t sp, std::uint64_t* engine_stack_word);
std::int64_t clone_in_memory(std::uint64_t flags, std::uint64_t parent_tid, std::uint64_t child_tid,
                             thread_data* child);
std::int64_t raw_syscall(std::uint64_t number, std::uint64_t a0 = 0, std::uint64_t a1 = 0, std::uint64_t a2 = 0,
                         std::uint64_t a3 = 0, std::uint64_t a4 = 0, std::uint64_t a5 = 0, std::uint64_t a6 = 0);

// What the stub text calls, through its data words. next_addr: cache address and source address, as the stub's frame
// has them.
void dispatcher(std::uint64_t target, std::int32_t source_index, std::uint64_t* next_addr, thread_data* thread);
std::uint64_t syscall_handler_pre(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst,
                                  thread_data* thread);
std::uint64_t syscall_held_signals(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst,
                                   thread_data* thread);
void syscall_clone(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst, thread_data* thread);
void syscall_handler_post(std::uint64_t number, std::uint64_t* args, std::uint64_t next_inst, thread_data* thread);
void create_trace(thread_data* thread, std::int32_t source_index, std::uint64_t* ret);
std::uint64_t deliver_pending_signal(std::uint64_t target, std::uint64_t* info);
void signal_dispatcher(signal_frame* frame, std::uint64_t record, std::uint64_t restorer);
[[noreturn]] void thread_start(thread_data* thread, std::uint64_t engine_sp);

// What clone_in_memory calls in the child.
[[noreturn]] void vfork_child_start(thread_data* child, std::uint64_t engine_stack_top);

// What leave_thread calls on the thread's own stack.
void settle_tid_words(std::int32_t* library_tid_word, std::int32_t* application_tid_word);

// While this thread is in one of the two stubs above: where it goes on in the code cache. 0: it is not.
extern thread_local std::uint64_t guarded_return_address;

// Where the engine's stack of this thread begins, for the same two stubs: what word_engine_stack is to the stub text.
extern thread_local std::uint64_t guarded_engine_stack;

}  // extern "C"

// The distance of a place from the start of the stub text.
inline std::uint64_t stub_offset(const std::uint8_t* place) { return static_cast<std::uint64_t>(place - stub_text); }

}  // namespace ceilmeter
