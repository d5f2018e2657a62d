// The records that the phases hand over to each other and to the result file. All strings are owned, tables and
// vectors own their elements, and records move between phases by value; nothing here is shared between threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "flat_table.h"

namespace ceilmeter {

// One basic block as the result file shows it.
struct basic_block_record {
  std::uint64_t start = 0;         // Application address of the first instruction.
  std::uint64_t end = 0;           // End address as the engine reported it.
  std::uint64_t dump_start = 0;    // `start` as an offset in the file `module`.
  std::uint64_t dump_end = 0;      // `end` as an offset in the file `module`.
  std::int64_t flop = 0;           // Floating-point operations of one execution.
  std::int64_t count = 0;          // Executions.
  std::int32_t vector_length = 0;  // Largest element count of any floating-point instruction, 0 without one.
  // Path of the file that holds the block. Of generated code, whose "offsets" are its addresses: a name.
  std::string module;
};

// The key is `start`. Generated code can be written over: the blocks that have begun at the same address one after the
// other are blocks of their own, with keys made of the address and their number, from 1 on.
inline std::uint64_t changed_block_key(std::uint64_t start, std::uint32_t number) {
  constexpr int unused_bits = 48;  // Addresses of programs end below, and are multiples of 4.
  return start ^ std::uint64_t{number} << unused_bits ^ number >> (64 - unused_bits);
}

using basic_block_table = flat_table<std::uint64_t, basic_block_record>;

// Metric name to value: bytes, or nanoseconds for "time".
using metric_table = flat_table<std::string, std::uint64_t>;

// What the hardware counters say of one region.
struct perfmon_region {
  std::string name;
  metric_table metrics;
};

// What the tracer says of one region.
struct bintracer_region {
  std::string name;
  basic_block_table bbs;
  std::uint64_t flop = 0;
  std::uint64_t threads = 0;
};

struct bintracer_report {
  std::vector<bintracer_region> regions;
  std::uint64_t max_thread_count = 0;
};

// One roof of the machine.
struct benchmark_result {
  std::string name;
  std::int64_t value = 0;
  std::string measure;      // The unit of `value`.
  bool is_compute = false;  // A compute roof, not a memory roof.
};

// Thread count to the roofs measured for it.
using benchmark_report = flat_table<std::uint64_t, std::vector<benchmark_result>>;

// Counters and blocks of one region, joined by name.
struct region_metric {
  std::string name;
  basic_block_table bbs;
  metric_table metrics;
  std::uint64_t flop = 0;
  std::uint64_t threads = 0;
};

// The whole result file.
struct collector_report {
  std::vector<region_metric> regions;
  benchmark_report benchmarks;
  std::uint64_t threads = 0;  // The thread count that the flat "roofs" list stands for.
};

}  // namespace ceilmeter
