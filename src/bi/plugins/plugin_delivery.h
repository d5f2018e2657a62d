// The engine's side of the plug-in interface: the points where its code tells plug-ins of an event. The engine calls
// each function at its event's one place, whether there are plug-ins or not. Without any the function returns at once.
#pragma once

#include <algorithm>
#include <cstdint>

#include "bi/mora.h"
#include "bi/plugin.h"
#include "bi/plugins/function_watch.h"
#include "bi/code/scan_state.h"

namespace ceilmeter {

// plugin_count also counts registrations that failed for want of room.
inline std::uint32_t registered_plugins() {
  return std::min(engine.plugin_count, static_cast<std::uint32_t>(MAX_PLUGINS));
}

// Whether any plug-in has a callback for the event; mostly there is one plug-in.
bool is_event_bound_by_later_plugin(mora_event event);
inline bool is_event_bound(mora_event event) {
  if (engine.plugin_count == 0) return false;
  return engine.plugins[0][event] != 0 || (engine.plugin_count > 1 && is_event_bound_by_later_plugin(event));
}

// Calls every plug-in that has a callback for the context's event, in order of their numbers. For events without code.
void mora_deliver_event(mora_context* ctx);

// A change of the application's memory, as MORA_VM_OP tells it.
struct vm_op_event {
  vm_op op;
  std::uint64_t addr;
  std::uint64_t size;
  std::uint32_t prot;
  std::uint32_t flags;
  std::int32_t fd;  // -1: none.
  std::uint64_t offset;
};

// What the functions below do if there are plug-ins.
void tell_plugins(thread_data* thread, mora_event event);
void tell_plugins_of_clone(thread_data* parent, thread_data* child);
void tell_plugins_of_loaded_file(const char* path, int fd);
void tell_plugins_of_vm_op(const vm_op_event& what);
void tell_plugins_of_mapped_file(std::int32_t fd, std::uint64_t addr);
bool ask_plugins_before_syscall(thread_data* thread, std::uint64_t number, std::uint64_t* args, std::uint64_t* result);
void ask_plugins_after_syscall(thread_data* thread, std::uint64_t number, std::uint64_t* result);
void tell_plugins_of_flush();

// The caller of both holds thread_list_lock, except in the child of a fork and at the process's end.
inline void deliver_thread_init(thread_data* thread) {
  if (plugins_listen()) tell_plugins(thread, MORA_THREAD_INIT);
}
inline void deliver_thread_exit(thread_data* thread) {
  if (plugins_listen()) tell_plugins(thread, MORA_THREAD_EXIT);
}

inline void deliver_exit(thread_data* thread) {
  if (plugins_listen()) tell_plugins(thread, MORA_EXIT);
}

// Plug-ins hear of the calling thread, even if the record that is made ready is that of its child.
inline void deliver_flush() {
  if (plugins_listen()) tell_plugins_of_flush();
}

inline void deliver_clone(thread_data* parent, thread_data* child) {
  if (plugins_listen()) tell_plugins_of_clone(parent, child);
}

inline void deliver_elf_load(const char* path, int fd) {
  if (plugins_listen()) tell_plugins_of_loaded_file(path, fd);
}

inline void deliver_vm_op(const vm_op_event& what) {
  if (plugins_listen()) tell_plugins_of_vm_op(what);
}

// An executable mapping of the file `fd` begins at `addr`: reads the file's function symbols. Only plug-ins need what
// follows from them, events and watches.
inline void deliver_mapped_file(std::int32_t fd, std::uint64_t addr) {
  if (plugins_listen()) tell_plugins_of_mapped_file(fd, addr);
}

// True if a plug-in has taken the call over; `*result` is then its result.
inline bool deliver_pre_syscall(thread_data* thread, std::uint64_t number, std::uint64_t* args,
                                std::uint64_t /*next_inst*/, std::uint64_t* result) {
  return plugins_listen() && ask_plugins_before_syscall(thread, number, args, result);
}

// A callback may change `*result`.
inline void deliver_post_syscall(thread_data* thread, std::uint64_t number, std::uint64_t /*next_inst*/,
                                 std::uint64_t* result) {
  if (plugins_listen()) ask_plugins_after_syscall(thread, number, result);
}

// One of the code events of a fragment under translation.
struct scan_event {
  mora_event event;
  std::int32_t inst;                 // Of the instruction enumeration, or MORA_NO_INST.
  bool allow_code;                   // Otherwise what plug-ins write is dropped.
  const std::uint32_t* end_address;  // Of MORA_POST_BB: the address past the last instruction.
};

// Around all events of a scan: one entry into the callbacks for all of them.
inline void begin_scan_events(scan_state& state) {
  state.is_heard = plugins_listen();
  if (state.is_heard) mora_enter_callback();
}
inline void end_scan_events(const scan_state& state) {
  if (state.is_heard) mora_leave_callback();
}

// What deliver_scan_event does if a plug-in has a callback for the event.
bool scan_for_plugins(scan_state& state, const scan_event& what);

// Whether plug-ins want to hear of single instructions of this scan, those of a watched function's return left aside.
inline bool hears_of_words(const scan_state& state) {
  return state.is_heard && (is_event_bound(MORA_PRE_INST) || is_event_bound(MORA_POST_INST));
}

// Tells plug-ins of the event and puts their code at the scan's cursor, with the function events of the block and the
// code of its watches. MORA_PRE_BB is about state.bb_start, every other event about state.read. True if a plug-in has
// taken the instruction over. A plug-in may also end the fragment (state.stop).
inline bool deliver_scan_event(scan_state& state, const scan_event& what) {
  if (!state.is_heard) return false;
  if (what.event == MORA_PRE_BB && are_functions_watched()) put_function_entry(state, state.bb_start);
  if (what.event == MORA_PRE_INST && state.thread->return_watch.count != 0) put_function_return(state, state.read);
  return is_event_bound(what.event) && scan_for_plugins(state, what);  // Most events: no call.
}

// The same with each part of the state by itself, for callers that have no scan_state.
bool a64_scanner_deliver_callbacks(thread_data* thread, mora_event event, const std::uint32_t** read_address,
                                   std::int32_t inst, std::uint32_t** write, std::uint32_t** limit, std::int32_t bb_id,
                                   std::uint32_t fragment_type, bool allow_code, bool* stop,
                                   const std::uint32_t* end_address);

}  // namespace ceilmeter
