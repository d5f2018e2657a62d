// mmap, mprotect, munmap, mremap, shmat and shmdt as the application makes them.
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "bi/code/readable_pages.h"
#include "bi/code/translated_pages.h"
#include "bi/kernel/vm_ops.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t anonymous = MAP_PRIVATE | MAP_ANONYMOUS;
constexpr std::uint64_t no_file = ~std::uint64_t{0};

class memory_calls : public syscalls_test {
 protected:
  std::uint64_t map(std::uint64_t size, std::uint64_t prot) {
    return static_cast<std::uint64_t>(handled(SYS_mmap, {0, size, prot, anonymous, no_file, 0}));
  }
  void map_over(std::uint64_t address, std::uint64_t prot) {
    const auto at = static_cast<std::int64_t>(address);
    EXPECT_EQ(handled(SYS_mmap, {address, fake.page, prot, anonymous | MAP_FIXED, no_file, 0}), at);
  }
  // Acts as a thread that has translated that many words from that address on.
  static void was_translated(std::uint64_t address, std::uint64_t words = 1) {
    mark_translated(address, address + words * 4);
  }
  static std::int64_t known(std::uint64_t address, std::uint64_t size) {
    return interval_map_overlapping(&engine.exec_ranges, address, address + size);
  }
};

TEST_F(memory_calls, an_executable_only_mapping_is_readable_and_not_executable_and_is_known_as_code) {
  const std::uint64_t address = map(fake.page, PROT_EXEC);
  EXPECT_EQ(permissions_at(address), "r--p");
  EXPECT_EQ(known(address, fake.page), 1);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, a_mapping_keeps_its_other_permissions) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_WRITE | PROT_EXEC);
  EXPECT_EQ(permissions_at(address), "rw-p");
  EXPECT_EQ(known(address, fake.page), 1);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, a_mapping_that_is_not_executable_is_not_known_as_code) {
  const std::uint64_t address = map(fake.page, PROT_WRITE);
  EXPECT_EQ(known(address, fake.page), 0);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, the_known_range_is_of_whole_pages) {
  const std::uint64_t address = map(fake.page + 1, PROT_READ | PROT_EXEC);
  EXPECT_EQ(known(address + 2 * fake.page - 1, 1), 1);
  EXPECT_EQ(known(address + 2 * fake.page, 1), 0);
  munmap(reinterpret_cast<void*>(address), 2 * fake.page);
}

TEST_F(memory_calls, the_known_range_is_of_whole_pages_of_64_kib) {
  void* room = mmap(nullptr, 0x40000, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const std::uint64_t address = (address_of(room) + 0xffff) & ~std::uint64_t{0xffff};
  fake.page = 0x10000;
  handled(SYS_mmap, {address, 0x10001, PROT_READ | PROT_EXEC, anonymous | MAP_FIXED, no_file, 0});
  EXPECT_EQ(known(address, 1), 1);
  EXPECT_EQ(known(address + 0x1ffff, 1), 1);
  EXPECT_EQ(known(address + 0x20000, 1), 0);
  handled(SYS_munmap, {address + 0x10000, 1});
  EXPECT_EQ(known(address + 0x10000, 0x10000), 0);
  EXPECT_EQ(known(address, 0x10000), 1);
  munmap(room, 0x40000);
}

TEST_F(memory_calls, nobody_takes_the_rest_of_a_stack_for_readable_once_its_thread_has_ended) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_WRITE);
  remember_readable(address, mapping_state(address));
  ASSERT_TRUE(is_known_readable(address));
  unmap_kept_stack({address, fake.page});
  EXPECT_FALSE(is_known_readable(address));
  EXPECT_EQ(msync(reinterpret_cast<void*>(address), fake.page, MS_ASYNC), -1);
}

// Each question to the kernel is a system call that a filter of the application's may judge.
TEST_F(memory_calls, what_is_mapped_and_unmapped_elsewhere_leaves_code_known_as_readable) {
  constexpr std::uint64_t region = 2 << 20;
  const std::uint64_t room = map(3 * region, PROT_READ | PROT_WRITE);
  const std::uint64_t code = room;
  remember_readable(code, mapping_state(code));
  const std::uint64_t other = map(fake.page, PROT_READ | PROT_WRITE);
  handled(SYS_munmap, {other, fake.page});
  handled(SYS_munmap, {room + 2 * region, fake.page});
  handled(SYS_mprotect, {code, fake.page, PROT_READ});
  EXPECT_TRUE(is_known_readable(code));
  handled(SYS_munmap, {room, 3 * region});
}

