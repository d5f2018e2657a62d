// The words that a translation reads. Each is loaded once, and plug-ins see the words that are translated. Also the
// words that begin a mode in which the engine cannot run.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "bi/a64/a64.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/scanner.h"
#include "common/log.h"
#include "plugin_fixture.h"

#define SOURCE(name) extern "C" const std::uint32_t name[]
SOURCE(source_plain);
SOURCE(source_syscall);
SOURCE(source_streaming);
SOURCE(source_not_streaming);
SOURCE(source_not_streaming_end);
SOURCE(source_streams_later);

namespace ceilmeter {
namespace {

using test::plugin_test;
using test::words;

// mov x5, #1 to #4; ret. They are replaced by a return, and mov x6, #5 behind it.
alignas(64) std::uint32_t changing[5];
constexpr std::uint32_t MOV_X5_1 = 0xd2800025;
constexpr std::uint32_t MOV_X6_5 = 0xd28000a6;
constexpr std::uint32_t RET = 0xd65f03c0;

words asked;

int change_code(mora_context*) {
  changing[0] = RET;
  std::fill(changing + 1, changing + 5, MOV_X6_5);
  return 0;
}

int ask_for_words(mora_context* ctx) {
  const std::uint32_t* kept = mora_get_block_words(ctx);
  const auto count = static_cast<std::size_t>((mora_get_end_addr(ctx) - address_of(changing)) / 4);
  asked.assign(kept, kept + count);
  return 0;
}

class source_words_test : public plugin_test {
 protected:
  source_words_test() {
    log_state::engine_log_level = LEVEL_WARN;
    for (std::uint32_t index = 0; index < 4; ++index) changing[index] = MOV_X5_1 + (index << 5);
    changing[4] = RET;
    asked.clear();
  }

  words scanned(const std::uint32_t* from) {
    const std::int32_t bb_id = allocate_bb(thread);
    const std::uint32_t length = scan_fragment(thread, from, bb_id, FRAGMENT_BLOCK, nullptr);
    return {block(bb_id), block(bb_id) + length / 4};
  }
};

TEST_F(source_words_test, code_that_changes_after_the_look_ahead_is_translated_as_it_was) {
  const words before(changing, changing + 4);
  mora_on_pre_fragment(mora_add_plugin(), change_code);
  const words code = scanned(changing);
  EXPECT_EQ(words(code.begin() + 1, code.begin() + 5), before);
  EXPECT_EQ(std::count(code.begin(), code.end(), MOV_X6_5), 0);
}

TEST_F(source_words_test, a_plugin_is_given_the_words_that_were_translated) {
  const words before(changing, changing + 5);
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, change_code);
  mora_on_post_bb(plugin, ask_for_words);
  scanned(changing);
  EXPECT_EQ(asked, before);
}

TEST_F(source_words_test, what_a_plugin_has_compared_is_what_is_translated) {
  static words before;
  before.assign(changing, changing + 5);
  static std::vector<bool> answers;
  answers.clear();
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, [](mora_context* ctx) {
    answers.push_back(mora_block_begins_with(ctx, before.data(), 5));
    change_code(ctx);
    answers.push_back(mora_block_begins_with(ctx, before.data(), 5));
    const words others = {before[0], MOV_X6_5};
    answers.push_back(mora_block_begins_with(ctx, others.data(), 2));
    return 0;
  });
  mora_on_post_bb(plugin, ask_for_words);
  scanned(changing);
  EXPECT_EQ(answers, (std::vector<bool>{true, true, false}));
  EXPECT_EQ(asked, before);
}

TEST_F(source_words_test, behind_a_system_call_the_words_are_those_of_the_second_block) {
  static std::vector<words> blocks;
  blocks.clear();
  static std::uint64_t start;
  mora_context* plugin = mora_add_plugin();
  mora_on_pre_bb(plugin, [](mora_context* ctx) {
    start = mora_get_source_addr(ctx);
    EXPECT_TRUE(mora_block_begins_with(ctx, reinterpret_cast<const std::uint32_t*>(start), 2));
    return 0;
  });
  mora_on_post_bb(plugin, [](mora_context* ctx) {
    const std::uint32_t* kept = mora_get_block_words(ctx);
    blocks.emplace_back(kept, kept + (mora_get_end_addr(ctx) - start) / 4);
    return 0;
  });
  scanned(source_syscall);
  EXPECT_EQ(blocks,
            (std::vector<words>{{source_syscall, source_syscall + 2}, {source_syscall + 2, source_syscall + 4}}));
}

TEST_F(source_words_test, words_are_offered_at_their_event_alone) {
  mora_context ctx = scan_context(MORA_PRE_INST);
  EXPECT_EQ(mora_get_block_words(&ctx), nullptr);
  EXPECT_FALSE(mora_block_begins_with(&ctx, source_plain, 1));
}

TEST_F(source_words_test, words_beyond_the_room_are_loaded_each_time) {
  std::uint32_t kept[2];
  source_window window{changing, kept, 2};
  EXPECT_EQ(word_at(window, changing + 3), MOV_X5_1 + (3 << 5));
  EXPECT_EQ(word_at(window, changing + 1), MOV_X5_1 + (1 << 5));
  change_code(nullptr);
  EXPECT_EQ(word_at(window, changing), MOV_X5_1);
  EXPECT_EQ(word_at(window, changing + 3), MOV_X6_5);
}

TEST_F(source_words_test, the_start_of_streaming_mode_ends_the_process_with_a_line_that_says_so) {
  for (const std::uint32_t* word = source_streaming; word != source_not_streaming; ++word) {
    EXPECT_DEATH(scanned(word), testing::HasSubstr("the application enters streaming mode of the Scalable Matrix "
                                                   "Extension (smstart at "));
  }
}

TEST_F(source_words_test, signatures_of_return_addresses_with_their_place_are_copied_and_told_of_once) {
  alignas(64) static const std::uint32_t signing[] = {0xdac1a3fe, 0xd65f03c0, 0xdac187fe, 0xd65f03c0};
  testing::internal::CaptureStderr();
  const words code = scanned(signing);
  EXPECT_EQ(std::count(code.begin(), code.end(), signing[0]), 1);
  scanned(signing + 2);
  const std::string log = testing::internal::GetCapturedStderr();
  const std::string line =
      "the application signs return addresses with their place in the code (FEAT_PAuth_LR), which "
      "is not supported: build it without";
  const std::size_t first = log.find(line);
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find(line, first + 1), std::string::npos) << "once";
}

TEST_F(source_words_test, other_switches_of_the_matrix_extension_are_copied) {
  for (const std::uint32_t* word = source_not_streaming; word != source_not_streaming_end; ++word) {
    const words code = scanned(word);
    EXPECT_EQ(std::count(code.begin(), code.end(), *word), 1) << std::hex << *word;
  }
}

TEST_F(source_words_test, the_start_of_streaming_mode_that_is_not_reached_only_ends_the_block) {
  const words code = scanned(source_streams_later);
  EXPECT_EQ(std::count(code.begin(), code.end(), source_streams_later[1]), 0);
  EXPECT_EQ(std::count(code.begin(), code.end(), source_streams_later[0]), 1);
}

}  // namespace
}  // namespace ceilmeter
