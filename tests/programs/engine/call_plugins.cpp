// Plug-ins that call functions of theirs from the application's blocks, and that watch the application's functions.
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <set>
#include <string>

#include "bi/plugin.h"
#include "plugin_run.h"

namespace plugin_run {

using namespace ceilmeter;

namespace {

// blocks_called: a function that leaves nothing of the machine's state as it was, at each block.
// --------------------------

std::uint64_t calls;
std::uint64_t wrong_arguments;
std::uint64_t call_with_signal;  // The number of the call that raises one; 0: none.

// Changes whatever a C function may change: the caller-saved registers, the vector state with its status and mode, and
// the flags.
void spoil() {
  if (++calls == call_with_signal) syscall(SYS_tgkill, getpid(), gettid(), SIGUSR1);
  asm volatile(
      "movi v0.16b, #0x55\n\tmovi v1.16b, #0x55\n\tmovi v2.16b, #0x55\n\tmovi v3.16b, #0x55\n\t"
      "movi v4.16b, #0x55\n\tmovi v5.16b, #0x55\n\tmovi v6.16b, #0x55\n\tmovi v7.16b, #0x55\n\t"
      "movi v8.16b, #0x55\n\tmovi v9.16b, #0x55\n\tmovi v10.16b, #0x55\n\tmovi v11.16b, #0x55\n\t"
      "movi v12.16b, #0x55\n\tmovi v13.16b, #0x55\n\tmovi v14.16b, #0x55\n\tmovi v15.16b, #0x55\n\t"
      "movi v16.16b, #0x55\n\tmovi v17.16b, #0x55\n\tmovi v18.16b, #0x55\n\tmovi v19.16b, #0x55\n\t"
      "movi v20.16b, #0x55\n\tmovi v21.16b, #0x55\n\tmovi v22.16b, #0x55\n\tmovi v23.16b, #0x55\n\t"
      "movi v24.16b, #0x55\n\tmovi v25.16b, #0x55\n\tmovi v26.16b, #0x55\n\tmovi v27.16b, #0x55\n\t"
      "movi v28.16b, #0x55\n\tmovi v29.16b, #0x55\n\tmovi v30.16b, #0x55\n\tmovi v31.16b, #0x55\n\t"
      "mov x0, #0x5555\n\tmov x1, x0\n\tmov x2, x0\n\tmov x3, x0\n\tmov x4, x0\n\tmov x5, x0\n\tmov x6, x0\n\t"
      "mov x7, x0\n\tmov x8, x0\n\tmov x9, x0\n\tmov x10, x0\n\tmov x11, x0\n\tmov x12, x0\n\tmov x13, x0\n\t"
      "mov x14, x0\n\tmov x15, x0\n\tmov x16, x0\n\tmov x17, x0\n\tmov x18, x0\n\t"
      "mov x0, #0x8f\n\tmsr fpsr, x0\n\t"
      "cmp x0, x0"
      :
      :
      : "x0", "x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10", "x11", "x12", "x13", "x14", "x15", "x16",
        "x17", "x18", "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12", "v13", "v14",
        "v15", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30",
        "v31", "cc", "memory");
}

void spoil_with(std::uint64_t a, std::uint64_t b, std::uint64_t c, std::uint64_t d, std::uint64_t e, std::uint64_t f,
                std::uint64_t g, std::uint64_t h) {
  const bool as_given = a == 0 && b == 0x1234 && c == 0x12340000 && d == ~std::uint64_t{0} && e == 5 && f == 6 &&
                        g == 7 && h == 0x8000000000000000;
  if (!as_given) ++wrong_arguments;
  // In the default mode, whatever mode the application is in.
  std::uint64_t mode = 0;
  asm volatile("mrs %0, fpcr" : "=r"(mode));
  if (mode != 0) ++wrong_arguments;
  spoil();
}

// An application that asks for its parent gets a signal some blocks later.
int arm_signal(mora_context* ctx) {
  constexpr std::uint64_t some_blocks = 1000;
  if (mora_get_syscall_number(ctx) == SYS_getppid) call_with_signal = calls + some_blocks;
  return 0;
}

int tell_calls(mora_context*) {
  tell("calls", calls);
  tell("wrong_arguments", wrong_arguments);
  return 0;
}

// Watched functions.
// --------------------------------------------------------------------------------------------------------

constexpr std::size_t WATCHES_MAX = 2000;

std::uint64_t entries;
std::uint64_t returns;
std::uint64_t recursive_entries;
std::uint64_t recursive_returns;
std::uint64_t told_returns;
std::uint64_t recursive_function;
std::set<std::string> watched_names;

// Leaves out functions that look at their return address or do not return in the usual way. What runs before the
// library can be called at all is not told apart either.
bool is_watchable(const char* name) {
  constexpr const char* parts[] = {"setjmp",  "longjmp", "context",    "exit",   "Exit",     "abort",
                                   "vfork",   "clone",   "start_main", "_start", "main",     "backtrace",
                                   "unwind",  "Unwind",  "dl",         "_init",  "_fini",    "cancel",
                                   "cleanup", "thread",  "thrd",       "raise",  "sigreturn"};
  for (const char* part : parts) {
    if (std::strstr(name, part) != nullptr) return false;
  }
  return true;
}

int watch_symbol(mora_context* ctx) {
  const char* name = mora_get_symbol_name(ctx);
  if (std::strcmp(name, "recursive_function") == 0) {
    recursive_function = mora_get_symbol_address(ctx);
  } else if (watched_names.size() >= WATCHES_MAX || !is_watchable(name) || !watched_names.insert(name).second) {
    return 0;
  }
  function_watch_add_named(mora_get_symbol_address(ctx), name);
  return 0;
}

int count_entry(mora_context* ctx) {
  const bool is_recursive = mora_get_source_addr(ctx) == recursive_function;
  return mora_emit_counter_add(ctx, reinterpret_cast<std::uint64_t>(is_recursive ? &recursive_entries : &entries), 1);
}

int count_return(mora_context* ctx) {
  const bool is_recursive = mora_get_source_addr(ctx) == recursive_function;
  return mora_emit_counter_add(ctx, reinterpret_cast<std::uint64_t>(is_recursive ? &recursive_returns : &returns), 1);
}

int tell_watches(mora_context*) {
  tell("watched", watched_names.size());
  tell("entries", entries);
  tell("returns", returns);
  tell("recursive_entries", recursive_entries);
  tell("recursive_returns", recursive_returns);
  tell("told_returns", told_returns);
  return 0;
}

void add_watched(mora_callback on_return) {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_function_symbol(plugin, watch_symbol);
  mora_on_pre_function(plugin, count_entry);
  if (on_return != nullptr) mora_on_post_function(plugin, on_return);
  mora_on_exit(plugin, tell_watches);
}

}  // namespace

void add_blocks_called() {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, [](mora_context* ctx) { return mora_emit_guarded_call(ctx, spoil, 0); });
  mora_on_pre_syscall(plugin, arm_signal);
  mora_on_exit(plugin, tell_calls);
}

void add_blocks_called_by_constants() {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, [](mora_context* ctx) {
    return mora_emit_guarded_call_args(ctx, spoil_with, 8, 0, 0x1234, 0x12340000, -1, 5u, 6l, 7ul, 0x8000000000000000);
  });
  mora_on_exit(plugin, tell_calls);
}

// Returns without code: the entry code goes with the first one.
void add_watched_entries() {
  add_watched([](mora_context*) {
    ++told_returns;
    return 0;
  });
}

void add_watched_returns() { add_watched(count_return); }

// Every function that there is, by the engine's own choice.
void add_watched_all() {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_function(plugin, count_entry);
  mora_on_exit(plugin, tell_watches);
}

}  // namespace plugin_run