TEST_F(memory_calls, what_may_take_a_page_away_has_the_kernel_asked_again) {
  const std::uint64_t code = map(fake.page, PROT_READ | PROT_WRITE);
  const auto is_forgotten_by = [&](std::uint64_t number, std::initializer_list<std::uint64_t> values) {
    remember_readable(code, mapping_state(code));
    EXPECT_TRUE(is_known_readable(code));
    handled(number, values);
    return !is_known_readable(code);
  };
  EXPECT_TRUE(is_forgotten_by(SYS_mprotect, {code, fake.page, PROT_NONE}));
  EXPECT_TRUE(is_forgotten_by(SYS_mmap, {code, fake.page, PROT_READ, anonymous | MAP_FIXED, no_file, 0}));
  EXPECT_TRUE(is_forgotten_by(SYS_mremap, {code, fake.page, 2 * fake.page, MREMAP_MAYMOVE}));
  EXPECT_TRUE(is_forgotten_by(SYS_munmap, {code, fake.page}));
  EXPECT_TRUE(is_forgotten_by(SYS_munmap, {0, ~std::uint64_t{0}})) << "more than all regions";
  EXPECT_TRUE(is_forgotten_by(SYS_shmdt, {1}));
}

TEST_F(memory_calls, the_arguments_keep_their_values) {
  const std::uint64_t address = map(fake.page, PROT_EXEC);
  EXPECT_EQ(args[1], fake.page);
  EXPECT_EQ(args[2], std::uint64_t{PROT_EXEC});
  EXPECT_EQ(args[3], anonymous);
  handled(SYS_mprotect, {address, fake.page, PROT_EXEC});
  EXPECT_EQ(args[2], std::uint64_t{PROT_EXEC});
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, an_error_of_mmap_is_returned_and_nothing_becomes_known) {
  EXPECT_EQ(handled(SYS_mmap, {0, fake.page, PROT_EXEC, MAP_PRIVATE, 9999, 0}), -EBADF);
  EXPECT_EQ(handled(SYS_mmap, {0, 0, PROT_EXEC, anonymous, no_file, 0}), -EINVAL);
  EXPECT_EQ(engine.exec_ranges.count, 0);
}

TEST_F(memory_calls, memory_made_executable_stays_readable_and_not_executable_and_is_no_new_range) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_WRITE);
  EXPECT_EQ(handled(SYS_mprotect, {address, fake.page, PROT_EXEC}), 0);
  EXPECT_EQ(permissions_at(address), "r--p");
  EXPECT_EQ(known(address, fake.page), 0);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, unmapping_what_was_translated_drops_it_once_and_nothing_else) {
  const std::uint64_t address = map(2 * fake.page, PROT_READ | PROT_WRITE);
  was_translated(address);
  handled(SYS_munmap, {address + fake.page, fake.page});
  EXPECT_EQ(fake.flushes, 0);
  handled(SYS_munmap, {address, fake.page});
  EXPECT_EQ(fake.flushes, 1);
  map_over(address, PROT_READ);
  EXPECT_EQ(fake.flushes, 1);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, code_that_nobody_has_translated_may_come_and_go_for_nothing) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_EXEC);
  handled(SYS_mprotect, {address, fake.page, PROT_READ | PROT_WRITE});
  handled(SYS_mprotect, {address, fake.page, PROT_READ | PROT_EXEC});
  map_over(address, PROT_READ | PROT_EXEC);
  handled(SYS_munmap, {address, fake.page});
  EXPECT_EQ(fake.flushes, 0);
  EXPECT_EQ(engine.code_epoch, 0u);
}

TEST_F(memory_calls, what_was_translated_and_becomes_writable_is_dropped) {
  const std::uint64_t address = map(2 * fake.page, PROT_READ | PROT_EXEC);
  was_translated(address + fake.page - 8, 2);  // Up to the page's end.
  handled(SYS_mprotect, {address + fake.page, fake.page, PROT_READ | PROT_WRITE});
  EXPECT_EQ(fake.flushes, 0);
  handled(SYS_mprotect, {address, fake.page, PROT_READ | PROT_WRITE | PROT_EXEC});
  EXPECT_EQ(fake.flushes, 1);
  handled(SYS_mprotect, {address, fake.page, PROT_READ | PROT_EXEC});
  EXPECT_EQ(fake.flushes, 1);
  munmap(reinterpret_cast<void*>(address), 2 * fake.page);
}

TEST_F(memory_calls, a_mapping_over_what_was_translated_drops_it) {
  const std::uint64_t address = map(2 * fake.page, PROT_READ | PROT_EXEC);
  was_translated(address + fake.page - 8, 3);  // A word of the second page, too.
  map_over(address + fake.page, PROT_READ);
  EXPECT_EQ(fake.flushes, 1);
  munmap(reinterpret_cast<void*>(address), 2 * fake.page);
}

TEST_F(memory_calls, what_moves_is_dropped_at_both_places) {
  const std::uint64_t old_place = map(fake.page, PROT_READ | PROT_EXEC);
  const std::uint64_t new_place = map(fake.page, PROT_READ);
  was_translated(old_place);
  was_translated(new_place);
  handled(SYS_mremap, {old_place, fake.page, fake.page, MREMAP_MAYMOVE | MREMAP_FIXED, new_place});
  EXPECT_EQ(fake.flushes, 2);
  munmap(reinterpret_cast<void*>(new_place), fake.page);
}

