// Code that the application has generated, a just-in-time compiler's for instance. No file has its instructions when
// the application has ended, and the place in memory may have other code by then. So each block of it is kept with its
// words as they were when it was translated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace ceilmeter {

// What the result file has in the place of a block's file.
inline constexpr char generated_module_name[] = "[generated]";

// One block as it was once. Never changed.
struct generated_code {
  std::uint64_t start = 0;
  std::uint32_t version = 0;  // From 1 on, among the blocks that have begun at `start` one after the other.
  std::vector<std::uint32_t> words;
};

// All of them, for all threads. A block that several threads have translated, or one thread more than once, is kept
// once: equal blocks are one record, and records are told apart by their addresses.
class generated_code_store {
 public:
  // The record of the block. It lives as long as the store. Any thread.
  const generated_code* keep(std::uint64_t start, const std::uint32_t* words, std::size_t count);

 private:
  std::mutex lock;
  std::unordered_map<std::uint64_t, std::vector<std::unique_ptr<const generated_code>>> blocks;  // By start. Under it.
};

}  // namespace ceilmeter
