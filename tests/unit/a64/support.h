// What the classifier's tests share: words in hexadecimal, and random words that reach the small encodings too.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>

#include "../support/hex.h"
#include "a64/classifier_rows.h"

namespace ceilmeter::test {

inline bool long_run() { return std::getenv("CEILMETER_LONG") != nullptr; }

// Random words come in batches, each a test with a seed of its own: in the usual run the first, of a million words, in
// the long one all, of ten million. Under emulation a batch stays small.
constexpr int BATCHES = 5;

inline int words_of_batch() {
#ifdef __aarch64__
  return 1'000'000;
#else
  return long_run() ? 10'000'000 : 1'000'000;
#endif
}

inline bool skips_batch(int batch) { return batch > 0 && !long_run(); }

// Any word and, as often, a word of a row that is chosen at random, a bit of it perhaps turned: most rows are too
// narrow for plain random words.
class random_words {
 public:
  explicit random_words(std::uint32_t seed) : m_random(seed) {}

  std::uint32_t next() {
    const std::uint32_t word = m_random();
    const std::uint32_t choice = m_random();
    if (choice % 2 == 0) return word;
    const classifier_row& row = classifier_rows[m_random() % classifier_row_count];
    const std::uint32_t of_row = row.value | (word & ~row.mask);
    return choice % 8 == 1 ? of_row ^ (1U << (choice >> 8) % 32) : of_row;
  }

 private:
  std::mt19937 m_random;
};

}  // namespace ceilmeter::test
