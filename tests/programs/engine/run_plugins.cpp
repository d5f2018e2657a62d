// Plug-ins that count the runs of blocks by the engine's service.
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "bi/plugin.h"
#include "plugin_run.h"

namespace plugin_run {

using namespace ceilmeter;

namespace {

// runs: how many instructions and blocks the application has executed, and a number that depends on the count of each
// block. With RUNS_BLOCKS in the environment also each block's count. The children of forks tell their own numbers,
// with what their parents have counted before.
// -----------------------------------

struct block_runs {
  std::uint64_t count = 0;
  std::uint64_t inline_count = 0;  // By code of the plug-in's own, of runs_twice.
  std::uint64_t words = 0;
};

struct thread_runs {
  std::map<std::uint64_t, block_runs> blocks;
  block_runs* current = nullptr;
  std::uint64_t current_start = 0;
};

std::map<std::uint64_t, std::uint64_t> counts;  // By the block's address, of the threads that have ended.
std::uint64_t instructions;
std::uint64_t differences;
std::mutex counts_mutex;
bool counts_twice = false;
pid_t first_process = 0;

thread_runs& runs_of(const mora_context* ctx) { return *static_cast<thread_runs*>(mora_get_thread_data(ctx)); }

int begin_thread(mora_context* ctx) {
  // The child of a fork keeps its data: it goes on counting from there.
  if (mora_get_thread_data(ctx) == nullptr) mora_set_thread_data(ctx, new thread_runs);
  return 0;
}

int begin_block(mora_context* ctx) {
  thread_runs& runs = runs_of(ctx);
  runs.current_start = mora_get_source_addr(ctx);
  runs.current = &runs.blocks[runs.current_start];
  if (mora_count_runs(ctx, &runs.current->count) != 0) std::abort();
  if (counts_twice) mora_emit_counter_add(ctx, reinterpret_cast<std::uint64_t>(&runs.current->inline_count), 1);
  return 0;
}

int end_block(mora_context* ctx) {
  const thread_runs& runs = runs_of(ctx);
  runs.current->words = (mora_get_end_addr(ctx) - runs.current_start) / 4;
  return 0;
}

int end_thread(mora_context* ctx) {
  const std::unique_ptr<thread_runs> runs(&runs_of(ctx));
  const std::lock_guard lock(counts_mutex);
  for (const auto& [start, block] : runs->blocks) {
    counts[start] += block.count;
    instructions += block.count * block.words;
    if (counts_twice && block.count != block.inline_count) ++differences;
  }
  return 0;
}

int tell_runs(mora_context*) {
  const std::string whose = getpid() == first_process ? "" : "child_";
  std::uint64_t blocks = 0;
  std::uint64_t digest = 14695981039346656037U;
  const auto mix = [&digest](std::uint64_t value) { digest = (digest ^ value) * 1099511628211U; };
  const bool tells_blocks = std::getenv("RUNS_BLOCKS") != nullptr;
  for (const auto& [start, count] : counts) {
    if (count == 0) continue;
    blocks += count;
    mix(start);
    mix(count);
    if (tells_blocks) tell((whose + "block " + std::to_string(start)).c_str(), count);
  }
  tell((whose + "instructions").c_str(), instructions);
  tell((whose + "blocks").c_str(), blocks);
  tell((whose + "digest").c_str(), digest);
  if (counts_twice) tell((whose + "differences").c_str(), differences);
  return 0;
}

}  // namespace

void add_runs() {
  first_process = getpid();
  function_watch_set_manual(1);
  mora_context* plugin = mora_add_plugin();
  mora_on_thread_init(plugin, begin_thread);
  mora_on_clone(plugin, [](mora_context* ctx) { return mora_set_child_thread_data(ctx, new thread_runs); });
  mora_on_pre_bb(plugin, begin_block);
  mora_on_post_bb(plugin, end_block);
  mora_on_thread_exit(plugin, end_thread);
  mora_on_exit(plugin, tell_runs);
}

void add_runs_twice() {
  counts_twice = true;
  add_runs();
}

}  // namespace plugin_run
