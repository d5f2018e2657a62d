// maintain_caches.S does the maintenance. Whether a processor wants it, and the sizes of lines, are CTR_EL0's. A kernel
// that knows better traps the reads of the register and answers in the processor's place: where processors differ, with
// what is right for all of them; for a core whose instruction cache does not see what it should, without DIC, and with
// lines of a page, because it also traps each invalidation there. Such a core is never added to a running kernel that
// has told otherwise, so one read is as good as many.
#include "bi/code/written_code.h"

#include <atomic>

#include "bi/code/code_words.h"
#include "bi/mora.h"

namespace ceilmeter {

extern "C" void maintain_caches(const written_range* ranges, std::size_t count, std::uint64_t cache_type);

namespace {

std::uint64_t read_cache_type() {
  std::uint64_t value = 0;
  asm volatile("mrs %0, ctr_el0" : "=r"(value));
  return value;
}

// Bit 31 of the register is always set: 0 means that it was not read yet.
std::uint64_t cache_type() {
  static std::atomic<std::uint64_t> known{0};
  // Relaxed: each thread would store the same.
  std::uint64_t value = known.load(std::memory_order_relaxed);
  if (value == 0) {
    value = read_cache_type();
    known.store(value, std::memory_order_relaxed);
  }
  return value;
}

}  // namespace

void clear_instruction_cache(const void* begin, const void* end) {
  const written_range range = {address_of(begin), address_of(end)};
  maintain_caches(&range, 1, cache_type());
}

// Not inline: note_written mostly does without it, and then needs no frame.
[[gnu::noinline]] void maintain_written(written_code& written) {
  maintain_caches(written.ranges, written.count, cache_type());
  written.count = 0;
}

namespace {

void add_range(written_code& written, const void* begin, const void* end) {
  written.ranges[written.count++] = {address_of(begin), address_of(end)};
  if (written.defers == 0) maintain_written(written);
}

// Apart from the other way, which needs no frame then.
[[gnu::noinline]] void maintain_and_add(written_code& written, const void* begin, const void* end) {
  maintain_written(written);
  add_range(written, begin, end);
}

}  // namespace

void note_written(written_code& written, const void* begin, const void* end) {
  if (written.count == written_code::MOST) return maintain_and_add(written, begin, end);
  add_range(written, begin, end);
}

}  // namespace ceilmeter
