// create_trace answers the counter stub, which every block that ends in a direct branch calls each 256th time.
#include "bi/traces.h"

#include "bi/stubs.h"
#include "common/log.h"

namespace ceilmeter {

namespace {
constexpr engine_log log{"src/bi/traces"};
}  // namespace

extern "C" void create_trace(thread_data* thread, std::int32_t source_index, std::uint64_t* ret) {
  // The block begins anew. Its counter has just come to 0 and so lets it pass this time.
  const bb_meta& head = thread->metas[source_index];
  ret[0] = head.cache_entry;
  ret[1] = head.source_addr;
}

void trace_dispatcher(std::uint64_t target, std::uint64_t*, std::int32_t source_index, thread_data*) {
  log(LEVEL_FATAL, "fragment %d has left for 0x%lx, but there are no traces", source_index, target);
}

}  // namespace ceilmeter
