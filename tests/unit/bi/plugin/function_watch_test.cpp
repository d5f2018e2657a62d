// Function watches: the table, the code at a watched function's entry and at its return, and the two events.
#include <cstring>

#include "../../support/captured_log.h"
#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/scanner.h"
#include "bi/kernel/syscalls.h"
#include "common/log.h"
#include "plugin_fixture.h"

extern "C" const std::uint32_t source_plain[];
extern "C" const std::uint32_t source_direct[];

namespace ceilmeter {
namespace {

using test::captured_log;
using test::plugin_test;
using test::words;

constexpr std::uint32_t RET_X30 = 0xd65f03c0;
constexpr std::uint32_t MOV_X3_X4 = 0xaa0403e3;

std::vector<std::pair<std::uint32_t, std::uint64_t>> told;

int note(mora_context* ctx) {
  told.emplace_back(ctx->event, mora_get_source_addr(ctx));
  return 0;
}

int note_and_write(mora_context* ctx) {
  note(ctx);
  return mora_emit_mov(ctx, 3, 4);
}

class function_watch_test : public plugin_test {
 protected:
  function_watch_test() {
    told.clear();
    log_state::engine_log_level = LEVEL_WARN;
  }

  const function_watch* watch_of(const std::uint32_t* function) {
    return static_cast<const function_watch*>(robin_map_lookup(&engine.function_watches, address_of(function)));
  }

  // The code of the block at `from`, which fits into one block of the cache.
  words scanned(const std::uint32_t* from) {
    const std::int32_t bb_id = allocate_bb(thread);
    last = block(bb_id);
    const std::uint32_t length = scan_a64(thread, from, bb_id, FRAGMENT_BLOCK, nullptr);
    return {last, last + length / 4 - 1};
  }

  return_watch return_of(const std::uint32_t* function) {
    return_watch value{};
    if (const void* stored = robin_map_lookup(&thread->return_watch, address_of(watch_of(function)))) {
      std::memcpy(&value, stored, sizeof value);
    }
    return value;
  }

