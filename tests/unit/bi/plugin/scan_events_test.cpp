// The events of a fragment under translation, their order and their fields, and what becomes of the code that plug-ins
// write.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "../../support/captured_log.h"
#include "bi/a64/a64.h"
#include "bi/code/scanner.h"
#include "common/log.h"
#include "plugin_fixture.h"

extern "C" const std::uint32_t source_plain[];
extern "C" const std::uint32_t source_direct[];
extern "C" const std::uint32_t source_conditional[];
extern "C" const std::uint32_t source_syscall[];
extern "C" const std::uint32_t source_unknown[];
extern "C" const std::uint32_t source_long[];  // 64 additions, a system call, a return.

namespace ceilmeter {
namespace {

using test::captured_log;
using test::plugin_test;
using test::words;

struct seen_event {
  std::uint32_t event;
  std::ptrdiff_t place;  // Of read_address, or at post_bb of end_address, in words from the source.
  bool operator==(const seen_event& other) const = default;
};

std::ostream& operator<<(std::ostream& stream, const seen_event& seen) {
  return stream << "{event " << seen.event << " at " << seen.place << "}";
}

const std::uint32_t* source;
std::vector<seen_event> seen;

constexpr std::uint32_t MOV_X3_X4 = 0xaa0403e3;   // mov x3, x4
constexpr std::uint32_t MOV_X5_X6 = 0xaa0603e5;   // mov x5, x6
constexpr std::uint32_t PUSH_X0_X1 = 0xa9bf07e0;  // stp x0, x1, [sp, #-16]!
constexpr std::uint32_t POP_X0_X1 = 0xa8c107e0;   // ldp x0, x1, [sp], #16

int note(mora_context* ctx) {
  const bool is_end = ctx->event == MORA_POST_BB;
  seen.push_back({ctx->event, (is_end ? ctx->end_address : ctx->read_address) - source});
  return 0;
}

int write_mov(mora_context* ctx) { return mora_emit_mov(ctx, 3, 4); }
int write_other_mov(mora_context* ctx) { return mora_emit_mov(ctx, 5, 6); }
int write_mov_raw(mora_context* ctx) {
  *ctx->write_p++ = MOV_X3_X4;
  return 0;
}
int replace(mora_context* ctx) { return mora_replace_inst(ctx); }

class plugin_scan_test : public plugin_test {
 protected:
  plugin_scan_test() {
    seen.clear();
    log_state::engine_log_level = LEVEL_WARN;
  }

  // The fragment's code, which fits into one block of the cache.
  words scanned(const std::uint32_t* from) {
    source = from;
    const std::int32_t bb_id = allocate_bb(thread);
    const std::uint32_t length = scan_a64(thread, from, bb_id, FRAGMENT_BLOCK, nullptr);
    return {block(bb_id), block(bb_id) + length / 4 - 1};
  }

