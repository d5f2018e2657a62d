// A trace of five blocks for tests, and the steps to make others.
#pragma once

#include "bi/a64/helpers.h"
#include "bi/code/dispatcher.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"
#include "bi/code/traces.h"
#include "engine_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);
SOURCE(skipped_by_eq);
SOURCE(taken_by_cbnz);
SOURCE(taken_by_tbz);
SOURCE(direct);
SOURCE(back_to_head);
SOURCE(path_end);
SOURCE(by_return);
SOURCE(exit_only);
SOURCE(thirty_blocks);
SOURCE(tbz_before_much);
SOURCE(cbz_before_much);
SOURCE(much);
SOURCE(six_hundred_words);
SOURCE(on_to_six_hundred);
SOURCE(direct_to_path_end);
SOURCE(branch_both_kinds);
SOURCE(to_itself_or_on);

inline constexpr std::uint32_t BRK_0 = 0xd4200000;

class trace_test : public engine_test {
 protected:
  // The checker is off, because the code could not take some of the paths here. Tests call it where they need it.
  trace_test() { trace_options = {false, TRACE_CHECK_NONE}; }
  std::uint32_t* at(std::uint64_t address) const { return reinterpret_cast<std::uint32_t*>(address); }
  std::uint32_t branch_word(const std::uint32_t* place, std::uint64_t to) const {
    return written(place, [to](std::uint32_t** write) { a64_branch((*write)++, to); })[0];
  }
  // Acts as if the block's counter had come to 0. Returns the cache address at which to go on.
  std::uint64_t make_hot(std::int32_t bb_id) {
    std::uint64_t ret[2] = {};
    const std::uint64_t source = meta(bb_id).source_addr;
    create_trace(thread, bb_id, ret);
    EXPECT_EQ(ret[1], source);
    return ret[0];
  }
  // Lets the newest fragment leave by its stub.
  std::uint64_t leave(const std::uint32_t* target) {
    return dispatched(address_of(target), thread->active_trace.id - 1);
  }
  // The block that the table has for the source. If there is none, it is scanned.
  std::int32_t block_of(const std::uint32_t* source) {
    return cc_addr_to_bb_id(thread, lookup_or_scan(thread, address_of(source)));
  }
  void scan_five_blocks() { head = block_of(skipped_by_eq); }
  void build_five_blocks() {
    if (head == 0) scan_five_blocks();
    entry_of_trace = make_hot(head);
    for (const std::uint32_t* next : {taken_by_cbnz, taken_by_tbz, direct, back_to_head, skipped_by_eq}) leave(next);
    EXPECT_EQ(thread->active_trace.active, 0u);
  }

  std::int32_t head = 0;
  std::uint64_t entry_of_trace = 0;
};

}  // namespace ceilmeter::test
