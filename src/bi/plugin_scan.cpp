// The events of a fragment under translation: callbacks that may write code, and what becomes of it.
#include "bi/a64/a64.h"
#include "bi/function_watch.h"
#include "bi/plugin_delivery.h"
#include "bi/scanner.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/plugin"};

// Where the scan's own state stands.
mora_context context_at(const scan_place& place, mora_event event, const std::uint32_t* read_address,
                        std::int32_t inst) {
  mora_context ctx{};
  ctx.thread_data = place.thread;
  ctx.event = event;
  ctx.fragment = {place.fragment_type, place.bb_id};
  ctx.read_address = read_address;
  ctx.decoded = {inst, MORA_COND_ALWAYS};
  if (inst == A64_B_COND) {
    std::uint32_t imm19 = 0;
    a64_b_cond_decode(read_address, &imm19, &ctx.decoded.cond);
  }
  ctx.write_p = *place.write;
  ctx.write_limit = *place.limit;
  ctx.stop = place.stop;
  return ctx;
}

// What a callback has asked for beside its code. True if it has taken the instruction over.
bool has_replaced(const mora_context& ctx, bool taken, bool wrote) {
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

// Calls the plug-ins one after the other, each where the one before has stopped writing.
bool call_plugins(mora_context& ctx, const scan_place& place) {
  bool taken = false;
  for (std::uint32_t plugin = 0; plugin < registered_plugins(); ++plugin) {
    const std::uint64_t callback = engine.plugins[plugin][ctx.event];
    if (callback == 0) continue;
    // More room than the scanner has left behind a system call, say.
    if (ctx.code_allowed) a64_reserve_block_space(place.thread, place.write, place.limit, MORA_CALLBACK_SPACE);
    ctx.plugin_id = plugin;
    ctx.write_p = *place.write;
    ctx.write_limit = *place.limit;
    ctx.regs_on_entry = ctx.regs_to_pop;
    ctx.replace = 0;
    const std::uint32_t* before = ctx.write_p;
    reinterpret_cast<mora_callback>(callback)(&ctx);
    if (has_replaced(ctx, taken, ctx.code_allowed && ctx.write_p != before)) taken = true;
    if (!ctx.code_allowed) continue;  // The scan's own write pointer stays where it was.
    if (ctx.regs_to_pop != 0) mora_emit_restore_regs(&ctx, ctx.regs_to_pop);
    ctx.regs_to_pop = 0;
    *place.write = ctx.write_p;
    *place.limit = ctx.write_limit;
    a64_reserve_block_space(place.thread, place.write, place.limit, EXIT_SPACE);
  }
  return taken;
}

}  // namespace

static_assert(MORA_CALLBACK_SPACE <= EXIT_SPACE);

bool scan_for_plugins(thread_data* thread, mora_event event, const std::uint32_t** read_address, std::int32_t inst,
                      std::uint32_t** write, std::uint32_t** limit, std::int32_t bb_id, std::uint32_t fragment_type,
                      bool allow_code, bool* stop, const std::uint32_t* end_address) {
  const bool is_bound = is_event_bound(event);
  const bool may_be_watched = event == MORA_PRE_BB || (event == MORA_PRE_INST && thread->return_watch.count != 0);
  if (!is_bound && !may_be_watched) return false;  // As at most instructions: not worth a lock.
  const scan_place place = {thread, bb_id, fragment_type, write, limit, stop};
  mora_enter_callback();
  if (event == MORA_PRE_BB) put_function_entry(place, *read_address);
  if (event == MORA_PRE_INST) put_function_return(place, *read_address);
  bool taken = false;
  if (is_bound) {
    mora_context ctx = context_at(place, event, *read_address, inst);
    ctx.code_allowed = allow_code;
    if (event == MORA_POST_BB) ctx.end_address = end_address;
    taken = call_plugins(ctx, place);
    *read_address = ctx.read_address;
  }
  mora_leave_callback();
  return taken;
}

void deliver_function_event(const scan_place& place, mora_event event, std::uint64_t function) {
  if (!is_event_bound(event)) return;
  mora_context ctx = context_at(place, event, reinterpret_cast<const std::uint32_t*>(function), MORA_NO_INST);
  ctx.code_allowed = true;
  call_plugins(ctx, place);  // Another address for the function, if a callback has noted one, ends here.
}

}  // namespace ceilmeter
