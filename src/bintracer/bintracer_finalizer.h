// Turns what the threads have left behind into the tracer's part of the report. It ties each counted block to its file,
// reads the block's instructions there and adds up their floating-point work; the instructions of generated code were
// kept when it ran. Blocks without work are left out. The others are merged over the threads of a region, by start and,
// where the code at a start has changed, by its instructions. The work of a block is that of one execution; the product
// with its count is taken when the report is written.
//
// Runs once, on one thread, when all threads of the application have ended. So it takes no lock.
#pragma once

#include <cstdint>

#include "bintracer/bintracer.h"
#include "instruction_finder.h"
#include "perf_map.h"
#include "report.h"

namespace ceilmeter {

// The whole report. Its regions stand in the order in which the threads have them, newest thread first. Without a
// region the report is empty, after a warning. Scalable arithmetic that ran and was not counted is a warning, too.
// Blocks that can't be read are logged and left out.
bintracer_report finalize(instruction_finder& finder, const bintracer_t& tracer, std::uint64_t max_thread_count);

// Floating-point instructions: those that are in `flop`, and the scalable ones that are not.
struct arithmetic_count {
  std::uint64_t counted = 0;
  std::uint64_t uncounted = 0;
};

// The floating-point work of a block, by its start. It is kept for the next thread or region that has run the block,
// because all threads run mostly the same blocks. It holds for a block that also ends at the same place and comes from
// the same segment, or has the same generated code. Blocks without such work are not kept: to read one again costs no
// more than to find it. Nor are those that could not be read, so each is tried, and logged, again.
struct block_work {
  std::uint64_t end = 0;
  std::uint64_t map_seg_id = 0;
  const generated_code* code = nullptr;
  std::int64_t flop = 0;
  std::int32_t vector_length = 0;
  arithmetic_count arithmetic;
};
using block_work_table = flat_table<std::uint64_t, block_work>;

// Adds what one thread has counted to `report`, and its floating-point instructions to `executed`.
void thread_info_processing(instruction_finder& finder, bintracer_report& report, const thread_info& info,
                            const bintracer_t& tracer, std::uint64_t max_thread_count, block_work_table& known,
                            arithmetic_count& executed);

// The block as the report shows it. `flop` is also 0 if the block comes from a file that can't be read. A block of
// generated code has its addresses in the place of offsets, and generated_module_name in that of a file.
basic_block_record calculate_bb_metrics(instruction_finder& finder, const bb_record& record, block_work_table& known);

// Gives blocks of generated code the names that the application has written down for it: in their `module`.
void name_generated_code(bintracer_report& report, const perf_map& names);

}  // namespace ceilmeter
