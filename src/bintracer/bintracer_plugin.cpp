// The callbacks. They run on the engine's stack, while the engine translates or holds its thread-list lock. So keep
// frames small, and do not wait for application threads. What they write into a block changes no register and no
// flag of the application's.
#include "bintracer/bintracer_plugin.h"

#include <sys/auxv.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "collector_config.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/bintracer/bintracer_plugin"};

constexpr std::uint32_t x0 = 0;
constexpr std::uint32_t x1 = 1;
constexpr std::uint32_t x20 = 20;
constexpr std::uint32_t x21 = 21;
constexpr std::uint32_t counter_registers = 1U << x20 | 1U << x21;

// Higher values are the negated error numbers that a failed mapping returns.
constexpr std::uint64_t highest_mapped_address = ~std::uint64_t{0} - 100;

bintracer_t::exit_callback run_at_exit = nullptr;
pid_t tracer_process = 0;

bintracer_t& tracer_of(const mora_context* ctx) { return *static_cast<bintracer_t*>(mora_get_plugin_data(ctx)); }

bintracer_thread& thread_of(const mora_context* ctx) {
  return *static_cast<bintracer_thread*>(mora_get_thread_data(ctx));
}

std::uint64_t address_of(const void* place) { return reinterpret_cast<std::uint64_t>(place); }

// The thread's record of the block that is being translated, if it has translated the same block before: code of a
// file, or generated code of the same instructions. A place that gets ever new code has a long list of them, of which
// the newest few are looked at; the records of equal blocks are put together in the end.
bb_record* find_block(const mora_context* ctx, bb_node* newest, std::uint64_t segment) {
  constexpr int most = 8;
  int seen = 0;
  for (bb_node* node = newest; node != nullptr && seen < most; node = node->older, ++seen) {
    const bool is_of_file = segment != 0;
    if ((node->record.map_seg_id != 0) != is_of_file) continue;
    const generated_code* code = node->record.code;
    if (code == nullptr || mora_block_begins_with(ctx, code->words.data(), code->words.size())) return &node->record;
  }
  return nullptr;
}

bb_record* add_block(bintracer_thread& thread, block_store::place place, std::uint64_t segment) {
  bb_record& record = thread.blocks.add(place).record;
  record.map_seg_id = segment;
  if (tool_logs_traces()) log(LEVEL_TRACE, "For basic_block with start=%lx, map_seg_id=%lx", place.start, segment);
  return &record;
}

// Keeps the translated words of a block that lies in no file.
void keep_words(const mora_context* ctx, bb_record& block) {
  const std::size_t count = (block.end - block.start) / sizeof(std::uint32_t);
  if (block.code != nullptr && block.code->words.size() == count) return;  // The words are those: see find_block.
  const std::uint32_t* words = mora_get_block_words(ctx);
  // So long a block that the engine has not kept it: what stands there now.
  if (words == nullptr) words = reinterpret_cast<const std::uint32_t*>(block.start);
  block.code = tracer_of(ctx).keep_code(block.start, words, count);
}