  static std::ptrdiff_t count(const words& code, std::uint32_t word) {
    return std::count(code.begin(), code.end(), word);
  }
};

TEST_F(plugin_scan_test, a_blocks_events_come_in_the_order_of_its_translation) {
  mora_context* plugin = mora_add_plugin();
  for (std::uint32_t event = MORA_PRE_INST; event <= MORA_POST_FRAGMENT; ++event) mora_bind_event(plugin, event, note);
  scanned(source_plain);
  EXPECT_EQ(seen, (std::vector<seen_event>{{MORA_PRE_FRAGMENT, 0},
                                           {MORA_PRE_BB, 0},
                                           {MORA_PRE_INST, 0},
                                           {MORA_POST_INST, 0},
                                           {MORA_PRE_INST, 1},
                                           {MORA_POST_INST, 1},
                                           {MORA_PRE_INST, 2},
                                           {MORA_POST_INST, 2},
                                           {MORA_POST_BB, 3},
                                           {MORA_POST_FRAGMENT, 3}}));
}

TEST_F(plugin_scan_test, an_event_can_be_delivered_without_the_scans_record) {
  mora_on_pre_bb(mora_add_plugin(), write_mov);
  const std::int32_t bb_id = allocate_bb(thread);
  const std::uint32_t* read = source_plain;
  std::uint32_t* write = block(bb_id);
  std::uint32_t* limit = write + BB_SIZE / 4;
  EXPECT_FALSE(a64_scanner_deliver_callbacks(thread, MORA_PRE_BB, &read, MORA_NO_INST, &write, &limit, bb_id,
                                             FRAGMENT_BLOCK, true, &stop, nullptr));
  EXPECT_EQ(write, block(bb_id) + 1);
  EXPECT_EQ(*block(bb_id), MOV_X3_X4);
  EXPECT_EQ(read, source_plain);
}

TEST_F(plugin_scan_test, a_block_ends_at_a_system_call_and_another_begins_behind_it) {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, note);
  mora_on_post_bb(plugin, note);
  mora_on_pre_fragment(plugin, note);
  mora_on_post_fragment(plugin, note);
  scanned(source_syscall);
  EXPECT_EQ(seen, (std::vector<seen_event>{{MORA_PRE_FRAGMENT, 0},
                                           {MORA_PRE_BB, 0},
                                           {MORA_POST_BB, 2},
                                           {MORA_PRE_BB, 2},
                                           {MORA_POST_BB, 4},
                                           {MORA_POST_FRAGMENT, 4}}));
}

TEST_F(plugin_scan_test, an_unknown_word_is_told_in_the_block_that_it_begins_and_in_no_other) {
  mora_context* plugin = mora_add_plugin();
  for (const mora_event event : {MORA_PRE_INST, MORA_POST_INST, MORA_POST_BB}) mora_bind_event(plugin, event, note);
  scanned(source_unknown);
  EXPECT_EQ(seen, (std::vector<seen_event>{{MORA_PRE_INST, 0}, {MORA_POST_INST, 0}, {MORA_POST_BB, 1}}));
  seen.clear();
  scanned(source_unknown + 1);
  EXPECT_EQ(seen,
            (std::vector<seen_event>{
                {MORA_PRE_INST, 0}, {MORA_POST_INST, 0}, {MORA_PRE_INST, 1}, {MORA_POST_INST, 1}, {MORA_POST_BB, 2}}));
}

TEST_F(plugin_scan_test, the_context_tells_instruction_and_condition) {
  static std::vector<std::pair<std::int32_t, std::uint32_t>> told;
  told.clear();
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_inst(plugin, [](mora_context* ctx) {
    told.emplace_back(mora_get_inst(ctx), mora_get_cond(ctx));
    return 0;
  });
  mora_on_pre_bb(plugin, [](mora_context* ctx) {
    told.emplace_back(mora_get_inst(ctx), mora_get_cond(ctx));
    return 0;
  });
  scanned(source_conditional);
  constexpr std::uint32_t le = 13;
  const decltype(told) expected = {{-1, 14}, {a64_decode(source_conditional), 14}, {A64_B_COND, le}};
  EXPECT_EQ(told, expected);
}

TEST_F(plugin_scan_test, the_context_tells_fragment_and_thread) {
  static mora_context copy;
  mora_on_pre_fragment(mora_add_plugin(), [](mora_context* ctx) {
    copy = *ctx;
    return 0;
  });
  scanned(source_plain);
  EXPECT_EQ(mora_get_fragment_type(&copy), 0u);
  EXPECT_EQ(mora_get_fragment_id(&copy), stub_block_count());
  EXPECT_EQ(mora_get_thread_id(&copy), 77);
  EXPECT_EQ(mora_get_cc_addr(&copy), block(stub_block_count()) + 1);  // Behind the entry word.
  EXPECT_EQ(mora_get_source_addr(&copy), reinterpret_cast<std::uint64_t>(source_plain));
}

TEST_F(plugin_scan_test, without_callbacks_the_code_is_that_without_plugins) {
  const words plain = scanned(source_plain);
  flush_code_cache(thread);
  mora_on_exit(mora_add_plugin(), note);
  EXPECT_EQ(scanned(source_plain), plain);
}

TEST_F(plugin_scan_test, what_is_written_stands_at_the_place_of_the_event) {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, write_mov);
  mora_on_post_inst(plugin, [](mora_context* ctx) { return ctx->read_address == source ? write_other_mov(ctx) : 0; });
  const words code = scanned(source_plain);
  EXPECT_EQ(words(code.begin(), code.begin() + 5),
            (words{POP_X0_X1, MOV_X3_X4, source_plain[0], MOV_X5_X6, source_plain[1]}));
}

TEST_F(plugin_scan_test, plugins_write_in_the_order_of_their_numbers) {
  mora_on_pre_bb(mora_add_plugin(), write_mov);
  mora_on_pre_bb(mora_add_plugin(), write_other_mov);
  const words code = scanned(source_plain);
  EXPECT_EQ(words(code.begin(), code.begin() + 4), (words{POP_X0_X1, MOV_X3_X4, MOV_X5_X6, source_plain[0]}));
}

TEST_F(plugin_scan_test, registers_that_a_plugin_leaves_to_pop_are_popped_once) {
  mora_on_pre_bb(mora_add_plugin(), [](mora_context* ctx) {
    EXPECT_EQ(ctx->regs_on_entry, 0u);
    mora_emit_save_regs(ctx, 3);
    mora_emit_mov(ctx, 3, 4);
    ctx->regs_to_pop = 3;
    return 0;
  });
  mora_on_pre_bb(mora_add_plugin(), [](mora_context* ctx) {
    EXPECT_EQ(ctx->regs_on_entry, 0u);
    EXPECT_EQ(ctx->plugin_stack_offset, 0u);
    return write_other_mov(ctx);
  });
  const words code = scanned(source_plain);
  EXPECT_EQ(words(code.begin(), code.begin() + 6),
            (words{POP_X0_X1, PUSH_X0_X1, MOV_X3_X4, POP_X0_X1, MOV_X5_X6, source_plain[0]}));
}

TEST_F(plugin_scan_test, an_instruction_that_is_taken_over_is_not_copied) {
  mora_on_pre_inst(mora_add_plugin(), [](mora_context* ctx) {
    if (ctx->read_address != source) return 0;
    write_mov(ctx);
    return replace(ctx);
  });
  const words code = scanned(source_plain);
  EXPECT_EQ(words(code.begin(), code.begin() + 3), (words{POP_X0_X1, MOV_X3_X4, source_plain[1]}));
}