TEST_F(memory_calls, an_error_of_mprotect_is_returned) {
  EXPECT_EQ(handled(SYS_mprotect, {1, fake.page, PROT_EXEC}), -EINVAL);
}

TEST_F(memory_calls, unmapping_code_makes_it_unknown_and_drops_it) {
  const std::uint64_t address = map(2 * fake.page, PROT_READ | PROT_EXEC);
  was_translated(address + 2 * fake.page - 4);
  EXPECT_EQ(handled(SYS_munmap, {address + fake.page, fake.page - 5}), 0);
  EXPECT_EQ(fake.flushes, 1);
  EXPECT_EQ(known(address + fake.page, fake.page), 0);
  EXPECT_EQ(known(address, fake.page), 1);
  EXPECT_FALSE(is_readable_memory(address + fake.page));
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, a_munmap_that_fails_makes_nothing_unknown) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_EXEC);
  EXPECT_EQ(handled(SYS_munmap, {address + 1, fake.page}), -EINVAL);
  EXPECT_EQ(known(address, fake.page), 1);
  EXPECT_EQ(fake.flushes, 0);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

TEST_F(memory_calls, mremap_moves_the_memory_and_the_known_range_stays) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_EXEC);
  const auto moved =
      static_cast<std::uint64_t>(handled(SYS_mremap, {address, fake.page, 8 * fake.page, MREMAP_MAYMOVE}));
  EXPECT_TRUE(is_readable_memory(moved + 8 * fake.page - 1));
  EXPECT_EQ(known(address, fake.page), 1);
  EXPECT_EQ(fake.flushes, 0);
  munmap(reinterpret_cast<void*>(moved), 8 * fake.page);
}

TEST_F(memory_calls, a_mremap_that_fails_flushes_nothing) {
  const std::uint64_t address = map(fake.page, PROT_READ | PROT_EXEC);
  EXPECT_EQ(handled(SYS_mremap, {address + 1, fake.page, fake.page, 0}), -EINVAL);
  EXPECT_EQ(fake.flushes, 0);
  munmap(reinterpret_cast<void*>(address), fake.page);
}

class shared_segments : public memory_calls {
 protected:
  shared_segments() : id(shmget(IPC_PRIVATE, 3 * fake.page, IPC_CREAT | 0700)) {}
  ~shared_segments() override { shmctl(id, IPC_RMID, nullptr); }
  int id;
};

TEST_F(shared_segments, an_executable_attachment_is_known_as_code_over_the_segments_size) {
  ASSERT_GE(id, 0);
  const auto address = static_cast<std::uint64_t>(handled(SYS_shmat, {static_cast<std::uint64_t>(id), 0, SHM_EXEC}));
  EXPECT_EQ(known(address + 3 * fake.page - 1, 1), 1);
  EXPECT_EQ(known(address + 3 * fake.page, 1), 0);
  shmdt(reinterpret_cast<void*>(address));
}

TEST_F(shared_segments, an_error_of_shmat_is_returned_and_nothing_becomes_known) {
  EXPECT_EQ(handled(SYS_shmat, {static_cast<std::uint64_t>(id), 1, SHM_EXEC}), -EINVAL);
  EXPECT_EQ(engine.exec_ranges.count, 0);
}

TEST_F(shared_segments, detaching_detaches_and_makes_the_code_of_the_segment_unknown) {
  const auto address = static_cast<std::uint64_t>(handled(SYS_shmat, {static_cast<std::uint64_t>(id), 0, SHM_EXEC}));
  const auto other = static_cast<std::uint64_t>(handled(SYS_shmat, {static_cast<std::uint64_t>(id), 0, SHM_EXEC}));
  was_translated(address);
  was_translated(other);
  EXPECT_EQ(handled(SYS_shmdt, {address}), 0);
  EXPECT_FALSE(is_readable_memory(address));
  EXPECT_EQ(known(address, 3 * fake.page), 0);
  EXPECT_EQ(fake.flushes, 1);
  EXPECT_EQ(known(other, 3 * fake.page), 1);
  EXPECT_EQ(handled(SYS_shmdt, {other}), 0);
  EXPECT_EQ(engine.attached_segments.count, 0);
}

TEST_F(shared_segments, detaching_where_nothing_is_attached_is_the_kernels_error) {
  const auto address = static_cast<std::uint64_t>(handled(SYS_shmat, {static_cast<std::uint64_t>(id), 0, 0}));
  EXPECT_EQ(handled(SYS_shmdt, {address + fake.page}), -EINVAL);
  EXPECT_TRUE(is_readable_memory(address));
  EXPECT_EQ(handled(SYS_shmdt, {address}), 0);
  EXPECT_EQ(handled(SYS_shmdt, {address}), -EINVAL);
}

}  // namespace
}  // namespace ceilmeter::test
