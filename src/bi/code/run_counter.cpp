#include "bi/code/run_counter.h"

#include <bit>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_words.h"
#include "bi/code/code_writer.h"
#include "bi/code/exit_branch.h"
#include "bi/code/traces.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t MOST_WORDS_BEFORE_CALL = 10;  // The entry word, and the counter's up to the call.

// Written for each block: whole words cost less than the encoders.
void put_counter(const thread_data* asking, std::uint32_t** write, const std::uint64_t* counter) {
  constexpr std::uint32_t push_x1_x30 = 0xa9bf7be1;  // stp x1, x30, [sp, #-16]!
  constexpr std::uint32_t load_count = 0xf940003e;   // ldr x30, [x1]
  constexpr std::uint32_t count_up = 0x910007de;     // add x30, x30, #1
  constexpr std::uint32_t skip_if_0 = 0x3600005e;    // tbz w30, #0, .+8; tbnz has another bit
  constexpr std::uint32_t store_count = 0xf900003e;  // str x30, [x1]
  constexpr std::uint32_t pop_x1_x30 = 0xa8c17be1;   // ldp x1, x30, [sp], #16
  constexpr int offset_shift = 10 - 3;               // The offset counts words of 8 bytes.
  constexpr int sense_shift = 24;
  constexpr int bit_shift = 19;
  std::uint32_t* word = *write;
  *word++ = push_x1_x30;
  const std::uint32_t offset = a64_load_page(&word, x1.number, address_of(counter)) << offset_shift;
  *word++ = load_count | offset;
  *word++ = count_up;
  if (asking != nullptr) {
    const std::uint32_t bit = hot_bit();
    *word++ = skip_if_0 | static_cast<std::uint32_t>(*counter >> bit & 1) << sense_shift | bit << bit_shift;
    a64_bl(word++, asking->hot_counter_stub_addr);
  }
  *word++ = store_count | offset;
  *word++ = pop_x1_x30;
  *write = word;
}

}  // namespace

std::uint32_t hot_bit() {
  constexpr std::uint32_t bit_of_256 = 8;
  const std::uint32_t runs = trace_options.hot_mark;
  return runs == 0 ? bit_of_256 : static_cast<std::uint32_t>(std::bit_width(runs - 1));
}

void put_run_counter(std::uint32_t** write, const std::uint64_t* counter) { put_counter(nullptr, write, counter); }

void put_asking_run_counter(const thread_data* thread, std::uint32_t** write, const std::uint64_t* counter) {
  put_counter(thread, write, counter);
}

void stop_asking(thread_data* thread, const bb_meta& block) {
  // Only counters call the stub, since the application's calls are rewritten. The engine's own counter tests by CBNZ.
  auto* word = reinterpret_cast<std::uint32_t*>(block.cache_entry);
  for (std::uint32_t* const end = word + MOST_WORDS_BEFORE_CALL; word != end; ++word) {
    const bool calls_stub = branch_destination(word[1], word + 1) == thread->hot_counter_stub_addr;
    if (!calls_stub || a64_decode(word) != A64_TBZ) continue;
    word[1] = NOP;
    note_written(thread->written, word + 1, word + 2);
    return;
  }
}

}  // namespace ceilmeter
