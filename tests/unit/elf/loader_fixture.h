// What tests that load images into their own process share: a scratch folder, a clean engine before, no mapping after.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <string>

#include "../support/scratch_folder.h"
#include "bi/mora.h"
#include "child_process.h"
#include "elf/elf_loader.h"
#include "elf_image.h"
#include "engine_fakes.h"

namespace ceilmeter::test {

// What one call of load_elf gives.
struct loaded {
  elf_aux_values aux{0xbad, 0xbad, 0xbad, 0xbad};
  std::uint64_t entry = 0xbad;
  Elf* elf = nullptr;
};

inline loaded load(const std::string& path) {
  loaded result;
  load_elf(path.c_str(), &result.elf, &result.aux, &result.entry, 0);
  return result;
}

class loader_fixture : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  // Each load uses the same fixed addresses again.
  static void reset() {
    for (const vm_report& report : vm_reports) munmap(reinterpret_cast<void*>(report.addr), report.size);
    vm_reports.clear();
    faked_page_size = kernel_page_size();
    mmap_refusal = nullptr;
    stack_limit = usual_stack_limit;
    engine.brk = 0;
  }

  scratch_folder folder;
};

inline std::string memory_at(std::uint64_t address, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(address), size);
}

}  // namespace ceilmeter::test
