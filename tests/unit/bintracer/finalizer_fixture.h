// What the tests of the tracer's finalizer share: words of known work, and a tracer whose threads have run blocks of
// modules of the tests' own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "../support/scratch_folder.h"
#include "bintracer/bintracer_finalizer.h"
#include "fake_engine.h"

namespace ceilmeter::test {

inline constexpr std::uint32_t nop = 0xd503201f;
inline constexpr std::uint32_t fadd_double = 0x1e602820;        // fadd d0, d1, d0: 1 operation.
inline constexpr std::uint32_t fmadd_double = 0x1f420c20;       // fmadd d0, d1, d2, d3: 2.
inline constexpr std::uint32_t fmla_two_doubles = 0x4e60cc20;   // fmla v0.2d, v1.2d, v0.2d: 4.
inline constexpr std::uint32_t fadd_four_singles = 0x4e20d420;  // fadd v0.4s, v1.4s, v0.4s: 4.
inline constexpr std::uint32_t fadd_half = 0x1ee02820;          // fadd h0, h1, h0: 1.
inline constexpr std::uint32_t sve_fmla_doubles = 0x64e00000;   // fmla z0.d, z0.d, z0.d[0]: 4 lanes as counted.
inline constexpr std::uint32_t sve_fmul_singles = 0x64a02000;   // fmul z0.s, z0.s, z0.s[0]: 4 lanes as counted.

inline constexpr std::uint64_t code = 0x10000;  // Where modules are mapped.

class tracer_finalizer : public ::testing::Test {
 protected:
  void start(std::uint32_t mode) { tracer = &start_tracer(mode); }

  // A file with these words from `file_offset` on, mapped at `begin` from there.
  std::string map_module(const std::vector<std::uint32_t>& words, std::uint64_t begin = code,
                         std::uint64_t file_offset = 0, const std::string& name = "module") {
    const std::string path = folder / name;
    {
      std::ofstream stream(path, std::ios::binary);
      stream.seekp(static_cast<std::streamoff>(file_offset));
      stream.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 4));
    }
    const int fd = next_fd++;
    tracer->register_fd_name(fd, path);
    tracer->register_mmap(begin, begin + 0x4000, file_offset, 5, 2, fd);
    return path;
  }

  bintracer_thread& begin_thread(std::uint32_t tid = 1) {
    threads.push_back(std::make_unique<bintracer_thread>());
    threads.back()->tid = tid;
    tracer->init_thread(*threads.back());
    return *threads.back();
  }

  // Acts as if the thread had run a block of that many words that many times.
  void run(bintracer_thread& thread, std::uint64_t start, std::size_t words, std::uint64_t times) const {
    thread.blocks.add(start).record = {times, start, start + words * 4, tracer->search_segment(start)};
  }

  // Acts as if the thread had run a block of generated code that begins at `start` and has these words.
  void run_generated(bintracer_thread& thread, std::uint64_t start, const std::vector<std::uint32_t>& words,
                     std::uint64_t times) const {
    run(thread, start, words.size(), times);
    thread.blocks.find(start)->record.code = tracer->keep_code(start, words.data(), words.size());
  }

  basic_block_record metrics_of(const std::vector<std::uint32_t>& words) {
    map_module(words);
    instruction_finder finder;
    return metrics_of(finder, {1, code, code + words.size() * 4, tracer->search_segment(code)});
  }

  // As of the first thread that has run the block.
  static basic_block_record metrics_of(instruction_finder& finder, const bb_record& record) {
    block_work_table known;
    return calculate_bb_metrics(finder, record, known);
  }

  bintracer_report report(std::uint64_t max_thread_count = 1) const {
    instruction_finder finder;
    return finalize(finder, *tracer, max_thread_count);
  }

  const test::scratch_folder folder;
  bintracer_t* tracer = nullptr;
  std::vector<std::unique_ptr<bintracer_thread>> threads;
  int next_fd = 1000;
};

}  // namespace ceilmeter::test
