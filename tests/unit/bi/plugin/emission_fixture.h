// The fixture of the tests of the emission services, and the code that an assembler makes of the same instructions.
#pragma once

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

#include "plugin_fixture.h"

namespace ceilmeter::test {

extern "C" {
struct expected_sequence {
  const char* name;
  const std::uint32_t* begin;
  const std::uint32_t* end;
};
extern const expected_sequence expected_code[];
extern const expected_sequence expected_code_end[];
}

inline words expected(const char* name) {
  for (const expected_sequence* sequence = expected_code; sequence != expected_code_end; ++sequence) {
    if (std::strcmp(sequence->name, name) == 0) return {sequence->begin, sequence->end};
  }
  throw std::runtime_error(std::string("no such sequence: ") + name);
}

class plugin_emission_test : public plugin_test {
 protected:
  // What the service writes. Empty if it refuses; then it must not have written anything.
  words written(const std::function<int(mora_context*)>& emit) {
    ctx = scan_context();
    start = ctx.write_p;
    if (emit(&ctx) == 0) return {start, ctx.write_p};
    EXPECT_EQ(ctx.write_p, start) << "a refused service has written";
    return {};
  }

  bool refuses(const std::function<int(mora_context*)>& emit) {
    ctx = scan_context();
    start = ctx.write_p;
    return emit(&ctx) == -1 && ctx.write_p == start;
  }

  mora_context ctx{};
  std::uint32_t* start = nullptr;
};

inline std::uint64_t address_behind(const mora_context* c, std::int64_t offset) {
  return reinterpret_cast<std::uint64_t>(c->write_p) + static_cast<std::uint64_t>(offset);
}

// The function that guarded calls are to call. It is never run.
inline void some_function(int, int) {}

}  // namespace ceilmeter::test
