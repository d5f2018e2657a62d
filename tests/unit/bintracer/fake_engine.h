// The engine's place in the tracer's tests. It keeps what is registered, makes contexts, and records in words what the
// tracer emits.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "bi/plugin.h"
#include "bintracer/bintracer.h"
#include "collector_config.h"

namespace ceilmeter {

// The engine's record of a thread is opaque to the tracer. Here it has what the tests need.
struct thread_data {
  void* plugin_data = nullptr;
  std::int32_t tid = 0;
  const thread_data* next = nullptr;
};

namespace test {

struct fake_engine {
  std::map<std::uint32_t, mora_callback> callbacks;  // By event, of the one plug-in.
  std::vector<std::string> calls;                    // Registration, in order.
  std::vector<std::uint64_t> watched;                // Addresses given to function_watch_add.
  std::vector<std::string> emitted;
  // The words of blocks, by their start. A block that is not here has zeros.
  std::map<std::uint64_t, std::vector<std::uint32_t>> memory;
  std::vector<std::uint32_t> block_words;  // Of the block that is delivered.
  void* plugin_data = nullptr;             // Of the one plug-in.
  int plugins = 0;
  int run_calls = 0;
  // Where a block's code is written, of room for a page. Null: nowhere near anything else.
  std::uint32_t* code = nullptr;
  std::vector<std::uint32_t> words;  // What was written there by itself, not by a service.

  // Delivers an event that carries nothing but the thread.
  void deliver(mora_event event, thread_data& thread);
  void deliver_clone(thread_data& parent, thread_data& child);
  // Delivers the events of a block's translation. `emitted` holds what was written into the block.
  void deliver_block(thread_data& thread, std::uint64_t start, std::uint64_t end);
  void deliver_function(mora_event event, thread_data& thread, std::uint64_t address);
  void deliver_symbol(const char* name, std::uint64_t address);
  void deliver_vm_op(vm_op op, std::uint64_t addr, std::uint64_t size, std::uint32_t prot, std::uint32_t flags,
                     std::int32_t fd, std::uint64_t offset);
};

fake_engine& engine();

// A tracer of this mode in the place of the one before, and a fresh engine under it.
bintracer_t& start_tracer(std::uint32_t mode);

// The calls of the tracer's exit callback.
struct finish_record {
  int calls = 0;
};
finish_record& finishes();
std::uint64_t note_finish(std::uint64_t, std::uint64_t);

inline bintracer_thread& tracer_thread(const thread_data& thread) {
  return *static_cast<bintracer_thread*>(thread.plugin_data);
}

}  // namespace test
}  // namespace ceilmeter
