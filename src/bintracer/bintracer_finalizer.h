// What the threads have left behind, turned into the tracer's part of the report. Each counted block is tied to its
// file, its instructions are read there and their floating-point work is added up; blocks without any are left out, and
// the others are merged by start over the threads of a region. The work of a block is that of one execution: the
// product with its count is taken when the report is written.
//
// Runs once, on one thread, when all threads of the application have ended: no lock is taken.
#pragma once

#include <cstdint>

#include "bintracer/bintracer.h"
#include "instruction_finder.h"
#include "report.h"

namespace ceilmeter {

// The whole report. Its regions stand in the order in which the threads have them, newest thread first. Without a
// region it is empty, after a warning. Scalable arithmetic that was executed and not counted is a warning, too. Blocks
// that can't be read are reported in the log and left out.
bintracer_report finalize(instruction_finder& finder, const bintracer_t& tracer, std::uint64_t max_thread_count);

// Floating-point instructions: those that are in `flop`, and the scalable ones that are not.
struct arithmetic_count {
  std::uint64_t counted = 0;
  std::uint64_t uncounted = 0;
};

// What a block is worth, kept for the next thread or region that has run it: all threads run mostly the same blocks. By
// start; good for a block that also ends there and comes from the same segment. Blocks that could not be read are not
// kept, so that each is tried, and complained of, again.
struct block_work {
  std::uint64_t end = 0;
  std::uint64_t map_seg_id = 0;
  std::int64_t flop = 0;
  std::int32_t vector_length = 0;
  arithmetic_count arithmetic;
};
using block_work_table = flat_table<std::uint64_t, block_work>;

// Adds what one thread has counted to `report`, and its floating-point instructions to `executed`.
void thread_info_processing(instruction_finder& finder, bintracer_report& report, const thread_info& info,
                            const bintracer_t& tracer, std::uint64_t max_thread_count, block_work_table& known,
                            arithmetic_count& executed);

// The block as the report shows it. Its `flop` is 0 also if it comes from no file, or from one that can't be read.
basic_block_record calculate_bb_metrics(instruction_finder& finder, const bb_record& record, block_work_table& known);

// Reads the block's instructions by its module and offsets, sets its `flop` and `vector_length` and adds to
// `arithmetic`. False if a part could not be read; the work of the parts before it stands.
bool set_basic_block_flop(instruction_finder& finder, basic_block_record& block, arithmetic_count& arithmetic);

}  // namespace ceilmeter
