// The kernel reads a copy of the mask; each thread has one. A signal's handler that interrupts such a call may make
// another one: the first call's argument has been given back by then.
#include "bi/kernel/call_mask.h"

#include <sys/syscall.h>

#include "bi/kernel/memory_probe.h"

namespace ceilmeter {

namespace {

bool find_mask(std::uint64_t number, mask_place* out) {
  for (const mask_place& place : mask_places) {
    if (place.number != number) continue;
    *out = place;
    return true;
  }
  return false;
}

}  // namespace

void read_mask_of_call(std::uint64_t number, const std::uint64_t* args, std::uint64_t* mask) {
  mask_place place{};
  number = static_cast<std::uint32_t>(number);
  if (number == SYS_rt_sigprocmask || !find_mask(number, &place)) return;
  std::uint64_t address = args[place.argument];
  if (place.is_pair && !read_word(address, &address)) return;
  read_word(address, mask);
}

void replace_call_mask(thread_data* thread, std::uint64_t number, std::uint64_t* args) {
  mask_place place{};
  if (!find_mask(number, &place)) return;
  std::uint64_t address = args[place.argument];
  std::uint64_t size = 0;
  if (place.is_pair && (!read_word(address + sizeof address, &size) || !read_word(address, &address))) return;
  std::uint64_t mask = 0;
  if (!read_word(address, &mask) || (mask & SIGILL_BIT) == 0) return;
  thread->call_mask = mask & ~SIGILL_BIT;
  thread->call_mask_pair[0] = address_of(&thread->call_mask);
  thread->call_mask_pair[1] = size;
  thread->replaced_original = args[place.argument];
  thread->replaced_argument = place.argument + 1;
  args[place.argument] = place.is_pair ? address_of(thread->call_mask_pair) : thread->call_mask_pair[0];
}

void restore_replaced_argument(thread_data* thread, std::uint64_t* registers, std::uint32_t first) {
  const std::uint32_t argument = thread->replaced_argument - 1;
  thread->replaced_argument = 0;
  if (argument >= first) registers[argument] = thread->replaced_original;
}

}  // namespace ceilmeter
