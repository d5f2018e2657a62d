// The bandwidth benchmark, and libnuma, which is looked for at run time. Without libnuma the row "DDR Numa-local" loses
// its meaning, and nothing else changes.
#include "benchmarks/cachebw.h"

#include <dlfcn.h>

#include <climits>
#include <utility>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/benchmarks/cachebw"};

constexpr const char* libnuma_name = "libnuma.so.1";

// One million passes or a little less, so that the passes are a multiple of the elements. Passes are not elements. The
// number of elements is only borrowed: it makes a whole number of sweeps for every buffer that is a multiple of the
// pass.
std::uint64_t passes_per_call(std::uint64_t elements) {
  constexpr std::uint64_t million = 1'000'000;
  return elements < million ? million / elements * elements : elements;
}

// Holds libnuma as long as the process lives. Keeps the reason of a failure too, because dlerror gives it only once.
struct libnuma_library {
  void* handle = dlopen(libnuma_name, RTLD_LAZY);
  std::string reason;

  libnuma_library() {
    if (handle != nullptr) return;
    const char* text = dlerror();
    if (text != nullptr) reason = text;
  }
  libnuma_library(const libnuma_library&) = delete;
  libnuma_library& operator=(const libnuma_library&) = delete;
  ~libnuma_library() {
    if (handle != nullptr) dlclose(handle);
  }
};

}  // namespace

std::unique_ptr<data_alloc_numa> create_numa_data(std::uint32_t num_threads, std::uint64_t elements) {
  static const libnuma_library libnuma;
  if (libnuma.handle == nullptr) {
    log(LEVEL_WARN, "couldn't open %s because %s", libnuma_name, libnuma.reason.c_str());
    return nullptr;
  }
  char directory[PATH_MAX];
  if (dlinfo(libnuma.handle, RTLD_DI_ORIGIN, directory) != 0) {
    log(LEVEL_WARN, "dlinfo with RTLD_DI_ORIGIN failed: %s\n", dlerror());
    return nullptr;
  }
  log(LEVEL_DEBUG, "loaded %s from %s", libnuma_name, directory);

  const auto numa_available = reinterpret_cast<int (*)()>(dlsym(libnuma.handle, "numa_available"));
  if (const char* reason = dlerror(); reason != nullptr) {
    log(LEVEL_WARN, "couldn't load numa_available from %s because %s", libnuma_name, reason);
    return nullptr;
  }
  if (numa_available() < 0) {
    log(LEVEL_WARN, "numa is not enabled on target machine");
    return nullptr;
  }
  log(LEVEL_DEBUG, "loaded numa_available from %s", libnuma_name);
  return std::make_unique<data_alloc_numa>(num_threads, elements, libnuma.handle);
}

cachebw::cachebw(std::string benchmark_name, std::uint32_t thread_count, load_kernel load, std::uint64_t bytes_touched,
                 std::uint64_t element_count, bool useLocalNuma, double seconds)
    : benchmark_std(std::move(benchmark_name), thread_count, seconds, passes_per_call(element_count)),
      elements(element_count),
      kernel(load),
      bytes_per_iteration(bytes_touched) {
  log(LEVEL_DEBUG, "useLocalNuma is %d", static_cast<int>(useLocalNuma));
  if (useLocalNuma) allocator = create_numa_data(num_threads, elements);
  if (allocator == nullptr) allocator = std::make_unique<data_alloc>(num_threads, elements);
}

std::uint32_t cachebw::result() {
  const std::uint64_t bytes = bytes_per_iteration * kernel_calls * iterations;
  const std::uint64_t rate = cut_to_u64(static_cast<double>(bytes) / duration);
  return cut_to_u32(static_cast<double>(rate) / 1e9);
}

void cachebw::init_thread(std::uint32_t thread_id) { allocator->init_thread(thread_id); }

void cachebw::run_kernel(std::uint32_t thread_id, std::uint64_t passes) {
  kernel(allocator->get_data(thread_id), static_cast<std::int32_t>(passes), elements);
}

}  // namespace ceilmeter
