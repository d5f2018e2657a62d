// Heap memory, and node-local memory by the functions of a libnuma that somebody else has loaded.
#include "benchmarks/dataalloc.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/benchmarks/dataalloc"};

void fill(float* buffer, std::uint64_t size) {
  for (std::uint64_t element = 0; element < size; ++element) buffer[element] = static_cast<float>(element);
}

}  // namespace

data_alloc::data_alloc(std::uint32_t thread_count, std::uint64_t elements) : data_alloc_base(thread_count, elements) {
  log(LEVEL_DEBUG, "data_alloc is initiated.");
  data = static_cast<float*>(std::malloc(num_threads * size * sizeof(float)));
  if (data == nullptr) log(LEVEL_WARN, "failed to allocate data.");
}

data_alloc::~data_alloc() { std::free(data); }

void data_alloc::init_thread(std::uint32_t thread_id) { fill(get_data(thread_id), size); }

float* data_alloc::get_data(std::uint32_t thread_id) { return data + thread_id * size; }

data_alloc_numa::data_alloc_numa(std::uint32_t thread_count, std::uint64_t elements, void* handle)
    : data_alloc_base(thread_count, elements), libnuma_handle(handle) {
  log(LEVEL_DEBUG, "data_alloc_numa is initiated");
  numa_alloc_local = reinterpret_cast<void* (*)(std::size_t)>(dlsym(libnuma_handle, "numa_alloc_local"));
  if (const char* reason = dlerror(); reason != nullptr) {
    log(LEVEL_FATAL, "Couldn't load numa_alloc_local from libnuma.so.1 because %s.", reason);
  }
  buffers = static_cast<float**>(std::malloc(num_threads * sizeof(float*)));
  if (buffers == nullptr) {
    log(LEVEL_WARN, "failed to allocate data.");
  } else {
    std::fill_n(buffers, num_threads, nullptr);
  }
}

data_alloc_numa::~data_alloc_numa() {
  const auto numa_free = reinterpret_cast<void (*)(void*, std::size_t)>(dlsym(libnuma_handle, "numa_free"));
  if (const char* reason = dlerror(); reason != nullptr) {
    log(LEVEL_WARN, "Couldn't load numa_free from libnuma.so.1 because %s.", reason);
  } else if (buffers != nullptr) {
    for (std::uint32_t thread_id = 0; thread_id < num_threads; ++thread_id) {
      numa_free(buffers[thread_id], size * sizeof(float));
    }
  }
  std::free(buffers);
}

void data_alloc_numa::init_thread(std::uint32_t thread_id) {
  float* buffer = static_cast<float*>(numa_alloc_local(size * sizeof(float)));
  fill(buffer, size);
  buffers[thread_id] = buffer;
}

float* data_alloc_numa::get_data(std::uint32_t thread_id) { return buffers[thread_id]; }

}  // namespace ceilmeter
