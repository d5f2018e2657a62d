// Adds up the floating-point work of a list of executed instruction words: lines "WORD COUNT", the word in hexadecimal,
// on standard input; the sum, in words too if asked by -v, on standard output. The list comes from outside of the tool.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "a64/classifier.h"
#include "a64/instr_flop.h"

int main(int argc, char** argv) {
  const bool verbose = argc > 1 && std::strcmp(argv[1], "-v") == 0;
  std::uint64_t total = 0;
  std::uint32_t word = 0;
  std::uint64_t executed = 0;
  while (std::scanf("%" SCNx32 " %" SCNu64, &word, &executed) == 2) {
    ceilmeter::instr_flop work{0, 0, 0, 1};
    if (ceilmeter::get_instr_flop(word, work) != 0) continue;
    const std::uint64_t sum = executed * work.count * work.multiplier;
    if (verbose) std::printf("%08x %s %lu\n", word, ceilmeter::instruction_mnemonic(word), sum);
    total += sum;
  }
  std::printf("%lu\n", total);
  return 0;
}