// Whether a path as the kernel tells it is that of memory: of memfd_create, of a shared mapping without a file, of a
// segment of shared memory. Programs that generate code map such memory twice, to write it and to run it.
bool is_memory(const std::string& path) {
  for (const char* prefix : {"/memfd:", "/dev/zero", "/dev/shm/", "/SYSV"}) {
    if (path.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

constexpr std::uint32_t adrp_x0 = 0x90000000;  // adrp x0, .

constexpr std::uint64_t page_size = 4096;  // Of ADRP, whatever the kernel's are.

// Pages from that of an ADRP to that of an address; it reaches 2^20 in either direction.
std::int64_t pages_between(const std::uint32_t* from, std::uint64_t to) {
  return static_cast<std::int64_t>(to / page_size) - static_cast<std::int64_t>(address_of(from) / page_size);
}
bool adrp_reaches(std::int64_t pages) { return pages >= -(1 << 20) && pages < 1 << 20; }

// The ADRP with its distance filled in.
std::uint32_t with_pages(std::uint32_t adrp, std::int64_t pages) {
  const auto bits = static_cast<std::uint32_t>(pages);
  return adrp | (bits & 3) << 29 | (bits >> 2 & 0x7ffff) << 5;
}

// How a word is reached behind emit_address.
struct word_access {
  std::uint32_t reg;  // Holds the address, or that of its page.
  std::uint32_t offset;
};
// The address of a word into a register, by ADRP where it reaches.
word_access emit_address(mora_context* ctx, std::uint32_t reg, std::uint64_t address) {
  if (mora_reserve_space(ctx, sizeof(std::uint32_t)) != 0) return {reg, 0};
  const std::int64_t pages = pages_between(ctx->write_p, address);
  if (!adrp_reaches(pages)) {
    mora_emit_load_const(ctx, reg, address);
    return {reg, 0};
  }
  *ctx->write_p = with_pages(adrp_x0 | reg, pages);
  mora_set_cc_addr(ctx, ctx->write_p + 1);
  return {reg, static_cast<std::uint32_t>(address % page_size)};
}

// count += enable. This always runs, with 0 outside of regions. So entering or leaving a region translates nothing
// anew, and a block that was translated outside of one counts inside.
void emit_count_if_enabled(mora_context* ctx, const bb_record& record, const bintracer_thread& thread) {
  mora_emit_save_regs(ctx, counter_registers);
  const word_access counter = emit_address(ctx, x20, address_of(&record.count));
  const word_access enable = emit_address(ctx, x21, address_of(&thread.enable_basic_block_count));
  mora_emit_ldr_offset(ctx, x20, counter.reg, counter.offset);
  mora_emit_ldr_offset(ctx, x21, enable.reg, enable.offset);
  mora_emit_add_reg(ctx, x20, x20, static_cast<std::int32_t>(x21));
  const word_access again = emit_address(ctx, x21, address_of(&record.count));
  mora_emit_str_offset(ctx, x20, again.reg, again.offset);
  mora_emit_restore_regs(ctx, counter_registers);
}

void start_roofline(const char* name, bintracer_thread* thread) {
  mora_enter_callback();
  thread->tracer->pre_start_roofline_handler(name, *thread);
  mora_leave_callback();
}

void stop_roofline(const char* name, bintracer_thread* thread) {
  mora_enter_callback();
  thread->tracer->pre_stop_roofline_handler(name, *thread);
  mora_leave_callback();
}

// A call of `handler` with the application's first argument and this thread's data. The block belongs to this one
// thread, so the data's address is a constant in it.
void emit_handler_call(mora_context* ctx, void (*handler)(const char*, bintracer_thread*)) {
  constexpr std::uint32_t arguments = 1U << x0 | 1U << x1;
  mora_emit_save_regs(ctx, arguments);
  mora_emit_load_const(ctx, x1, address_of(&thread_of(ctx)));
  mora_emit_guarded_call(ctx, handler, 2);
  mora_emit_restore_regs(ctx, arguments);
}

watch_callbacks watched_at(const mora_context* ctx) {
  return tracer_of(ctx).find_watched_function(mora_get_source_addr(ctx));
}

// Runs the function on a stack of its own, on this thread, and returns when the function does. The report needs more
// than the engine's stack of a thread has.
void call_on_own_stack(void (*function)()) {
  constexpr std::size_t stack_size = std::size_t{8} << 20;
  void* const stack =
      mmap(nullptr, stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  // Static: the two are large.
  static ucontext_t own_context;
  static ucontext_t back;
  if (stack == MAP_FAILED || getcontext(&own_context) != 0) {
    function();
    return;
  }
  own_context.uc_stack.ss_sp = stack;
  own_context.uc_stack.ss_size = stack_size;
  own_context.uc_link = &back;
  makecontext(&own_context, function, 0);
  swapcontext(&back, &own_context);
  munmap(stack, stack_size);
}

int exit_cb(mora_context* ctx) {
  // A child that the application has forked ends through the engine as well. The result belongs to the process that was
  // started: a child would overwrite it and print the closing lines into the application's output.
  if (getpid() != tracer_process) return 0;
  tracer_of(ctx).note_ending_signal(mora_get_ending_signal());
  static std::uint64_t argument;
  argument = address_of(ctx);
  call_on_own_stack([] { run_at_exit(argument, 0); });
  return 0;
}

}  // namespace

void register_callbacks(bintracer_t& tracer, bintracer_t::exit_callback on_exit) {
  run_at_exit = on_exit;
  tracer_process = getpid();
  mora_context* plugin = mora_add_plugin();
  mora_set_plugin_data(plugin, &tracer);
  function_watch_set_manual(1);
  mora_on_thread_init(plugin, thread_init_cb);
  mora_on_thread_exit(plugin, thread_exit_cb);
  mora_on_clone(plugin, clone_cb);
  mora_on_pre_bb(plugin, pre_bb_cb);
  mora_on_post_bb(plugin, post_bb_cb);
  mora_on_function_symbol(plugin, function_symbol_cb);
  mora_on_pre_function(plugin, pre_function_cb);
  mora_on_post_function(plugin, post_function_cb);
  mora_on_vm_op(plugin, vm_op_cb);
  mora_on_exit(plugin, exit_cb);
}

int thread_init_cb(mora_context* ctx) {
  // Only a process's first thread has had no clone event. In the child of a fork, what the thread counted before the
  // fork stays the parent's.
  if (mora_get_next_thread(ctx) == nullptr) mora_set_thread_data(ctx, new bintracer_thread);
  bintracer_thread& thread = thread_of(ctx);
  thread.tid = static_cast<std::uint32_t>(mora_get_thread_id(ctx));
  tracer_of(ctx).init_thread(thread);
  return 0;
}

int clone_cb(mora_context* ctx) {
  auto child = std::make_unique<bintracer_thread>();
  child->parent_tid = thread_of(ctx).tid;
  mora_set_child_thread_data(ctx, child.release());
  return 0;
}

int thread_exit_cb(mora_context* ctx) {
  bintracer_thread& thread = thread_of(ctx);
  tracer_of(ctx).finish_thread(thread);
  delete &thread;
  return 0;
}

int pre_bb_cb(mora_context* ctx) {
  bintracer_thread& thread = thread_of(ctx);
  const std::uint64_t start = mora_get_source_addr(ctx);
  if (tool_logs_traces()) {
    log(LEVEL_TRACE, "pre_bb_cb: region is %s, bb start %lx, enable_basic_block_count = %ld", thread.region.c_str(),
        start, static_cast<long>(thread.enable_basic_block_count));
  }
  // A block that is translated anew, for instance after a flush of the code cache, keeps its counter.
  bintracer_t& of_process = *thread.tracer;
  const std::uint64_t segment = of_process.search_segment(start, thread.segment);
  const block_store::place place = thread.blocks.find_place(start);
  bb_record* known = find_block(ctx, thread.blocks.newest_at(place), segment);
  thread.current_bb = known != nullptr ? known : add_block(thread, place, segment);
  if (of_process.get_mode() == MODE_TOTAL) {
    mora_count_runs(ctx, &thread.current_bb->count);  // The whole run is one region, so there is no condition.
  } else {
    emit_count_if_enabled(ctx, *thread.current_bb, thread);
  }
  return 0;
}

int post_bb_cb(mora_context* ctx) {
  bintracer_thread& thread = thread_of(ctx);
  thread.current_bb->end = mora_get_end_addr(ctx);
  if (thread.current_bb->map_seg_id == 0) keep_words(ctx, *thread.current_bb);
  if (tool_logs_traces()) {
    log(LEVEL_TRACE, "post_bb_cb: region is %s, bb start=%lx, bb end=%lx", thread.region.c_str(),
        thread.current_bb->start, thread.current_bb->end);
  }
  return 0;
}

int vm_op_cb(mora_context* ctx) {
  if (mora_get_vm_op(ctx) != VM_MAP) return 0;
  const std::uint32_t prot = mora_get_vm_prot(ctx);
  const std::uint32_t flags = mora_get_vm_flags(ctx);
  const std::int32_t fd = mora_get_vm_fd(ctx);
  bool is_code_of_file = (prot & PROT_EXEC) != 0 && (flags & MAP_ANONYMOUS) == 0;
  if (is_code_of_file && fd >= 0) {
    // The name is noted even if the mapping has failed: the descriptor has it all the same.
    // Without /proc, in a bare container for instance, no file has a name, and the application runs all the same.
    static const bool has_names = access("/proc/self/fd", F_OK) == 0;
    if (has_names) {
      std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
      is_code_of_file = !is_memory(path);
      tracer_of(ctx).register_fd_name(fd, std::move(path));
    }
  }
  const std::uint64_t begin = mora_get_vm_addr(ctx);
  if (begin > highest_mapped_address) return 0;
  static const std::uint64_t page = getauxval(AT_PAGESZ);
  const std::uint64_t size = mora_get_vm_size(ctx);
  const std::uint64_t end = begin + size + (page - size % page) % page;
  if (is_code_of_file) {
    tracer_of(ctx).register_mmap(begin, end, mora_get_vm_offset(ctx), prot, flags, fd);
  } else {
    tracer_of(ctx).register_replaced(begin, end);
  }
  return 0;
}

int function_symbol_cb(mora_context* ctx) {
  const char* name = mora_get_symbol_name(ctx);
  const watch_callbacks* callbacks = tracer_of(ctx).find_named_callbacks(name);
  if (callbacks == nullptr || std::strchr(name, '@') != nullptr) return 0;
  const std::uint64_t address = mora_get_symbol_address(ctx);
  tracer_of(ctx).add_watched_function(address, *callbacks);
  function_watch_add(address);
  return 0;
}

int pre_function_cb(mora_context* ctx) {
  const watch_callbacks watched = watched_at(ctx);
  if (watched.pre != nullptr) watched.pre(ctx, watched);
  return 0;
}

int post_function_cb(mora_context* ctx) {
  const watch_callbacks watched = watched_at(ctx);
  if (watched.post != nullptr) watched.post(ctx, watched);
  return 0;
}

int pre_dummy_func_cb(mora_context* ctx, const watch_callbacks&) {
  log(LEVEL_INFO, "pre_dummy_func_cb");
  constexpr std::uint32_t scratch = 1U << x1;
  mora_emit_save_regs(ctx, scratch);
  mora_emit_load_const(ctx, x1, 1);
  // Eight bytes, deliberately: the region interface keeps room behind its flag.
  mora_emit_str(ctx, x1, x0);
  mora_emit_restore_regs(ctx, scratch);
  return 0;
}

int pre_start_roofline_cb(mora_context* ctx, const watch_callbacks&) {
  log(LEVEL_INFO, "pre_start_roofline_cb");
  emit_handler_call(ctx, start_roofline);
  return 0;
}

int pre_stop_roofline_cb(mora_context* ctx, const watch_callbacks&) {
  log(LEVEL_INFO, "pre_stop_roofline_cb");
  emit_handler_call(ctx, stop_roofline);
  return 0;
}

}  // namespace ceilmeter
