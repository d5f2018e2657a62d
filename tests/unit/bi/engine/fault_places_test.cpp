// What the handler of a fault finds in its context: the source instruction that the faulting word of rewritten code
// stands for, and the registers that the rewriting has borrowed.
#include <csignal>

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/dispatcher.h"
#include "bi/code/source_map.h"
#include "bi/code/traces.h"
#include "signals_fixture.h"
#include "trace_sources.h"

namespace ceilmeter::test {

SOURCE(loop_to_itself);
SOURCE(copied_words);
SOURCE(long_block);
SOURCE(far_literal_x0);
SOURCE(literal_q);
SOURCE(literal_w5);

namespace {

class fault_places : public signals_fixture {
 protected:
  fault_places() { engine.signal_handlers[SIGSEGV] = address_of(one_ret); }

  // The first place of that word in the block.
  const std::uint32_t* find_word(std::int32_t id, std::uint32_t word, int skip = 0) const {
    const std::uint32_t* place = block(id);
    const std::uint32_t* end = place + 4096;
    while (place < end && (*place != word || skip-- > 0)) ++place;
    return place;
  }
  // pc in the handler's context.
  std::uint64_t fault_at(const void* place) {
    EXPECT_EQ(arrive(SIGSEGV, place), address_of(one_ret));
    return context().pc;
  }
};

TEST_F(fault_places, each_copied_word_is_its_source_word) {
  const std::int32_t id = scan_block(copied_words);
  for (int index = 0; index < 3; ++index) {
    const std::uint32_t* place = find_word(id, copied_words[index]);
    EXPECT_EQ(fault_at(place), address_of(copied_words + index)) << index;
    EXPECT_EQ(context().regs[0], 0x100u);
    EXPECT_EQ(thread->pending_signal_count, 0);
  }
}

TEST_F(fault_places, code_before_the_first_source_word_stands_for_it) {
  const std::int32_t id = scan_block(loop_to_itself);
  EXPECT_EQ(fault_at(block(id) + 2), address_of(loop_to_itself));
}

TEST_F(fault_places, a_block_that_goes_on_in_the_next_ones_is_counted_through) {
  const std::int32_t id = scan_block(long_block);
  const std::uint32_t* first = find_word(id, long_block[0]);
  for (const int index : {0, 63, 64, 150, 199})
    EXPECT_EQ(fault_at(first + index), address_of(long_block + index)) << index;
}

TEST_F(fault_places, a_block_that_goes_on_elsewhere_is_followed_by_its_branch) {
  const std::int32_t id = scan_block(loop_to_itself);
  std::uint32_t* end = block(id) + BB_SIZE / 4;
  std::uint32_t* branch = end - 2;
  std::uint32_t* elsewhere = block(id + 7);
  begin_source_marks(thread, block(id));
  mark_source(thread, branch - 1, MARK_SOURCE);
  mark_source(thread, branch, MARK_SOURCE);  // Its code begins where there is no room for it.
  a64_branch(branch, address_of(elsewhere));
  continue_source_marks(thread, branch, elsewhere);
  mark_source(thread, elsewhere + 2, MARK_SOURCE);
  end_source_marks(thread, elsewhere + 4);
  thread->metas[id + 7].parent_block = id;
  EXPECT_EQ(source_of_cache_address(thread, address_of(branch - 1)), address_of(loop_to_itself));
  EXPECT_EQ(source_of_cache_address(thread, address_of(elsewhere)), address_of(loop_to_itself + 1));
  EXPECT_EQ(source_of_cache_address(thread, address_of(elsewhere + 1)), address_of(loop_to_itself + 1));
  EXPECT_EQ(source_of_cache_address(thread, address_of(elsewhere + 3)), address_of(loop_to_itself + 2));
}

TEST_F(fault_places, a_literal_load_of_a_vector_gives_x0_and_sp_back) {
  const std::int32_t id = scan_block(literal_q);
  constexpr std::uint32_t ldr_q31_x0 = 0x3dc0001f;  // ldr q31, [x0]
  const std::uint32_t* place = find_word(id, ldr_q31_x0);
  stack[64] = 0x7777;
  context().regs[0] = address_of(literal_q);
  const std::uint64_t sp = context().sp;
  EXPECT_EQ(fault_at(place), address_of(literal_q));
  EXPECT_EQ(context().regs[0], 0x7777u);
  EXPECT_EQ(context().sp, sp + 16);
}

TEST_F(fault_places, a_literal_load_of_a_general_register_in_another_page_gives_the_base_back) {
  const std::int32_t id = scan_block(far_literal_x0);
  constexpr std::uint32_t ldr_x0_x1 = 0xf9400020;
  stack[64] = 0x7777;
  const std::uint64_t sp = context().sp;
  EXPECT_EQ(fault_at(find_word(id, ldr_x0_x1)), address_of(far_literal_x0));
  EXPECT_EQ(context().regs[0], 0x100u);
  EXPECT_EQ(context().regs[1], 0x7777u);
  EXPECT_EQ(context().sp, sp + 16);
}

TEST_F(fault_places, a_literal_load_of_a_general_register_in_its_own_page_has_borrowed_nothing) {
  const std::int32_t id = scan_block(literal_w5);
  constexpr std::uint32_t ldr_w5_x5 = 0xb94000a5;  // ldr w5, [x5]
  const std::uint64_t sp = context().sp;
  EXPECT_EQ(fault_at(find_word(id, ldr_w5_x5)), address_of(literal_w5));
  EXPECT_EQ(context().regs[0], 0x100u);
  EXPECT_EQ(context().sp, sp);
}

TEST_F(fault_places, an_undefined_instruction_names_its_source_place) {
  const std::int32_t id = scan_block(copied_words);
  const std::uint32_t* place = find_word(id, copied_words[1]);
  engine.signal_handlers[SIGTRAP] = address_of(one_ret);
  context().pc = address_of(place);
  siginfo_t info{};
  info.si_signo = SIGTRAP;
  info.si_code = TRAP_BRKPT;
  info.si_addr = const_cast<std::uint32_t*>(place);
  arrive(info);
  EXPECT_EQ(info.si_addr, static_cast<const void*>(copied_words + 1));
}

TEST_F(fault_places, a_place_that_cannot_be_executed_is_pc_with_x0_as_it_was_and_is_looked_at_again_next_time) {
  constexpr std::uint64_t nowhere = 0x10;
  const std::uint64_t entry = lookup_or_scan(thread, nowhere);
  const std::int32_t id = cc_addr_to_bb_id(thread, entry);
  constexpr std::uint32_t ldr_w0_x0 = 0xb9400000;  // ldr w0, [x0]
  stack[64] = 0x7777;
  EXPECT_EQ(fault_at(find_word(id, ldr_w0_x0)), nowhere);
  EXPECT_EQ(context().regs[0], 0x7777u);
  EXPECT_EQ(meta(id).exit_kind, EXIT_STUB_BLOCK);  // Scanned when it is next reached.
}

TEST_F(fault_places, the_engines_own_push_has_no_source_place) { EXPECT_EQ(fault_at(stub(hot_counter_stub)), 0u); }

}  // namespace

// In a trace.
class fault_places_in_traces : public trace_test {};

TEST_F(fault_places_in_traces, each_fragment_counts_its_own_words_and_a_trampoline_those_that_it_has_copied) {
  build_five_blocks();
  for (std::int32_t id = BB_COUNT; id < thread->active_trace.id; ++id) {
    const bb_meta& record = thread->metas[id];
    if (record.exit_kind == EXIT_TRACE) {
      const auto copied = static_cast<std::uint64_t>(address_of(record.exit_code_addr) - record.cache_entry);
      EXPECT_EQ(source_of_cache_address(thread, record.cache_entry),
                source_of_cache_address(thread, record.rejoin_cache_addr - copied));
      continue;
    }
    const std::uint64_t entry = record.cache_entry + (id == BB_COUNT ? ENTRY_WORD_SIZE : 0);
    EXPECT_EQ(source_of_cache_address(thread, entry), record.source_addr) << id;
    // The next fragment has taken the place of a direct exit.
    if (exit_owner(thread, address_of(record.exit_code_addr)) != id) continue;
    // The record counts one word more than the branch that ends the fragment.
    EXPECT_EQ(source_of_cache_address(thread, address_of(record.exit_code_addr)),
              record.source_addr + 4 * (record.source_words - std::uint64_t{2}))
        << id;
  }
}

}  // namespace ceilmeter::test
