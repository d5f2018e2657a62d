// A thread's record with code cache and tables, and words for the scanner to read.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "bi/code/code_cache.h"
#include "bi/mora.h"

namespace ceilmeter::test {

using word_list = std::vector<std::uint32_t>;

// Words that many expectations use.
inline constexpr std::uint32_t NOP = 0xd503201f;
inline constexpr std::uint32_t POP_X0_X1 = 0xa8c107e0;    // ldp x0, x1, [sp], #16: the entry word.
inline constexpr std::uint32_t PUSH_X0_X1 = 0xa9bf07e0;   // stp x0, x1, [sp, #-16]!
inline constexpr std::uint32_t PUSH_X1_X30 = 0xa9bf7be1;  // stp x1, x30, [sp, #-16]!
inline constexpr std::uint32_t POP_X1_X30 = 0xa8c17be1;   // ldp x1, x30, [sp], #16
inline constexpr std::uint32_t PUSH_X2 = 0xf81f0fe2;      // str x2, [sp, #-16]!
inline constexpr std::uint32_t PUSH_X0 = 0xf81f0fe0;      // str x0, [sp, #-16]!
inline constexpr std::uint32_t POP_X0 = 0xf84107e0;       // ldr x0, [sp], #16
inline constexpr std::uint32_t PUSH_X1 = 0xf81f0fe1;      // str x1, [sp, #-16]!
inline constexpr std::uint32_t POP_X1 = 0xf84107e1;       // ldr x1, [sp], #16
inline constexpr std::uint32_t BR_X0 = 0xd61f0000;        // br x0
inline constexpr std::uint32_t RET = 0xd65f03c0;          // ret

// Source code of the tests, in source_code.S: a label for each piece.
#define SOURCE(name) extern "C" const std::uint32_t name[]

class engine_test : public testing::Test {
 protected:
  engine_test();
  ~engine_test() override;

  // The index of the block for the source, which this call scans.
  std::int32_t scan_block(const std::uint32_t* source);
  std::uint32_t* block(std::int32_t bb_id) const;
  word_list words(const std::uint32_t* from, std::size_t count) const { return {from, from + count}; }
  bb_meta& meta(std::int32_t bb_id) const { return thread->metas[bb_id]; }
  // The words that `write` writes at `place`, for words that depend on their address. The words at `place` are
  // restored.
  word_list written(const std::uint32_t* place, const std::function<void(std::uint32_t** write)>& write) const;
  // The counter code of a possible trace head, which follows its entry word.
  word_list counter_code(std::int32_t bb_id) const;
  // The last part of an exit: it loads target and index, then goes to the dispatcher.
  word_list branch_jump(const std::uint32_t* place, std::uint64_t target, std::int32_t bb_id) const;
  // Calls dispatcher for an exit of `source_index` and returns the cache address at which to go on.
  std::uint64_t dispatched(std::uint64_t target, std::int32_t source_index);
  // The noted places of branches to the block, newest first.
  std::vector<std::uint64_t> links_to(std::int32_t bb_id) const;

  thread_data* thread = nullptr;
  std::uint64_t source_of_next = 0;  // What the last call of dispatched has left as the source address.
};

// All parts, one behind the other.
word_list joined(const std::vector<word_list>& parts);

}  // namespace ceilmeter::test
