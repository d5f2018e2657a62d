// What the engine records of the application's memory.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "bi/code/translated_pages.h"
#include "bi/plugin.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint32_t executable = PROT_READ | PROT_EXEC;

class report_vm_op_test : public syscalls_test {
 protected:
  static void report(vm_op op, std::uint64_t addr, std::uint64_t size, std::uint32_t prot = 0, std::int32_t fd = -1,
                     std::uint64_t old_addr = 0) {
    report_vm_op(op, addr, size, prot, 0, fd, 0, old_addr, size);
  }
  static bool is_known(std::uint64_t address) {
    interval_entry entry{};
    return interval_map_search(&engine.exec_ranges, address, &entry) == 1;
  }
  static void watch(std::uint64_t address) {
    const std::uint8_t value[264] = {};
    ASSERT_EQ(robin_map_insert(&engine.function_watches, address, value, nullptr), ROBIN_ADDED);
  }
  static bool is_watched(std::uint64_t address) {
    return robin_map_lookup(&engine.function_watches, address) != nullptr;
  }
};

TEST_F(report_vm_op_test, an_executable_mapping_becomes_an_executable_range) {
  report(VM_MAP, 0x10000, 0x2000, executable);
  EXPECT_TRUE(is_known(0x10000));
  EXPECT_TRUE(is_known(0x11fff));
  EXPECT_FALSE(is_known(0x12000));
  EXPECT_EQ(fake.flushes, 0);
}

TEST_F(report_vm_op_test, a_mapping_that_is_not_executable_is_no_range) {
  report(VM_MAP, 0x10000, 0x2000, PROT_READ | PROT_WRITE);
  EXPECT_FALSE(is_known(0x10000));
}

TEST_F(report_vm_op_test, unmapping_code_drops_what_the_calling_thread_has_translated) {
  report(VM_MAP, 0x10000, 0x4000, executable);
  mark_translated(0x11000, 0x11040);
  report(VM_UNMAP, 0x11000, 0x1000);
  EXPECT_EQ(fake.flushes, 1);
  EXPECT_EQ(fake.flushed, thread);
  EXPECT_TRUE(is_known(0x10fff));
  EXPECT_FALSE(is_known(0x11000));
  EXPECT_TRUE(is_known(0x12000));
}

TEST_F(report_vm_op_test, unmapping_what_holds_no_code_flushes_nothing) {
  report(VM_MAP, 0x10000, 0x1000, executable);
  report(VM_UNMAP, 0x11000, 0x1000);
  EXPECT_EQ(fake.flushes, 0);
  EXPECT_TRUE(is_known(0x10000));
}

TEST_F(report_vm_op_test, unmapping_removes_the_watches_in_the_range_and_no_other) {
  for (const std::uint64_t address : {0xfff0, 0x10000, 0x10ffc, 0x11000}) watch(address);
  for (std::uint64_t address = 0x10100; address < 0x10200; address += 4) watch(address);
  report(VM_UNMAP, 0x10000, 0x1000);
  EXPECT_TRUE(is_watched(0xfff0));
  EXPECT_FALSE(is_watched(0x10000));
  EXPECT_FALSE(is_watched(0x10ffc));
  EXPECT_TRUE(is_watched(0x11000));
  EXPECT_EQ(engine.function_watches.count, 2u);
  EXPECT_EQ(robin_map_check(&engine.function_watches), 1);
}

TEST_F(report_vm_op_test, a_moved_range_stays_at_its_old_address) {
  report(VM_MAP, 0x10000, 0x2000, executable);
  report(VM_REMAP, 0x10000, 0x2000, 0x4000, -1, 0x10000);
  EXPECT_TRUE(is_known(0x10000));
  EXPECT_TRUE(is_known(0x11fff));
  EXPECT_FALSE(is_known(0x12000));
}

TEST_F(report_vm_op_test, a_moved_range_keeps_a_descriptor_of_its_file_and_leaves_no_other_open) {
  const int file = open("/proc/self/exe", O_RDONLY);
  const int before = open_descriptors();
  report(VM_MAP, 0x10000, 0x2000, executable, file);
  report(VM_REMAP, 0x10000, 0x2000, 0x2000, -1, 0x10000);
  EXPECT_EQ(open_descriptors(), before + 1);
  interval_entry entry{};
  ASSERT_EQ(interval_map_search(&engine.exec_ranges, 0x10000, &entry), 1);
  EXPECT_GE(fcntl(entry.fd, F_GETFD), 0) << "descriptor " << entry.fd;
  report(VM_UNMAP, 0x10000, 0x2000);
  EXPECT_EQ(open_descriptors(), before);
  close(file);
}

TEST_F(report_vm_op_test, moving_what_is_no_executable_range_changes_nothing) {
  report(VM_MAP, 0x10000, 0x1000, executable);
  report(VM_REMAP, 0x20000, 0x1000, 0x1000, -1, 0x20000);
  EXPECT_FALSE(is_known(0x20000));
  EXPECT_EQ(fake.flushes, 0);
}

TEST_F(report_vm_op_test, a_change_of_protection_adds_a_range_only_if_it_makes_executable) {
  report(VM_PROTECT, 0x10000, 0x1000, PROT_READ);
  EXPECT_FALSE(is_known(0x10000));
  report(VM_PROTECT, 0x10000, 0x1000, executable);
  EXPECT_TRUE(is_known(0x10000));
}

TEST_F(report_vm_op_test, neither_marker_of_the_loader_keeps_a_mapping_from_becoming_a_range) {
  char name[] = "/bin/sh";
  char* arguments[] = {name, nullptr};
  engine.argv = arguments;
  report_vm_op(VM_MAP, 0x10000, 0x1000, executable, VM_FLAG_INTERPRETER, -1, 0, 0, 0);
  EXPECT_TRUE(is_known(0x10000));
  report_vm_op(VM_MAP, 0x20000, 0x1000, executable, VM_FLAG_APPLICATION | VM_FLAG_INTERPRETER, -1, 0, 0, 0);
  EXPECT_TRUE(is_known(0x20000));
}

}  // namespace
}  // namespace ceilmeter::test
