// Runs a program natively and under the engine: whether the two differ, how, and the smallest part that still differs.
#pragma once

#include <string>
#include <vector>

#include "process.h"
#include "program.h"

namespace ceilmeter {

struct test_bed {
  std::vector<std::string> emulator;  // What runs AArch64 programs; empty on such a machine.
  std::vector<std::string> engine;    // The command that a program is given behind, an emulator included.
  std::string scratch;                // Where the program's file is written.
  unsigned seconds;
};

struct comparison {
  outcome native;
  outcome engine;
  bool valid;  // The program itself came to its proper end, natively.
  bool differs() const { return valid && !(native == engine); }
};

comparison compare(const test_bed& bed, const image& what);

// Lines that name each register and part of the outcome that is not the same.
std::string describe_difference(const comparison& result, bool has_sve);

// Leaves out of the program all that it can while the two runs still differ. `runs`, if not null, becomes the number of
// comparisons that this took.
program shrink(const test_bed& bed, program made, unsigned* runs);

// The items that are left, a line for each word: address, word, class, item.
std::string list_items(const program& made);

// The number of instructions of the remaining items, without the program's beginning and end.
std::size_t count_words(const program& made);

// A case file: the program with all its words, and the listing as comments.
std::string write_case(const program& made, const std::string& difference);
// False if the text is no case file.
bool read_case(const std::string& text, image* what);

}  // namespace ceilmeter
