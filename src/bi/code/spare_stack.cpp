#include "bi/code/spare_stack.h"

#include <initializer_list>

#include "bi/kernel/memory_probe.h"

namespace ceilmeter {

namespace {

// What the engine's own code pushes at most, at a plug-in's call.
constexpr std::uint64_t ROOM = 64;

}  // namespace

std::uint64_t spare_stack_end(const thread_data* thread) { return address_of(thread->spare_stack) + SPARE_STACK_SIZE; }

void begin_spare_stack(thread_data* thread, std::uint64_t stack_pointer) {
  thread->untouched_sp = 0;  // Nothing below the stack pointer is written any more.
  thread->spare_for_sp = stack_pointer;
  // There is no room: a push has just faulted. An answer of the kernel's to the contrary, as with memory that is
  // filled on demand, is believed a few blocks later, so that the thread gets on.
  thread->asked_sp = stack_pointer;
  thread->blocks_at_end = 0;
}

bool still_needs_spare_stack(thread_data* thread) {
  constexpr std::uint32_t most_blocks = 64;
  const std::uint64_t sp = thread->spare_for_sp;
  if (sp == thread->asked_sp && ++thread->blocks_at_end < most_blocks) return true;
  thread->asked_sp = sp;
  thread->blocks_at_end = 0;
  return !is_writable(sp - ROOM) || !is_writable(sp - sizeof(std::uint64_t));
}

std::uint64_t application_sp(const thread_data* thread, std::uint64_t sp) {
  return uses_spare_stack(thread) ? thread->spare_for_sp : sp + kept_below_sp(thread);
}

std::uint64_t sp_between_blocks(thread_data* thread, std::uint64_t stack_pointer) {
  if (!uses_spare_stack(thread)) return stack_pointer - kept_below_sp(thread);
  thread->spare_for_sp = stack_pointer;
  return spare_stack_end(thread);
}

void leave_own_blocks(thread_data* thread) {
  thread->untouched_sp = 0;
  thread->spare_for_sp = 0;
  thread->resumed = {};
}

bool has_own_key(const thread_data* thread, const bb_meta& block) {
  for (const std::uint64_t key : {NEW_THREAD_KEY, SPARE_STACK_KEY, RESUMED_KEY, RESUMED_START_KEY}) {
    if (hash_lookup(&thread->entry_table.table, block.source_addr | key) == block.cache_entry) return true;
  }
  return false;
}

}  // namespace ceilmeter
