// The compiler's routine cleans the data cache to the point of unification, then invalidates the instruction cache,
// line by line; the sizes of lines, and whether the processor wants either, are CTR_EL0's. Between the two and behind
// them all accesses wait for each other (DSB), and in the end this processor drops what it has fetched ahead (ISB).
#include "bi/code/written_code.h"

#include "bi/code/code_words.h"
#include "bi/mora.h"

namespace ceilmeter {

void clear_instruction_cache(const void* begin, const void* end) {
  __builtin___clear_cache(static_cast<char*>(const_cast<void*>(begin)), static_cast<char*>(const_cast<void*>(end)));
}

void maintain_at_once(written_code& written, const void* begin, const void* end) {
  maintain_written(written);
  clear_instruction_cache(begin, end);
}

void maintain_written(written_code& written) {
  for (std::uint32_t index = 0; index < written.count; ++index) {
    const written_range& range = written.ranges[index];
    clear_instruction_cache(reinterpret_cast<const void*>(range.begin), reinterpret_cast<const void*>(range.end));
  }
  written.count = 0;
}

}  // namespace ceilmeter