TEST_F(plugin_scan_test, code_for_an_instruction_that_another_plugin_has_taken_over_is_kept_with_a_warning) {
  mora_on_pre_inst(mora_add_plugin(), [](mora_context* ctx) { return ctx->read_address == source ? replace(ctx) : 0; });
  mora_on_pre_inst(mora_add_plugin(),
                   [](mora_context* ctx) { return ctx->read_address == source ? write_mov(ctx) : 0; });
  const captured_log log;
  const words code = scanned(source_plain);
  EXPECT_EQ(words(code.begin(), code.begin() + 3), (words{POP_X0_X1, MOV_X3_X4, source_plain[1]}));
  char message[128];
  std::snprintf(message, sizeof message, "warn plugin 1 added code for overridden instruction (%p)",
                static_cast<const void*>(source_plain));
  EXPECT_EQ(log.lines(), std::vector<std::string>{message});
}

TEST_F(plugin_scan_test, taking_over_at_the_end_of_a_block_causes_a_warning_and_nothing_else) {
  const words plain = scanned(source_plain);
  flush_code_cache(thread);
  mora_on_post_bb(mora_add_plugin(), replace);
  const captured_log log;
  EXPECT_EQ(scanned(source_plain), plain);
  char message[128];
  std::snprintf(message, sizeof message, "warn plugin 0 set replace_inst for a disallowed event (at %p)",
                static_cast<const void*>(source_plain + 3));
  EXPECT_EQ(log.lines(), std::vector<std::string>{message});
}

TEST_F(plugin_scan_test, taking_over_at_the_start_of_a_block_leaves_its_instructions) {
  const words plain = scanned(source_plain);
  flush_code_cache(thread);
  mora_on_pre_bb(mora_add_plugin(), replace);
  const captured_log log;
  EXPECT_EQ(scanned(source_plain), plain);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(plugin_scan_test, code_behind_the_instruction_that_ends_the_block_is_dropped) {
  for (const auto* from : {source_plain, source_direct, source_conditional}) {
    flush_code_cache(thread);
    engine.plugin_count = 0;
    std::memset(engine.plugins, 0, sizeof engine.plugins);
    const words plain = scanned(from);
    flush_code_cache(thread);
    mora_on_post_inst(mora_add_plugin(), [](mora_context* ctx) { return *ctx->stop ? write_mov_raw(ctx) : 0; });
    EXPECT_EQ(scanned(from), plain);
  }
}

TEST_F(plugin_scan_test, code_at_the_end_of_a_block_and_of_a_fragment_is_dropped) {
  const words plain = scanned(source_syscall);
  flush_code_cache(thread);
  mora_context* plugin = mora_add_plugin();
  mora_on_post_bb(plugin, write_mov_raw);
  mora_on_post_fragment(plugin, write_mov_raw);
  EXPECT_EQ(scanned(source_syscall), plain);
}

TEST_F(plugin_scan_test, a_stopped_scan_ends_with_what_the_plugin_has_written) {
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, [](mora_context* ctx) {
    write_mov(ctx);
    return mora_stop_scan(ctx);
  });
  mora_on_pre_inst(plugin, note);
  EXPECT_EQ(scanned(source_plain), (words{POP_X0_X1, MOV_X3_X4}));
  EXPECT_EQ(seen.size(), 0u);
}

TEST_F(plugin_scan_test, every_callback_that_may_write_finds_room) {
  static std::vector<std::ptrdiff_t> rooms;
  rooms.clear();
  mora_context* plugin = mora_add_plugin();
  for (const mora_event event : {MORA_PRE_FRAGMENT, MORA_PRE_BB, MORA_PRE_INST, MORA_POST_INST}) {
    mora_bind_event(plugin, event, [](mora_context* ctx) {
      if (ctx->code_allowed) rooms.push_back((ctx->write_limit - ctx->write_p) * 4);
      return 0;
    });
  }
  scanned(source_syscall);
  EXPECT_EQ(rooms.size(), 10u);
  // A system call at each distance from the end of a block of the cache.
  for (int skipped = 0; skipped < 64; ++skipped) scanned(source_long + skipped);
  for (const std::ptrdiff_t room : rooms) EXPECT_GT(room, static_cast<std::ptrdiff_t>(MORA_CALLBACK_SPACE));
}

TEST_F(plugin_scan_test, much_code_at_every_instruction_stays_in_one_piece) {
  mora_on_pre_inst(mora_add_plugin(), [](mora_context* ctx) {
    for (int count = 0; count < 100; ++count) write_mov(ctx);
    return 0;
  });
  const words code = scanned(source_plain);
  EXPECT_EQ(count(code, MOV_X3_X4), 300);
  EXPECT_EQ(words(code.begin() + 1, code.begin() + 101), words(100, MOV_X3_X4));
  EXPECT_EQ(code[101], source_plain[0]);
}

}  // namespace
}  // namespace ceilmeter
