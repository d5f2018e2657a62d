// The engine of the tracer's tests.
#include "fake_engine.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>

namespace ceilmeter {

namespace test {

namespace {

void call(std::uint32_t event, mora_context& ctx) {
  ctx.event = event;
  const auto callback = engine().callbacks.find(event);
  if (callback != engine().callbacks.end()) callback->second(&ctx);
}

[[gnu::format(printf, 1, 2)]] void emit(const char* format, ...) {
  char text[100];
  std::va_list values;
  va_start(values, format);
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  engine().emitted.emplace_back(text);
}

}  // namespace

fake_engine& engine() {
  static fake_engine only;
  return only;
}

finish_record& finishes() {
  static finish_record only;
  return only;
}

std::uint64_t note_finish(std::uint64_t, std::uint64_t) {
  ++finishes().calls;
  return 0;
}

bintracer_t& start_tracer(std::uint32_t mode) {
  static std::unique_ptr<bintracer_t> tracer;
  tracer.reset();
  engine() = {};
  finishes() = {};
  tracer = std::make_unique<bintracer_t>(note_finish, mode);
  return *tracer;
}

void fake_engine::deliver(mora_event event, thread_data& thread) {
  mora_context ctx{};
  ctx.thread_data = &thread;
  call(event, ctx);
}

void fake_engine::deliver_clone(thread_data& parent, thread_data& child) {
  mora_context ctx{};
  ctx.thread_data = &parent;
  ctx.child_plugin_thread_data = &child.plugin_data;
  call(MORA_CLONE, ctx);
}

void fake_engine::deliver_block(thread_data& thread, std::uint64_t start, std::uint64_t end) {
  emitted.clear();
  block_words = memory[start];
  block_words.resize((end - start) / 4);
  mora_context ctx{};
  ctx.thread_data = &thread;
  ctx.read_address = reinterpret_cast<const std::uint32_t*>(start);
  // Half the address space away from what programs have mapped. Nobody writes there: the services write words down.
  std::uint32_t* const nowhere = reinterpret_cast<std::uint32_t*>(std::uint64_t{1} << 62);
  ctx.write_p = code != nullptr ? code : nowhere;
  const std::uint32_t* const begin = ctx.write_p;
  call(MORA_PRE_BB, ctx);
  words.assign(begin, static_cast<const std::uint32_t*>(ctx.write_p));
  ctx.end_address = reinterpret_cast<const std::uint32_t*>(end);
  call(MORA_POST_BB, ctx);
}

void fake_engine::deliver_function(mora_event event, thread_data& thread, std::uint64_t address) {
  emitted.clear();
  mora_context ctx{};
  ctx.thread_data = &thread;
  ctx.read_address = reinterpret_cast<const std::uint32_t*>(address);
  call(event, ctx);
}

void fake_engine::deliver_symbol(const char* name, std::uint64_t address) {
  mora_context ctx{};
  ctx.name = name;
  ctx.address = address;
  ctx.size = 16;
  call(MORA_FUNCTION_SYMBOL, ctx);
}

void fake_engine::deliver_vm_op(vm_op op, std::uint64_t addr, std::uint64_t size, std::uint32_t prot,
                                std::uint32_t flags, std::int32_t fd, std::uint64_t offset) {
  mora_context ctx{};
  ctx.op = op;
  ctx.addr = addr;
  ctx.size = size;
  ctx.mapping = {prot, flags};
  ctx.fd = fd;
  ctx.offset = offset;
  call(MORA_VM_OP, ctx);
}

}  // namespace test

// The engine's functions that the tracer uses.

int mora_run(int, char**, char**) {
  ++test::engine().run_calls;
  return -1;
}

mora_context* mora_add_plugin() {
  static mora_context registration;
  registration = {};
  ++test::engine().plugins;
  test::engine().calls.emplace_back("add_plugin");
  return &registration;
}

int mora_bind_event(mora_context*, std::uint32_t event, mora_callback fn) {
  test::engine().callbacks[event] = fn;
  test::engine().calls.push_back("event " + std::to_string(event));
  return 0;
}

int mora_set_plugin_data(mora_context*, void* data) {
  test::engine().plugin_data = data;
  return 0;
}

void* mora_get_plugin_data(const mora_context*) { return test::engine().plugin_data; }

int mora_set_thread_data(mora_context* ctx, void* data) {
  ctx->thread_data->plugin_data = data;
  return 0;
}

void* mora_get_thread_data(const mora_context* ctx) { return ctx->thread_data->plugin_data; }

int mora_set_child_thread_data(mora_context* ctx, void* data) {
  *ctx->child_plugin_thread_data = data;
  return 0;
}

std::int32_t mora_get_thread_id(const mora_context* ctx) { return ctx->thread_data->tid; }
std::int32_t mora_get_ending_signal() { return 0; }

const thread_data* mora_get_next_thread(const mora_context* ctx) { return ctx->thread_data->next; }

bool mora_block_begins_with(const mora_context*, const std::uint32_t* words, std::size_t count) {
  const std::vector<std::uint32_t>& block = test::engine().block_words;
  return count <= block.size() && std::equal(words, words + count, block.begin());
}

const std::uint32_t* mora_get_block_words(const mora_context*) { return test::engine().block_words.data(); }

int function_watch_add(std::uint64_t address) {
  test::engine().watched.push_back(address);
  return 1;
}

std::uint32_t function_watch_set_manual(std::uint32_t flag) {
  test::engine().calls.push_back("manual " + std::to_string(flag));
  return 0;
}

void function_symbol_only(const char* name) { test::engine().calls.push_back("only " + std::string(name)); }

int mora_reserve_space(mora_context*, std::uint32_t) { return 0; }

int mora_count_runs(mora_context*, std::uint64_t* counter) {
  test::emit("count %lx", reinterpret_cast<unsigned long>(counter));
  return 0;
}

int mora_emit_save_regs(mora_context*, std::uint32_t mask) {
  test::emit("save %x", mask);
  return 0;
}

int mora_emit_restore_regs(mora_context*, std::uint32_t mask) {
  test::emit("restore %x", mask);
  return 0;
}

int mora_emit_load_const(mora_context*, std::uint32_t reg, std::uint64_t value) {
  test::emit("x%u = %lx", reg, value);
  return 0;
}

int mora_emit_ldr_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm) {
  if (imm == 0) return mora_emit_ldr(ctx, rt, rn);
  test::emit("ldr x%u, [x%u, #%u]", rt, rn, imm);
  return 0;
}

