// Registration, the accessors that look into the engine's records, and the services that write no code.
#include "bi/plugin.h"

#include <cstddef>

#include "bi/mora.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/scanner.h"

namespace ceilmeter {

namespace {

// The slot of a plug-in's data lies behind the slots of the events.
constexpr std::size_t PLUGIN_DATA_SLOT = 19;
static_assert(PLUGIN_DATA_SLOT == MORA_FLUSH + 1 && PLUGIN_SLOTS == PLUGIN_DATA_SLOT + 1);

constexpr int NO_PLUGIN = -1;
constexpr int ALREADY_BOUND = -2;
constexpr int NO_EVENT = -3;
constexpr int NO_THREAD = -4;

bool is_registered(const mora_context* ctx) { return ctx->plugin_id < registered_plugins(); }

bool is_scan_event(const mora_context* ctx) {
  return (ctx->event >= MORA_PRE_INST && ctx->event <= MORA_POST_FRAGMENT) || ctx->event == MORA_PRE_FUNCTION ||
         ctx->event == MORA_POST_FUNCTION;
}

// At clone the context knows the child only by its slots. They lie in the child's record.
const thread_data* cloned_thread(const mora_context* ctx) {
  return reinterpret_cast<const thread_data*>(reinterpret_cast<const char*>(ctx->child_plugin_thread_data) -
                                              offsetof(thread_data, plugin_thread_data));
}

// In the new thread's thread_init the parent still waits, so its arguments are there. The child of a fork may have the
// record of a thread that a clone has made, but it is alone.
bool is_cloned_thread(const mora_context* ctx) {
  return ctx->event == MORA_THREAD_INIT && ctx->thread_data->child_stack != 0 && ctx->thread_data->next != nullptr;
}

}  // namespace

mora_context* mora_add_plugin() {
  static mora_context registration;
  const std::uint32_t id = engine.plugin_count++;
  if (id >= MAX_PLUGINS) return nullptr;
  registration = {};
  registration.plugin_id = id;
  return &registration;
}

int mora_bind_event(mora_context* ctx, std::uint32_t event, mora_callback fn) {
  if (event > MORA_FLUSH || event == 0) return NO_EVENT;
  if (ctx->plugin_id >= MAX_PLUGINS) return NO_PLUGIN;
  std::uint64_t& slot = engine.plugins[ctx->plugin_id][event];
  if (slot != 0) return ALREADY_BOUND;
  slot = reinterpret_cast<std::uint64_t>(fn);
  return 0;
}

int mora_set_plugin_data(mora_context* ctx, void* data) {
  if (!is_registered(ctx)) return NO_PLUGIN;
  engine.plugins[ctx->plugin_id][PLUGIN_DATA_SLOT] = address_of(data);
  return 0;
}

void* mora_get_plugin_data(const mora_context* ctx) {
  if (!is_registered(ctx)) return nullptr;
  return reinterpret_cast<void*>(engine.plugins[ctx->plugin_id][PLUGIN_DATA_SLOT]);
}

int mora_set_thread_data(mora_context* ctx, void* data) {
  if (!is_registered(ctx)) return NO_PLUGIN;
  if (ctx->thread_data == nullptr) return NO_THREAD;
  ctx->thread_data->plugin_thread_data[ctx->plugin_id] = data;
  return 0;
}

void* mora_get_thread_data(const mora_context* ctx) {
  if (!is_registered(ctx) || ctx->thread_data == nullptr) return nullptr;
  return ctx->thread_data->plugin_thread_data[ctx->plugin_id];
}

int mora_set_child_thread_data(mora_context* ctx, void* data) {
  if (!is_registered(ctx)) return NO_PLUGIN;
  if (ctx->event != MORA_CLONE) return NO_THREAD;
  ctx->child_plugin_thread_data[ctx->plugin_id] = data;
  return 0;
}

std::int32_t mora_get_thread_id(const mora_context* ctx) {
  return ctx->thread_data != nullptr ? ctx->thread_data->tid : -1;
}

std::int32_t mora_get_ending_signal() { return engine.ending_signal; }

const thread_data* mora_get_next_thread(const mora_context* ctx) {
  return ctx->thread_data != nullptr ? ctx->thread_data->next : nullptr;
}

const std::uint64_t* mora_get_clone_args(const mora_context* ctx) {
  if (ctx->event == MORA_CLONE) return cloned_thread(ctx)->clone_args;
  return is_cloned_thread(ctx) ? ctx->thread_data->clone_args : nullptr;
}

std::uint64_t mora_get_child_stack(const mora_context* ctx) {
  const std::uint64_t* args = mora_get_clone_args(ctx);
  return args != nullptr ? args[1] : 0;
}

int mora_replace_inst(mora_context* ctx) {
  if (!is_scan_event(ctx)) return -1;
  ctx->replace = 1;
  return 0;
}

int mora_replace_function(mora_context* ctx, std::uint64_t address) {
  if (ctx->event != MORA_PRE_FUNCTION) return -1;
  ctx->read_address = reinterpret_cast<const std::uint32_t*>(address & ~std::uint64_t{1});
  ctx->replace = 1;
  return 0;
}

int mora_skip_syscall(mora_context* ctx) {
  if (ctx->event != MORA_PRE_SYSCALL) return -1;
  ctx->skip_syscall = 1;
  ctx->result = ctx->args[0];
  return 0;
}

int mora_set_result(mora_context* ctx, std::uint64_t value) {
  const bool is_skipped = ctx->event == MORA_PRE_SYSCALL && ctx->skip_syscall != 0;
  if (ctx->event != MORA_POST_SYSCALL && !is_skipped) return -1;
  ctx->result = value;
  return 0;
}

int mora_add_to_entry_table(mora_context* ctx) {
  if (!is_scan_event(ctx) || ctx->write_p == nullptr) return -1;
  const std::uint64_t address = address_of(ctx->write_p);
  hash_add(&ctx->thread_data->entry_table.table, address, address);
  return 0;
}

int mora_stop_scan(mora_context* ctx) {
  if (!is_scan_event(ctx)) return -1;
  *ctx->stop = true;
  return 0;
}

int mora_reserve_space(mora_context* ctx, std::uint32_t size) {
  if (!is_scan_event(ctx) || !ctx->code_allowed) return -1;
  // Mostly there is room.
  if (ctx->fragment.type == FRAGMENT_BLOCK && address_of(ctx->write_limit) > address_of(ctx->write_p) + size) return 0;
  a64_reserve_block_space(ctx->thread_data, &ctx->write_p, &ctx->write_limit, size);
  return 0;
}

}  // namespace ceilmeter
