// Memory between two pages that may not be touched: whatever reads or writes beyond it faults.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>

// One end of the buffer touches one of the two guard pages; if its size is a multiple of the page, both ends do.
enum class flush_with { lower_guard, upper_guard };

class guarded_buffer {
 public:
  guarded_buffer(std::size_t bytes, flush_with side) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t inner = (bytes + page - 1) / page * page;
    mapped_bytes = inner + 2 * page;
    mapping = static_cast<char*>(mmap(nullptr, mapped_bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (mapping == MAP_FAILED || mprotect(mapping + page, inner, PROT_READ | PROT_WRITE) != 0) {
      throw std::runtime_error("no memory for a guarded buffer");
    }
    start = mapping + page + (side == flush_with::upper_guard ? inner - bytes : 0);
  }
  guarded_buffer(const guarded_buffer&) = delete;
  guarded_buffer& operator=(const guarded_buffer&) = delete;
  ~guarded_buffer() { munmap(mapping, mapped_bytes); }

  float* data() const { return reinterpret_cast<float*>(start); }

 private:
  char* mapping;
  char* start;
  std::size_t mapped_bytes;
};
