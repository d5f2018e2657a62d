// The time that the tracer's report takes after a run in which many threads have all run the same blocks of real
// modules.
//
//   tracer_report [--threads N] [--blocks N] MODULE...
//
// The blocks are cut from the modules' executable segments at branch instructions, as a run would find them, up to the
// number asked for. No application runs: this program makes the records that the tracer's callbacks would have left.
#include <elf.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bintracer/bintracer.h"
#include "collector_config.h"

namespace ceilmeter {

namespace {

struct block {
  std::uint64_t start;
  std::uint64_t end;
};

// Direct, conditional and register branches: bits 28:26 are 101 in all of them.
bool is_branch(std::uint32_t word) { return (word & 0x1c000000) == 0x14000000; }

template <typename record>
record record_at(const std::string& content, std::size_t offset) {
  record result{};
  if (offset + sizeof result <= content.size()) std::memcpy(&result, content.data() + offset, sizeof result);
  return result;
}

// Maps the module's code at `next_address` and cuts it into blocks.
void add_module(const char* path, bintracer_t& tracer, std::uint64_t& next_address, std::vector<block>& blocks) {
  std::ifstream stream(path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), {}};
  const auto header = record_at<Elf64_Ehdr>(content, 0);
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) return;
  constexpr int fd = 3;
  tracer.register_fd_name(fd, path);
  for (std::size_t index = 0; index < header.e_phnum; ++index) {
    const auto segment = record_at<Elf64_Phdr>(content, header.e_phoff + index * header.e_phentsize);
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
    const std::uint64_t size = (segment.p_filesz + 0xfff) & ~std::uint64_t{0xfff};
    tracer.register_mmap(next_address, next_address + size, segment.p_offset, 5, 2, fd);
    block current{next_address, next_address};
    for (std::uint64_t offset = 0; offset + 4 <= segment.p_filesz; offset += 4) {
      current.end += 4;
      if (!is_branch(record_at<std::uint32_t>(content, segment.p_offset + offset))) continue;
      blocks.push_back(current);
      current = {current.end, current.end};
    }
    next_address += size + 0x10000;
  }
}

int run(int argc, char** argv) {
  std::size_t thread_count = 8;
  std::size_t block_count = 60000;
  int word = 1;
  for (; word + 1 < argc && std::strncmp(argv[word], "--", 2) == 0; word += 2) {
    const std::size_t number = std::strtoul(argv[word + 1], nullptr, 0);
    (std::strcmp(argv[word], "--threads") == 0 ? thread_count : block_count) = number;
  }
  bintracer_t tracer([](std::uint64_t, std::uint64_t) { return std::uint64_t{0}; }, MODE_TOTAL);
  std::vector<block> blocks;
  std::uint64_t next_address = 0x400000;
  for (; word < argc; ++word) add_module(argv[word], tracer, next_address, blocks);
  // The blocks are taken from all modules evenly.
  std::vector<block> chosen;
  const std::size_t wanted = std::min(block_count, blocks.size());
  for (std::size_t index = 0; index < wanted; ++index) chosen.push_back(blocks[index * blocks.size() / wanted]);

  for (std::size_t number = 0; number < thread_count; ++number) {
    bintracer_thread thread;
    tracer.init_thread(thread);
    for (const block& at : chosen) {
      thread.blocks.add(at.start).record = {number + 1, at.start, at.end, tracer.search_segment(at.start)};
    }
    tracer.finish_thread(thread);
  }

  const auto before = std::chrono::steady_clock::now();
  const std::clock_t busy_before = std::clock();
  const bintracer_report report = tracer.get_report();
  const double busy = static_cast<double>(std::clock() - busy_before) / CLOCKS_PER_SEC;
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - before;
  std::size_t counted = 0;
  for (const bintracer_region& region : report.regions) counted += region.bbs.size();
  std::printf(
      "%zu threads with %zu blocks each: %zu blocks with floating-point work, get_report took %.3f s, %.3f s of them "
      "on a processor\n",
      thread_count, chosen.size(), counted, seconds.count(), busy);
  return 0;
}

}  // namespace
}  // namespace ceilmeter

int main(int argc, char** argv) { return ceilmeter::run(argc, argv); }
