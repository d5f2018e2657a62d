#include "bintracer/generated_code.h"

#include <algorithm>

namespace ceilmeter {

const generated_code* generated_code_store::keep(std::uint64_t start, const std::uint32_t* words, std::size_t count) {
  const std::lock_guard guard(lock);
  auto& versions = blocks[start];
  // The newest first: it is the one that other threads are translating.
  const auto same = std::find_if(versions.rbegin(), versions.rend(), [&](const auto& known) {
    return std::equal(known->words.begin(), known->words.end(), words, words + count);
  });
  if (same != versions.rend()) return same->get();
  auto added = std::make_unique<generated_code>();
  added->start = start;
  added->version = static_cast<std::uint32_t>(versions.size() + 1);
  added->words.assign(words, words + count);
  return versions.emplace_back(std::move(added)).get();
}

}  // namespace ceilmeter
