// What the dump of a fragment shows.
#include "bi/code/fragment_dump.h"

#include <sys/mman.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "trace_sources.h"

namespace ceilmeter::test {

namespace {

using testing::HasSubstr;
using testing::Not;

[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...) {
  char buffer[128];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

class fragment_dump : public trace_test {
 protected:
  static std::string dump(std::int32_t id) {
    testing::internal::CaptureStderr();
    ::dump_fragment(id);
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(fragment_dump, a_block_shows_its_record_and_its_words_beside_the_source) {
  const std::int32_t id = block_of(direct);
  const std::string lines = dump(id);
  EXPECT_THAT(lines, HasSubstr("fragment " + std::to_string(id) +
                               text(": source 0x%lx, %u words seen", address_of(direct), meta(id).source_words)));
  // The entry word, and the first source word in the rewritten code.
  EXPECT_THAT(lines, HasSubstr(text("0x%lx %08x ldp", address_of(block(id)), POP_X0_X1)));
  EXPECT_THAT(lines, HasSubstr(text("| 0x%lx %08x ", address_of(direct), direct[0])));
  // The exit's last word leads to the dispatcher; nothing behind it is shown.
  const std::size_t last = lines.find(text("b        0x%lx", thread->dispatcher_stub_addr));
  ASSERT_NE(last, std::string::npos);
  EXPECT_EQ(lines.find('\n', last), lines.size() - 1);
}

TEST_F(fragment_dump, a_block_names_the_places_that_are_linked_to_it) {
  const std::int32_t id = block_of(direct);
  dispatched(address_of(back_to_head), id);
  const std::string lines = dump(block_of(back_to_head));
  EXPECT_THAT(lines, HasSubstr(text("linked from 0x%lx (%d)", address_of(meta(id).exit_code_addr), id)));
}

TEST_F(fragment_dump, a_conditional_exit_shows_both_sides) {
  scan_five_blocks();
  EXPECT_THAT(dump(head), HasSubstr(text("taken to 0x%lx, else to 0x%lx", meta(head).taken_source_addr,
                                         meta(head).skipped_source_addr)));
}

TEST_F(fragment_dump, a_part_of_a_trace_ends_where_the_next_one_begins_and_names_its_trampoline) {
  build_five_blocks();
  const std::string lines = dump(BB_COUNT);
  EXPECT_THAT(lines, HasSubstr(text("0x%lx %08x ldp", entry_of_trace, POP_X0_X1)));
  EXPECT_THAT(lines, HasSubstr(text("  0x%lx %08x", entry_of_trace + 8, at(entry_of_trace)[2])));
  EXPECT_THAT(lines, Not(HasSubstr(text("  0x%lx ", meta(BB_COUNT + 1).cache_entry))));
  EXPECT_THAT(lines, HasSubstr("leaves by the trampoline " + std::to_string(meta(BB_COUNT).trampoline)));
}

TEST_F(fragment_dump, source_code_that_is_gone_is_said_to_be) {
  constexpr std::size_t size = 4096;
  void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  std::memcpy(page, one_ret, sizeof RET);
  const std::int32_t id = block_of(static_cast<const std::uint32_t*>(page));
  EXPECT_THAT(dump(id), HasSubstr(text("| 0x%lx %08x ret", address_of(page), RET)));
  munmap(page, size);
  EXPECT_THAT(dump(id), HasSubstr(text("| 0x%lx is not readable", address_of(page))));
}

TEST_F(fragment_dump, an_index_without_a_fragment_is_said_to_be_one) {
  EXPECT_THAT(dump(-1), HasSubstr("fragment -1: there is no such index"));
  EXPECT_THAT(dump(BB_META_COUNT), HasSubstr("there is no such index"));
  EXPECT_THAT(dump(BB_COUNT + 7), HasSubstr("source 0x0"));  // The record of none.
}

TEST_F(fragment_dump, a_thread_that_is_not_the_engines_shows_nothing) {
  current_thread = nullptr;
  EXPECT_EQ(dump(1), "");
  current_thread = thread;
}

}  // namespace

}  // namespace ceilmeter::test
