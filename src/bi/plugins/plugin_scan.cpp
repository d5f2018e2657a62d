// The events of a fragment under translation: callbacks that may write code, and what becomes of it.
#include "bi/a64/a64.h"
#include "bi/plugins/function_watch.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/run_counter.h"
#include "bi/code/run_groups.h"
#include "bi/code/scanner.h"
#include "bi/code/traces.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/plugin_scan"};

mora_context context_at(scan_state& state, mora_event event, const std::uint32_t* read_address, std::int32_t inst) {
  mora_context ctx{};
  ctx.thread_data = state.thread;
  ctx.event = event;
  ctx.fragment = {state.type, state.bb_id};
  ctx.read_address = read_address;
  ctx.decoded = {inst, MORA_COND_ALWAYS};
  if (inst == A64_B_COND) {
    std::uint32_t imm19 = 0;
    a64_b_cond_decode(&state.word, &imm19, &ctx.decoded.cond);
  }
  ctx.write_p = state.write;
  ctx.write_limit = state.limit;
  ctx.stop = &state.stop;
  ctx.scan = &state;
  return ctx;
}

void reserve_space(scan_state& state, std::uint32_t size) {
  // Mostly there is room.
  if (state.type == FRAGMENT_BLOCK && address_of(state.limit) > address_of(state.write) + size) return;
  a64_reserve_block_space(state.thread, &state.write, &state.limit, size);
}

// Whether the callback has taken the instruction over. Warns if it has asked for what it may not have. Apart: seldom.
[[gnu::noinline]] bool has_replaced(const mora_context& ctx, bool taken, bool wrote) {
  const bool replaces = ctx.replace != 0;
  if (taken && (wrote || replaces)) {
    log(LEVEL_WARN, "plugin %d added code for overridden instruction (%p)", static_cast<int>(ctx.plugin_id),
        static_cast<const void*>(ctx.read_address));
  }
  if (replaces && ctx.event != MORA_PRE_INST) {
    log(LEVEL_WARN, "plugin %d set replace_inst for a disallowed event (at %p)", static_cast<int>(ctx.plugin_id),
        static_cast<const void*>(ctx.read_address));
    return false;
  }
  return replaces;
}

// Calls the plug-in's callback, if it has one. True if this one or one before has taken the instruction over.
inline bool call_plugin(mora_context& ctx, scan_state& state, std::uint32_t plugin, bool taken) {
  const std::uint64_t callback = engine.plugins[plugin][ctx.event];
  if (callback == 0) return taken;
  // The scanner may have left less, for instance behind a system call.
  if (ctx.code_allowed) reserve_space(state, MORA_CALLBACK_SPACE);
  ctx.plugin_id = plugin;
  ctx.write_p = state.write;
  ctx.write_limit = state.limit;
  ctx.regs_on_entry = ctx.regs_to_pop;
  ctx.replace = 0;
  reinterpret_cast<mora_callback>(callback)(&ctx);
  if (taken || ctx.replace != 0) {
    const bool wrote = ctx.code_allowed && ctx.write_p != state.write;
    taken = has_replaced(ctx, taken, wrote) || taken;
  }
  if (!ctx.code_allowed) return taken;  // What was written is dropped: the scan's write pointer stays.
  if (ctx.regs_to_pop != 0) mora_emit_restore_regs(&ctx, ctx.regs_to_pop);
  ctx.regs_to_pop = 0;
  state.write = ctx.write_p;
  state.limit = ctx.write_limit;
  reserve_space(state, EXIT_SPACE);
  return taken;
}

// Calls the plug-ins one after the other. Each writes where the one before has stopped. Mostly there is one.
inline bool call_plugins(mora_context& ctx, scan_state& state) {
  bool taken = call_plugin(ctx, state, 0, false);
  for (std::uint32_t plugin = 1; plugin < registered_plugins(); ++plugin) {
    taken = call_plugin(ctx, state, plugin, taken);
  }
  return taken;
}

}  // namespace

