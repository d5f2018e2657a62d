// The buffers of a bandwidth measurement, one per thread. The kernel places a page when it is first touched. So each
// buffer is filled on its own thread, which is pinned already.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

class data_alloc_base {
 public:
  // `size` in 32-bit elements per thread.
  data_alloc_base(std::uint32_t thread_count, std::uint64_t elements) : num_threads(thread_count), size(elements) {}
  data_alloc_base(const data_alloc_base&) = delete;
  data_alloc_base& operator=(const data_alloc_base&) = delete;
  virtual ~data_alloc_base() = default;

  // Fills the thread's buffer: element i becomes (float) i. Called once on each measuring thread, on all at once.
  virtual void init_thread(std::uint32_t thread_id) = 0;

  // The thread's buffer, owned by this object. After init_thread.
  virtual float* get_data(std::uint32_t thread_id) = 0;

 protected:
  std::uint32_t num_threads;
  std::uint64_t size;
};

// One heap block for all threads. If the block cannot be allocated, this is logged, and the first thread to fill its
// part faults.
class data_alloc final : public data_alloc_base {
 public:
  data_alloc(std::uint32_t thread_count, std::uint64_t elements);
  ~data_alloc() override;
  void init_thread(std::uint32_t thread_id) override;
  float* get_data(std::uint32_t thread_id) override;

 private:
  float* data;
};

// Each buffer is on the NUMA node of the thread that fills it, from libnuma. `handle` is libnuma's from dlopen; it is
// not closed here and outlives this object. A libnuma without numa_alloc_local is fatal. One without numa_free leaks
// the buffers, with a warning. A null buffer is not checked: the thread faults.
class data_alloc_numa final : public data_alloc_base {
 public:
  data_alloc_numa(std::uint32_t thread_count, std::uint64_t elements, void* handle);
  ~data_alloc_numa() override;
  void init_thread(std::uint32_t thread_id) override;
  float* get_data(std::uint32_t thread_id) override;

 private:
  float** buffers;  // num_threads entries, null until a thread has filled its own.
  void* libnuma_handle;
  void* (*numa_alloc_local)(std::size_t bytes);
};

}  // namespace ceilmeter
