// The events that carry no code. Each context lives on the stack of the thread that is told.
#include "bi/plugins/plugin_delivery.h"

#include "bi/code/run_groups.h"

namespace ceilmeter {

namespace {

mora_context context_of(thread_data* thread, mora_event event) {
  mora_context ctx{};
  ctx.thread_data = thread;
  ctx.event = event;
  return ctx;
}

}  // namespace

bool is_event_bound_by_later_plugin(mora_event event) {
  for (std::uint32_t plugin = 1; plugin < registered_plugins(); ++plugin) {
    if (engine.plugins[plugin][event] != 0) return true;
  }
  return false;
}

// One thread can take more than one share, because an event can come within another's callback: the code that a
// callback writes may need a flush, for instance. Shares go first, so a fork that waits does not come between.
void mora_enter_callback() { shared_lock_take_share(&engine.callbacks_lock); }

void mora_leave_callback() { shared_lock_leave_share(&engine.callbacks_lock); }

void mora_deliver_event(mora_context* ctx) {
  mora_enter_callback();
  for (std::uint32_t plugin = 0; plugin < registered_plugins(); ++plugin) {
    const std::uint64_t callback = engine.plugins[plugin][ctx->event];
    if (callback == 0) continue;
    ctx->plugin_id = plugin;
    reinterpret_cast<mora_callback>(callback)(ctx);
  }
  mora_leave_callback();
}

void tell_plugins(thread_data* thread, mora_event event) {
  settle_runs(thread);
  if (event == MORA_THREAD_EXIT) forget_runs(thread);
  mora_context ctx = context_of(thread, event);
  mora_deliver_event(&ctx);
}

void tell_plugins_of_flush() { tell_plugins(current_thread, MORA_FLUSH); }

void tell_plugins_of_clone(thread_data* parent, thread_data* child) {
  mora_context ctx = context_of(parent, MORA_CLONE);
  ctx.child_plugin_thread_data = child->plugin_thread_data;
  mora_deliver_event(&ctx);
}

void tell_plugins_of_loaded_file(const char* path, int fd) {
  mora_context ctx = context_of(current_thread, MORA_ELF_LOAD);
  ctx.path = path;
  ctx.loaded_fd = fd;
  mora_deliver_event(&ctx);
}

void tell_plugins_of_vm_op(const vm_op_event& what) {
  mora_context ctx = context_of(current_thread, MORA_VM_OP);
  ctx.op = what.op;
  ctx.addr = what.addr;
  ctx.size = what.size;
  ctx.mapping = {what.prot, what.flags};
  ctx.fd = what.fd;
  ctx.offset = what.offset;
  mora_deliver_event(&ctx);
}

bool ask_plugins_before_syscall(thread_data* thread, std::uint64_t number, std::uint64_t* args, std::uint64_t* result) {
  if (is_event_bound(MORA_PRE_SYSCALL)) settle_runs(thread);
  mora_context ctx = context_of(thread, MORA_PRE_SYSCALL);
  ctx.number = number;
  ctx.args = args;
  mora_deliver_event(&ctx);
  if (ctx.skip_syscall == 0) return false;
  *result = ctx.result;
  return true;
}

void ask_plugins_after_syscall(thread_data* thread, std::uint64_t number, std::uint64_t* result) {
  if (is_event_bound(MORA_POST_SYSCALL)) settle_runs(thread);
  mora_context ctx = context_of(thread, MORA_POST_SYSCALL);
  ctx.number = number;
  ctx.args = &thread->syscall_args;
  ctx.result = *result;
  mora_deliver_event(&ctx);
  *result = ctx.result;
}

}  // namespace ceilmeter