static_assert(MORA_CALLBACK_SPACE <= EXIT_SPACE);

bool mora_block_begins_with(const mora_context* ctx, const std::uint32_t* words, std::size_t count) {
  if (ctx->event != MORA_PRE_BB) return false;
  source_window& source = ctx->scan->source;
  const std::uint32_t* place = ctx->scan->bb_start;
  for (const std::uint32_t* end = place + count; place != end; ++place, ++words) {
    // What has been loaded is not asked for again. The first word can be read, or there would be no block.
    const bool is_known = place < source.first + source.count || place == source.first;
    if (!is_known && begins_unreadable_page(place)) return false;
    if (word_at(source, place) != *words) return false;
  }
  return true;
}

const std::uint32_t* mora_get_block_words(const mora_context* ctx) {
  if (ctx->event != MORA_POST_BB) return nullptr;
  const source_window& source = ctx->scan->source;
  const auto end = static_cast<std::size_t>(ctx->end_address - source.first);
  return end <= source.count ? source.kept + (ctx->scan->bb_start - source.first) : nullptr;
}

int mora_count_runs(mora_context* ctx, std::uint64_t* counter) {
  if (ctx->event != MORA_PRE_BB || address_of(counter) % sizeof *counter != 0) return -1;
  if (mora_reserve_space(ctx, RUN_COUNTER_SPACE) != 0) return -1;
  scan_state* state = ctx->scan;
  if (state != nullptr && count_by_group(*state, &ctx->write_p, counter)) return 0;
  const bool begins_head = state != nullptr && state->counter.first != nullptr && ctx->write_p == state->counter.end;
  if (!begins_head || state->counter.is_plugins) {
    put_run_counter(&ctx->write_p, counter);
    return 0;
  }
  // In the place of the engine's own counter, behind which nothing stands yet.
  ctx->write_p = state->counter.first;
  if (trace_options.off) {
    put_run_counter(&ctx->write_p, counter);
  } else {
    put_asking_run_counter(state->thread, &ctx->write_p, counter);
  }
  state->counter.end = ctx->write_p;
  state->counter.is_plugins = true;
  return 0;
}

bool scan_for_plugins(scan_state& state, const scan_event& what) {
  const std::uint32_t*& read_address = what.event == MORA_PRE_BB ? state.bb_start : state.read;
  mora_context ctx = context_at(state, what.event, read_address, what.inst);
  ctx.code_allowed = what.allow_code;
  if (what.event == MORA_POST_BB) ctx.end_address = what.end_address;
  const bool taken = call_plugins(ctx, state);
  read_address = ctx.read_address;
  return taken;
}

bool a64_scanner_deliver_callbacks(thread_data* thread, mora_event event, const std::uint32_t** read_address,
                                   std::int32_t inst, std::uint32_t** write, std::uint32_t** limit, std::int32_t bb_id,
                                   std::uint32_t fragment_type, bool allow_code, bool* stop,
                                   const std::uint32_t* end_address) {
  const auto type = static_cast<enum fragment_type>(fragment_type);
  scan_state state = {thread, bb_id, type, *read_address, *read_address, *write, *limit, *stop,
                      false,  0,     {},   false,         false,         {}};
  state.source.first = *read_address;
  if (inst != MORA_NO_INST) state.word = word_at(state.source, *read_address);
  begin_scan_events(state);
  const bool taken = deliver_scan_event(state, {event, inst, allow_code, end_address});
  end_scan_events(state);
  *read_address = event == MORA_PRE_BB ? state.bb_start : state.read;
  *write = state.write;
  *limit = state.limit;
  *stop = state.stop;
  return taken;
}

void deliver_function_event(scan_state& state, mora_event event, std::uint64_t function) {
  if (!is_event_bound(event)) return;
  mora_context ctx = context_at(state, event, reinterpret_cast<const std::uint32_t*>(function), MORA_NO_INST);
  ctx.code_allowed = true;
  call_plugins(ctx, state);  // If a callback has noted another address for the function, it is dropped here.
}

}  // namespace ceilmeter
