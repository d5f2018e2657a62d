// A thread of the engine without an application. The tests look at what plug-ins are told and what they write; none of
// it is run.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "bi/code/code_cache.h"
#include "bi/plugins/function_watch.h"
#include "bi/mora.h"
#include "bi/plugin.h"
#include "bi/plugins/plugin_delivery.h"

namespace ceilmeter::test {

using words = std::vector<std::uint32_t>;

class plugin_test : public testing::Test {
 protected:
  plugin_test() {
    engine = {};
    owned_lock_init(&engine.thread_list_lock);
    owned_lock_init(&engine.function_watch_lock);
    robin_map_init(&engine.function_watches, sizeof(function_watch));
    if (!allocate_thread_data(&thread)) throw std::runtime_error("no memory for a thread");
    current_thread = thread;
    init_thread(thread);
    thread->tid = 77;
  }
  ~plugin_test() override {
    current_thread = nullptr;
    free_thread_data(thread);
    robin_map_destroy(&engine.function_watches);
  }

  // A context in the middle of a scan, at the start of a block of its own.
  mora_context scan_context(mora_event event = MORA_PRE_BB) {
    mora_context ctx{};
    ctx.thread_data = thread;
    ctx.event = event;
    ctx.decoded = {MORA_NO_INST, MORA_COND_ALWAYS};
    ctx.write_p = block(allocate_bb(thread));
    ctx.write_limit = ctx.write_p + BB_SIZE / 4;
    ctx.stop = &stop;
    ctx.code_allowed = true;
    return ctx;
  }

  // The context of a record that has no cache.
  static void munmap_record(thread_data* record) {
    if (munmap(record, sizeof(thread_data)) != 0) throw std::runtime_error("cannot unmap a thread's record");
  }

  std::uint32_t* block(std::int32_t index) {
    return reinterpret_cast<std::uint32_t*>(thread->code_cache +
                                            std::size_t{BB_SIZE} * static_cast<std::size_t>(index));
  }

  thread_data* thread = nullptr;
  bool stop = false;
};

}  // namespace ceilmeter::test
