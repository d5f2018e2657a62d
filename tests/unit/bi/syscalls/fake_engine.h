// Stand-ins for what the handlers of system calls use of the engine, and what the tests see of their use.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "bi/mora.h"
#include "bi/code/stub_layout.h"
#include "bi/kernel/syscalls.h"

namespace ceilmeter::test {

// What the stand-ins of mora_terminate and abandon_thread throw instead of ending something.
struct process_ended {
  std::int32_t status;
};
struct thread_abandoned {};

struct pthread_attributes {
  std::size_t stack_size;
  std::size_t guard_size;
  int detach_state;
  int scheduling;
};

struct fake_engine_state {
  std::uint64_t page;  // What page_size tells.
  int flushes;
  thread_data* flushed;  // The last one.
  int threads_registered;
  int records_freed;
  bool refuses_record;                  // allocate_thread_data fails.
  const char* missing_memory;           // What try_init_thread could not map.
  int pthread_create_error;             // What pthread_create returns if not 0.
  pthread_attributes given_attributes;  // To the last pthread_create.
  bool signal_is_deliverable;           // What has_deliverable_signal tells.
  std::uint64_t redirect_target;        // Of the last context_redirect_to_dispatcher.
  void* redirect_context;
  void (*thread_body)(const std::uint64_t* entry);  // What a new thread runs in place of its first block.
};
extern fake_engine_state fake;

// The block that the stand-in of lookup_or_scan finds for a source address.
constexpr std::uint64_t cache_of(std::uint64_t source) { return source + 0x10000000; }

// A thread of the application, with the save area of a system call on its stack.
class syscalls_test : public testing::Test {
 protected:
  syscalls_test();
  ~syscalls_test() override;

  // Sets the call's arguments in the save area; the others are 0.
  std::uint64_t* with_args(const std::vector<std::uint64_t>& values);
  // syscall_handler_pre for a call that is expected to be handled: its result.
  std::int64_t handled(std::uint64_t number, const std::vector<std::uint64_t>& values);
  // The same for one that the stub is to make.
  void expect_made(std::uint64_t number, const std::vector<std::uint64_t>& values);

  static constexpr std::uint64_t next_inst = 0x5555000040;

  // The wrapper's frame, which begins with q0, and behind it the application's stack.
  alignas(16) std::uint8_t frame[SYSCALL_FRAME_SIZE + 256];
  std::uint64_t* args;
  thread_data* thread;
};

bool is_readable_memory(std::uint64_t address);
// The rights of the mapping that holds the address, such as "r--p"; empty if there is none.
std::string permissions_at(std::uint64_t address);
std::int64_t resident_kib();
std::int64_t mapped_kib();  // Of memory that can be read: heaps reserve address space.
bool is_emulated();         // By the user-mode emulator, which has no robust lists.
int open_descriptors();
int live_threads();

}  // namespace ceilmeter::test
