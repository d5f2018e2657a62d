// The program break that the engine keeps for the application.
#include <sys/mman.h>
#include <sys/syscall.h>

#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

class brk_handler_test : public syscalls_test {
 protected:
  static constexpr std::uint64_t room = 0x400000;

  brk_handler_test() {
    page = fake.page;
    // A stretch of address space that nothing else takes, with the first page of the break at its start.
    void* reserved = mmap(nullptr, room, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    initial = address_of(reserved);
    munmap(reserved, room);
    mmap(reserved, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    engine.initial_brk = initial;
    engine.brk = initial + page;
  }
  ~brk_handler_test() override { munmap(reinterpret_cast<void*>(initial), room); }

  std::uint64_t initial;
  std::uint64_t page;
};

TEST_F(brk_handler_test, zero_asks_for_the_break_without_the_lock) {
  owned_lock_take(&engine.brk_lock);
  EXPECT_EQ(brk_handler(0), initial + page);
  owned_lock_leave(&engine.brk_lock);
}

TEST_F(brk_handler_test, the_break_itself_is_returned_without_the_lock) {
  owned_lock_take(&engine.brk_lock);
  EXPECT_EQ(brk_handler(initial + page), initial + page);
  owned_lock_leave(&engine.brk_lock);
}

TEST_F(brk_handler_test, a_higher_address_grows_the_break_by_zeroed_memory) {
  EXPECT_EQ(brk_handler(initial + 5 * page), initial + 5 * page);
  auto* last = reinterpret_cast<volatile std::uint8_t*>(initial + 5 * page - 1);
  EXPECT_EQ(*last, 0);
  *last = 7;
  EXPECT_EQ(*last, 7);
}

TEST_F(brk_handler_test, an_address_inside_a_page_becomes_the_break) {
  EXPECT_EQ(brk_handler(initial + 2 * page + 17), initial + 2 * page + 17);
  EXPECT_TRUE(is_readable_memory(initial + 3 * page - 1));
  EXPECT_EQ(brk_handler(initial + 4 * page + 3), initial + 4 * page + 3);
  EXPECT_TRUE(is_readable_memory(initial + 5 * page - 1));
  EXPECT_EQ(brk_handler(initial + page + 9), initial + page + 9);
  EXPECT_FALSE(is_readable_memory(initial + 3 * page));
}

TEST_F(brk_handler_test, a_lower_address_gives_the_pages_back) {
  brk_handler(initial + 8 * page);
  EXPECT_EQ(brk_handler(initial + 2 * page), initial + 2 * page);
  EXPECT_TRUE(is_readable_memory(initial + 2 * page - 1));
  EXPECT_FALSE(is_readable_memory(initial + 2 * page));
}

TEST_F(brk_handler_test, pages_that_come_back_are_zero) {
  brk_handler(initial + 4 * page);
  *reinterpret_cast<volatile std::uint8_t*>(initial + 3 * page) = 1;
  brk_handler(initial + 2 * page);
  brk_handler(initial + 4 * page);
  EXPECT_EQ(*reinterpret_cast<volatile std::uint8_t*>(initial + 3 * page), 0);
}

TEST_F(brk_handler_test, the_first_page_stays) {
  EXPECT_EQ(brk_handler(initial + page - 1), initial + page);
  EXPECT_EQ(brk_handler(initial - page), initial + page);
  EXPECT_EQ(brk_handler(1), initial + page);
}

TEST_F(brk_handler_test, the_first_page_may_be_one_of_64_kib) {
  brk_handler(initial + 0x20000);
  fake.page = 0x10000;
  EXPECT_EQ(brk_handler(initial + 0xf000), initial + 0x20000) << "below the first page";
  EXPECT_EQ(brk_handler(initial + 0x10000), initial + 0x10000);
}

TEST_F(brk_handler_test, growth_into_another_mapping_leaves_the_break) {
  void* obstacle = reinterpret_cast<void*>(initial + 3 * page);
  ASSERT_EQ(mmap(obstacle, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0), obstacle);
  EXPECT_EQ(brk_handler(initial + 4 * page), initial + page);
  EXPECT_EQ(brk_handler(initial + 3 * page), initial + 3 * page);
}

TEST_F(brk_handler_test, the_system_call_returns_the_break) {
  EXPECT_EQ(handled(SYS_brk, {initial + 3 * page}), static_cast<std::int64_t>(initial + 3 * page));
  EXPECT_EQ(handled(SYS_brk, {0}), static_cast<std::int64_t>(initial + 3 * page));
}

}  // namespace
}  // namespace ceilmeter::test
