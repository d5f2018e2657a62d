// Plug-ins that see events, count instructions, and interfere with system calls.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/plugin.h"
#include "plugin_run.h"

namespace plugin_run {

using namespace ceilmeter;

void tell(const char* name, std::uint64_t value) { std::fprintf(stderr, "%s %lu\n", name, value); }

namespace {

// events: how often each event came, and how many came with a context that cannot be.
// -----------------------------------

constexpr const char* event_names[] = {"",
                                       "pre_inst",
                                       "post_inst",
                                       "pre_bb",
                                       "post_bb",
                                       "pre_fragment",
                                       "post_fragment",
                                       "pre_syscall",
                                       "post_syscall",
                                       "thread_init",
                                       "thread_exit",
                                       "pre_function",
                                       "post_function",
                                       "exit",
                                       "vm_op",
                                       "function_symbol",
                                       "elf_load",
                                       "clone",
                                       "flush"};

std::atomic<std::uint64_t> event_counts[MORA_FLUSH + 1];
std::atomic<std::uint64_t> wrong_contexts;
std::atomic<std::uint64_t> trace_fragments;
std::uint64_t watched_address;
int thread_mark;

bool is_plausible(const mora_context* ctx) {
  switch (ctx->event) {
    case MORA_PRE_INST:
    case MORA_POST_INST:
      return mora_get_inst(ctx) == a64_decode(ctx->read_address) &&
             mora_is_cond(ctx) == (mora_get_inst(ctx) == A64_B_COND);
    case MORA_PRE_BB:
    case MORA_PRE_FRAGMENT:
      return mora_get_source_addr(ctx) != 0 && mora_get_inst(ctx) == -1 && mora_get_fragment_id(ctx) > 0;
    case MORA_POST_BB:
      // At a system call the end lies one word further than at an exit.
      return mora_get_end_addr(ctx) - mora_get_source_addr(ctx) <= 4;
    case MORA_POST_FRAGMENT: {
      // A basic block, or a part of a trace. The indices of the latter lie behind those of the blocks.
      constexpr int first_of_traces = 55000;
      const bool in_trace = mora_get_fragment_id(ctx) >= first_of_traces;
      if (in_trace) ++trace_fragments;
      return mora_get_fragment_type(ctx) <= 2 && in_trace == (mora_get_fragment_type(ctx) != 0);
    }
    case MORA_PRE_SYSCALL: return mora_get_syscall_number(ctx) < 500 && mora_get_syscall_args(ctx) != nullptr;
    case MORA_POST_SYSCALL: return mora_get_syscall_number(ctx) < 500 && mora_get_syscall_number(ctx) != SYS_exit_group;
    case MORA_THREAD_INIT:
      // The first thread finds nothing; every other one what was set for it before it started.
      if (mora_get_next_thread(ctx) == nullptr) {
        return mora_get_thread_data(ctx) == nullptr && mora_get_clone_args(ctx) == nullptr;
      }
      return mora_get_thread_data(ctx) == &thread_mark && mora_get_child_stack(ctx) != 0;
    case MORA_THREAD_EXIT: return mora_get_thread_id(ctx) > 0;
    case MORA_PRE_FUNCTION:
    case MORA_POST_FUNCTION: return mora_get_source_addr(ctx) == watched_address;
    case MORA_EXIT: return event_counts[MORA_THREAD_EXIT] == event_counts[MORA_THREAD_INIT];
    case MORA_VM_OP: return mora_get_vm_op(ctx) <= VM_PROTECT && mora_get_vm_addr(ctx) % 4096 == 0;
    case MORA_FUNCTION_SYMBOL: return mora_get_symbol_name(ctx)[0] != '\0' && mora_get_symbol_address(ctx) != 0;
    case MORA_ELF_LOAD:
      return std::strstr(mora_get_loaded_path(ctx), "ld-linux") != nullptr && mora_get_loaded_fd(ctx) > 2;
    case MORA_CLONE: return (mora_get_clone_args(ctx)[0] & 0x10000) != 0 && mora_get_child_stack(ctx) != 0;
    case MORA_FLUSH: return true;
    default: return false;
  }
}

int count_event(mora_context* ctx) {
  ++event_counts[ctx->event];
  if (!is_plausible(ctx)) {
    ++wrong_contexts;
    std::fprintf(stderr, "wrong: %s\n", event_names[ctx->event]);
  }
  if (ctx->event == MORA_CLONE) mora_set_child_thread_data(ctx, &thread_mark);
  if (ctx->event == MORA_FUNCTION_SYMBOL && std::strcmp(mora_get_symbol_name(ctx), "watched_function") == 0) {
    watched_address = mora_get_symbol_address(ctx);
    function_watch_add(watched_address);
  }
  if (ctx->event != MORA_EXIT) return 0;
  for (std::uint32_t event = 1; event <= MORA_FLUSH; ++event) tell(event_names[event], event_counts[event]);
  tell("wrong_contexts", wrong_contexts);
  tell("trace_fragments", trace_fragments);
  return 0;
}

void add_events() {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  for (std::uint32_t event = 1; event <= MORA_FLUSH; ++event) mora_bind_event(plugin, event, count_event);
}

// instructions: how many the application has executed, counted by code at each of them.
// -----------------------------------

std::uint64_t executed_instructions;

void add_instructions() {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_inst(plugin, [](mora_context* ctx) {
    return mora_emit_counter_add(ctx, reinterpret_cast<std::uint64_t>(&executed_instructions), 1);
  });
  mora_on_exit(plugin, [](mora_context*) {
    tell("instructions", executed_instructions);
    return 0;
  });
}

// system_calls: replaces some, changes others, and tries what is refused.
// --------------------------------------------------

constexpr std::uint64_t REPLACED_RESULT = 4242;
std::uint64_t refusals;

int before_call(mora_context* ctx) {
  std::uint64_t* args = mora_get_syscall_args(ctx);
  switch (mora_get_syscall_number(ctx)) {
    case SYS_getppid:
      if (mora_set_result(ctx, 1) == -1) ++refusals;  // Not skipped yet.
      mora_skip_syscall(ctx);
      mora_set_result(ctx, REPLACED_RESULT);
      break;
    case SYS_umask: mora_skip_syscall(ctx); break;  // Its result is its argument.
    case SYS_write:
      // A text of that length is cut in half.
      if (args[0] == 1 && args[2] == 20) args[2] = 10;
      break;
    default: break;
  }
  return 0;
}

int after_call(mora_context* ctx) {
  switch (mora_get_syscall_number(ctx)) {
    case SYS_getppid:
      if (mora_get_result(ctx) == REPLACED_RESULT) tell("replaced_call_told", 1);
      if (mora_skip_syscall(ctx) == -1) ++refusals;  // Too late.
      break;
    case SYS_close:  // Of a standard descriptor: handled by the engine.
      if (*mora_get_syscall_args(ctx) == 1) mora_set_result(ctx, 7);
      break;
    case SYS_getpgid: mora_set_result(ctx, 7); break;  // Made by the kernel.
    default: break;
  }
  return 0;
}

void add_system_calls() {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_syscall(plugin, before_call);
  mora_on_post_syscall(plugin, after_call);
  mora_on_exit(plugin, [](mora_context*) {
    tell("refusals", refusals);
    return 0;
  });
}

// forks: what a thread finds at its thread_init, in the process that begins and in those forked from it.
// -----------------

int forking_thread_mark;

void add_forks() {
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_thread_init(plugin, [](mora_context* ctx) {
    static const pid_t first_process = getpid();
    if (getpid() == first_process) {
      tell("thread_init", 1);
      mora_set_thread_data(ctx, &forking_thread_mark);
      return 0;
    }
    tell("thread_init_in_child", 1);
    tell("child_is_alone", mora_get_next_thread(ctx) == nullptr);
    tell("child_keeps_its_data", mora_get_thread_data(ctx) == &forking_thread_mark);
    tell("child_has_its_own_id", mora_get_thread_id(ctx) == gettid());
    return 0;
  });
}

}  // namespace

const std::vector<plugin> plugins = {{"events", add_events},
                                     {"instructions", add_instructions},
                                     {"system_calls", add_system_calls},
                                     {"forks", add_forks},
                                     {"blocks_called", add_blocks_called},
                                     {"blocks_called_by_constants", add_blocks_called_by_constants},
                                     {"watched_entries", add_watched_entries},
                                     {"watched_returns", add_watched_returns},
                                     {"watched_all", add_watched_all},
                                     {"runs", add_runs},
                                     {"runs_twice", add_runs_twice}};

}  // namespace plugin_run