int mora_emit_str_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm) {
  if (imm == 0) return mora_emit_str(ctx, rt, rn);
  test::emit("str x%u, [x%u, #%u]", rt, rn, imm);
  return 0;
}

int mora_emit_ldr(mora_context*, std::uint32_t rt, std::uint32_t rn) {
  test::emit("ldr x%u, [x%u]", rt, rn);
  return 0;
}

int mora_emit_str(mora_context*, std::uint32_t rt, std::uint32_t rn) {
  test::emit("str x%u, [x%u]", rt, rn);
  return 0;
}

int mora_emit_add_imm(mora_context*, std::uint32_t rd, std::uint32_t rn, std::int32_t imm) {
  test::emit("add x%u, x%u, #%d", rd, rn, imm);
  return 0;
}

int mora_emit_add_reg(mora_context*, std::uint32_t rd, std::uint32_t rn, std::int32_t rm) {
  test::emit("add x%u, x%u, x%d", rd, rn, rm);
  return 0;
}

// The tests call the region handlers directly, not through code.
void mora_enter_callback() {}
void mora_leave_callback() {}

int mora_emit_guarded_call(mora_context*, std::uint64_t fn, std::uint32_t nargs) {
  test::emit("call %lx with %u", fn, nargs);
  return 0;
}

}  // namespace ceilmeter
