// What becomes of the robust mutexes of a thread that ends.
#include "bi/kernel/robust_list.h"

#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <unistd.h>

namespace ceilmeter::test {
namespace {

constexpr std::int32_t own = 4711;
constexpr std::uint32_t other = 4712;

struct mutex {
  std::uint64_t next = 0;
  std::uint64_t filler = 0;
  std::uint32_t futex = own;
};

struct list_head {
  std::uint64_t first = 0;
  std::int64_t offset = offsetof(mutex, futex);
  std::uint64_t pending = 0;
};

std::uint64_t address_of(const void* place) { return reinterpret_cast<std::uint64_t>(place); }

class robust_list : public testing::Test {
 protected:
  robust_list() {
    head.first = address_of(&first);
    first.next = address_of(&second);
    second.next = address_of(&head);
  }
  void settle() { settle_robust_list(address_of(&head), own); }

  list_head head;
  mutex first;
  mutex second;
};

TEST_F(robust_list, the_owner_of_each_is_marked_as_dead) {
  settle();
  EXPECT_EQ(first.futex, std::uint32_t{FUTEX_OWNER_DIED});
  EXPECT_EQ(second.futex, std::uint32_t{FUTEX_OWNER_DIED});
}

TEST_F(robust_list, that_somebody_waits_stays_noted) {
  first.futex = own | FUTEX_WAITERS;
  settle();
  EXPECT_EQ(first.futex, FUTEX_WAITERS | FUTEX_OWNER_DIED);
}

TEST_F(robust_list, another_threads_mutex_is_left_alone) {
  first.futex = other | FUTEX_WAITERS;
  settle();
  EXPECT_EQ(first.futex, other | FUTEX_WAITERS);
  EXPECT_EQ(second.futex, std::uint32_t{FUTEX_OWNER_DIED});
}

TEST_F(robust_list, one_with_priority_inheritance_is_left_to_the_kernel) {
  head.first |= 1;
  settle();
  EXPECT_EQ(first.futex, static_cast<std::uint32_t>(own));
  EXPECT_EQ(second.futex, std::uint32_t{FUTEX_OWNER_DIED});
}

TEST_F(robust_list, one_that_was_about_to_be_listed_counts) {
  mutex pending;
  head.pending = address_of(&pending);
  settle();
  EXPECT_EQ(pending.futex, std::uint32_t{FUTEX_OWNER_DIED});
}

TEST_F(robust_list, an_empty_one_and_none_are_no_matter) {
  head.first = address_of(&head);
  settle();
  EXPECT_EQ(first.futex, static_cast<std::uint32_t>(own));
  settle_robust_list(0, own);
}

TEST_F(robust_list, a_circle_ends) {
  second.next = address_of(&first);
  settle();
  EXPECT_EQ(second.futex, std::uint32_t{FUTEX_OWNER_DIED});
}

TEST_F(robust_list, memory_that_is_gone_ends_it) {
  void* nothing =
      mmap(nullptr, static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  second.next = address_of(nothing);
  settle();
  EXPECT_EQ(second.futex, std::uint32_t{FUTEX_OWNER_DIED});
  settle_robust_list(address_of(nothing), own);
}

}  // namespace
}  // namespace ceilmeter::test
