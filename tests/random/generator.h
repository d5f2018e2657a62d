// Makes a random program from a seed. Every program ends, whatever its registers hold: control goes forwards only, or
// back by a counter in memory that every backward branch lowers, and functions call only functions that were made
// before them. No register is reserved: counters, return addresses and bases are loaded where they are used.
#pragma once

#include <cstdint>
#include <vector>

#include "encodings.h"
#include "program.h"
#include "random_source.h"

namespace ceilmeter {

// The program's instructions are between 1,000 and 10,000; its execution takes a few hundred thousand.
class generator {
 public:
  generator(const encoding_set& encodings, std::uint64_t seed);
  program make();

 private:
  struct callee {
    std::uint32_t function;
    std::uint64_t cost;  // Instructions executed by one call, at most.
  };

  // Structure: generator.cpp.
  void make_function(std::uint32_t words, std::uint64_t most_cost);
  void make_main(std::uint32_t words);
  void make_block(std::uint32_t words, std::uint32_t rounds, std::uint32_t depth);
  void make_loop(std::uint32_t words, std::uint32_t rounds, std::uint32_t depth);
  void put_loop_branch(item& back, std::uint32_t kind, const place& top, std::uint32_t counter);
  void make_item();
  void finish_function(std::uint32_t exit_item);
  void shuffle_functions();
  std::uint64_t room() const { return cost_ < most_cost_ ? most_cost_ - cost_ : 0; }

  // Arithmetic and memory: data_items.cpp.
  void data_item();
  void constant_item();
  void memory_item();
  void exclusive_item();
  void stack_item();
  void record_item();
  std::uint32_t table_word(const encoding& row);
  void load_base(item& to, std::uint32_t reg, std::uint64_t address);

  // Control: branch_items.cpp.
  void branch_item();
  void register_branch_item();
  void table_branch_item();
  void call_item();
  void backward_item();
  void island_item();
  void literal_item();
  void address_item();
  void load_place(item& to, std::uint32_t reg, place where);
  void conditional_branch(item& to, place where, std::uint64_t addend);
  void conditional_branch_back(item& to, std::int32_t words);
  place ahead();
  std::uint32_t table_entry(place where);

  // System registers and calls: system_items.cpp.
  void system_item();
  void cache_item();
  void syscall_item();
  void put_syscall(item& to, std::uint32_t number);
  void put_mapping_calls(item& to);

  // The program's beginning and end: frame.cpp.
  void begin_main();
  void end_main();

  item& start(const char* kind, const char* detail = "");
  void done();
  std::uint32_t any_register();
  std::uint32_t other_register(std::initializer_list<std::uint32_t> taken);
  std::uint64_t data_address(std::uint64_t offset) const { return made_.base + offset; }

  const encoding_set& encodings_;
  random_source random_;
  program made_;
  std::vector<callee> callees_;
  function* current_ = nullptr;
  std::uint32_t current_index_ = 0;
  std::uint64_t cost_ = 0;  // Of the function being made, executed as often as it can be.
  std::uint64_t most_cost_ = 0;
  std::uint32_t rounds_ = 1;  // How often the item being made is executed for one call of its function.
  std::uint32_t size_ = 0;    // Words of the function so far.
};

}  // namespace ceilmeter