  std::uint32_t* last = nullptr;
};

TEST_F(function_watch_test, a_watch_holds_a_return_and_the_name) {
  EXPECT_EQ(function_watch_add_named(address_of(source_plain), "plain"), 1);
  ASSERT_NE(watch_of(source_plain), nullptr);
  EXPECT_EQ(watch_of(source_plain)->code, RET_X30);
  EXPECT_STREQ(watch_of(source_plain)->name, "plain");
  EXPECT_EQ(watch_of(source_plain)->refcount, 1u);
}

TEST_F(function_watch_test, a_second_watch_of_a_function_only_counts) {
  EXPECT_EQ(function_watch_add_named(address_of(source_plain), "first"), 1);
  EXPECT_EQ(function_watch_add_named(address_of(source_plain), "second"), 0);
  EXPECT_EQ(function_watch_add(address_of(source_plain)), 0);
  EXPECT_STREQ(watch_of(source_plain)->name, "first");
  EXPECT_EQ(watch_of(source_plain)->refcount, 3u);
}

TEST_F(function_watch_test, a_watch_without_a_name_has_an_empty_one) {
  function_watch_add(address_of(source_plain));
  EXPECT_STREQ(watch_of(source_plain)->name, "");
}

TEST_F(function_watch_test, of_a_long_name_255_bytes_are_kept) {
  function_watch_add_named(address_of(source_plain), std::string(300, 'n').c_str());
  EXPECT_EQ(watch_of(source_plain)->name, std::string(255, 'n'));
}

TEST_F(function_watch_test, unmapping_its_address_ends_a_watch) {
  interval_map_init(&engine.exec_ranges, EXEC_RANGES_CAPACITY);
  owned_lock_init(&engine.code_epoch_lock);
  function_watch_add(0x10000);
  function_watch_add(0x20000);
  report_vm_op(VM_UNMAP, 0x10000, 0x1000, 0, 0, -1, 0, 0, 0);
  EXPECT_EQ(engine.function_watches.count, 1u);
  EXPECT_EQ(function_watch_add(0x20000), 0);
}

TEST_F(function_watch_test, the_entry_is_told_once_per_translation_with_the_functions_address) {
  mora_on_pre_function(mora_add_plugin(), note);
  function_watch_add(address_of(source_plain));
  scanned(source_plain);
  scanned(source_direct);
  EXPECT_EQ(told, (decltype(told){{MORA_PRE_FUNCTION, address_of(source_plain)}}));
  scanned(source_plain);
  EXPECT_EQ(told.size(), 2u);
}

TEST_F(function_watch_test, the_entry_code_keeps_the_return_address_and_gives_the_watchs) {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_function(plugin, note_and_write);
  mora_on_post_function(plugin, note);
  function_watch_add(address_of(source_plain));
  const words code = scanned(source_plain);
  words expected = {0xa8c107e0,   // ldp x0, x1, [sp], #16
                    MOV_X3_X4,    // The plug-in's.
                    0xa9bf07e0};  // stp x0, x1, [sp, #-16]!
  const auto put_const = [&expected](std::uint32_t reg, std::uint64_t value) {
    expected.push_back(0xd2800000 | static_cast<std::uint32_t>(value & 0xffff) << 5 | reg);  // movz
    for (std::uint32_t part = 1; part < 4; ++part) {
      const auto bits = static_cast<std::uint32_t>(value >> (16 * part) & 0xffff);
      if (bits != 0) expected.push_back(0xf2800000 | part << 21 | bits << 5 | reg);  // movk
    }
  };
  put_const(1, address_of(&thread->return_stack_top));
  expected.push_back(0xf9400020);  // ldr x0, [x1]
  expected.push_back(0xf8008c1e);  // str x30, [x0, #8]!
  expected.push_back(0xf9000020);  // str x0, [x1]
  expected.push_back(0xa8c107e0);  // ldp x0, x1, [sp], #16
  put_const(30, address_of(watch_of(source_plain)));
  expected.push_back(source_plain[0]);
  ASSERT_GT(code.size(), expected.size());
  EXPECT_EQ(words(code.begin(), code.begin() + static_cast<std::ptrdiff_t>(expected.size())), expected);
}

TEST_F(function_watch_test, the_return_code_takes_the_return_address_back) {
  mora_on_post_function(mora_add_plugin(), note_and_write);
  function_watch_add(address_of(source_plain));
  scanned(source_plain);
  const words code = scanned(&watch_of(source_plain)->code);
  EXPECT_EQ(told, (decltype(told){{MORA_POST_FUNCTION, address_of(source_plain)}}));
  words tail(code.begin() + 2, code.end());
  while (!tail.empty() && a64_decode(&tail[0]) == A64_MOV_WIDE) tail.erase(tail.begin());
  ASSERT_GT(tail.size(), 5u);
  EXPECT_EQ(words(tail.begin(), tail.begin() + 5), (words{0xf9400020,    // ldr x0, [x1]
                                                          0xf85f841e,    // ldr x30, [x0], #-8
                                                          0xf9000020,    // str x0, [x1]
                                                          0xa8c107e0,    // ldp x0, x1, [sp], #16
                                                          MOV_X3_X4}));  // The plug-in's.
  EXPECT_EQ(tail[5], 0xa9bf07e0u);  // The lookup of the RET: stp x0, x1, [sp, #-16]!
}

TEST_F(function_watch_test, a_return_without_code_takes_the_entry_code_out) {
  mora_on_post_function(mora_add_plugin(), note);
  function_watch_add(address_of(source_plain));
  const words before = scanned(source_plain);
  const std::uint32_t* entry = last;
  const return_watch watch = return_of(source_plain);
  EXPECT_EQ(watch.entry_begin, address_of(entry + 1));
  scanned(&watch_of(source_plain)->code);
  ASSERT_EQ(a64_decode(entry + 1), A64_B);
  std::uint32_t link = 0, imm26 = 0;
  a64_b_decode(entry + 1, &link, &imm26);
  EXPECT_EQ(address_of(entry + 1 + imm26), watch.entry_end);
  EXPECT_EQ(entry[1 + imm26], source_plain[0]);
}

TEST_F(function_watch_test, a_return_with_code_leaves_the_entry_code) {
  mora_on_post_function(mora_add_plugin(), note_and_write);
  function_watch_add(address_of(source_plain));
  const words before = scanned(source_plain);
  const std::uint32_t* entry = last;
  scanned(&watch_of(source_plain)->code);
  EXPECT_EQ(words(entry, entry + before.size()), before);
}

TEST_F(function_watch_test, a_return_that_comes_after_a_flush_writes_nothing_where_the_entry_was) {
  mora_on_post_function(mora_add_plugin(), note);
  function_watch_add(address_of(source_plain));
  scanned(source_plain);
  flush_code_cache(thread);
  const words other = scanned(source_direct);  // Where the entry code was.
  const std::uint32_t* place = last;
  scanned(&watch_of(source_plain)->code);
  EXPECT_EQ(told.size(), 1u);
  EXPECT_EQ(words(place, place + other.size()), other);
}

TEST_F(function_watch_test, without_a_callback_for_returns_the_return_address_stays_the_true_one) {
  const words plain = scanned(source_plain);
  mora_on_pre_function(mora_add_plugin(), note);
  function_watch_add(address_of(source_plain));
  flush_code_cache(thread);
  EXPECT_EQ(scanned(source_plain), plain);
  EXPECT_EQ(told.size(), 1u);
}

TEST_F(function_watch_test, another_function_under_the_same_record_is_told_as_itself) {
  mora_on_post_function(mora_add_plugin(), note);
  function_watch_add(address_of(source_plain));
  scanned(source_plain);
  const function_watch* record = watch_of(source_plain);
  robin_map_remove(&engine.function_watches, address_of(source_plain));
  function_watch_add(address_of(source_direct));
  ASSERT_EQ(watch_of(source_direct), record);
  thread->flush_seen = 0;
  scanned(source_direct);
  EXPECT_EQ(thread->flush_seen, 1u);  // The block of the record was made for the first function.
  scanned(&record->code);
  EXPECT_EQ(told, (decltype(told){{MORA_POST_FUNCTION, address_of(source_direct)}}));
}

TEST_F(function_watch_test, a_flush_for_another_function_under_the_same_record_keeps_the_block_that_is_being_scanned) {
  mora_on_post_function(mora_add_plugin(), note);
  function_watch_add(address_of(source_plain));
  scanned(source_plain);
  // Longer than a block, and no two of its words are alike: mov x3, #1; mov x3, #2; ... ret.
  words function;
  for (std::uint32_t value = 1; value <= 150; ++value) function.push_back(0xd2800003 | value << 5);
  function.push_back(RET_X30);
  robin_map_remove(&engine.function_watches, address_of(source_plain));
  function_watch_add(address_of(function.data()));

  // The lowest index of a block: the one that is handed out next after a flush.
  thread->next_block = stub_block_count();
  const std::int32_t bb_id = thread->next_block;
  scanned(function.data());
  words copied;
  const std::uint32_t* word = block(bb_id);
  for (int steps = 0; copied.size() < 150 && steps < 300; ++steps) {
    std::uint32_t link = 0, imm26 = 0;
    if ((*word & 0xffe0001f) == 0xd2800003) copied.push_back(*word);
    if (a64_decode(word) == A64_B) {
      a64_b_decode(word, &link, &imm26);
      word += a64_sign_extend(imm26, 26);
    } else {
      ++word;
    }
  }
  EXPECT_EQ(copied, words(function.begin(), function.end() - 1));
  EXPECT_GT(allocate_bb(thread), cc_addr_to_bb_id(thread, address_of(word)));
}

TEST_F(function_watch_test, a_replaced_function_is_a_warning_and_the_scan_goes_on_with_the_old_one) {
  const words plain = scanned(source_plain);
  flush_code_cache(thread);
  mora_on_pre_function(mora_add_plugin(), [](mora_context* ctx) { return mora_replace_function(ctx, 0x1000); });
  function_watch_add(address_of(source_plain));
  const captured_log log;
  EXPECT_EQ(scanned(source_plain), plain);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"warn plugin 0 set replace_inst for a disallowed event (at 0x1000)"});
}

}  // namespace
}  // namespace ceilmeter
