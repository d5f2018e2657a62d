// The finalizer. A block that several threads or regions have run has the same work for each of them and is read once.
// Of the records that they have of it, the first one stays.
#include "bintracer/bintracer_finalizer.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "a64/instr_flop.h"
#include "a64/scalable_work.h"
#include "common/log.h"
#include "shared_names.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/bintracer/bintracer_finalizer"};

constexpr std::size_t first_region_room = 8;
constexpr std::uint64_t instruction_size = sizeof(std::uint32_t);
constexpr std::uint64_t part_size = max_basic_block_size * instruction_size;

bintracer_region& find_or_add_region(std::vector<bintracer_region>& regions, const std::string& name) {
  for (bintracer_region& region : regions) {
    if (region.name == name) return region;
  }
  regions.emplace_back().name = name;
  return regions.back();
}

// The most detailed log names every instruction of every thread's blocks. Then no block may be skipped as known.
bool is_logged_in_detail() { return tool_logs_traces(); }

// Null if the block is not known, or if the known one that begins there is another block.
const block_work* find_work(const block_work_table& known, const bb_record& record) {
  const block_work* work = known.find(record.start);
  const bool is_same =
      work != nullptr && work->end == record.end && work->map_seg_id == record.map_seg_id && work->code == record.code;
  return is_same ? work : nullptr;
}

// The key of a block among those of a region: its start and, of generated code, the number of the code at this start.
std::uint64_t key_of(const bb_record& record) {
  return record.code != nullptr ? changed_block_key(record.start, record.code->version) : record.start;
}

// Adds the floating-point work of the words to the block's. `work` is the record of the whole block.
void add_work(const std::uint32_t* words, std::size_t count, std::uint64_t offset, instr_flop& work,
              block_work& block) {
  for (std::size_t index = 0; index < count; ++index) {
    if (!may_be_arithmetic(words[index])) continue;
    if (get_instr_flop(words[index], work) != 0) {
      if (is_uncounted_scalable_work(words[index])) ++block.arithmetic.uncounted;
      continue;
    }
    ++block.arithmetic.counted;
    log(LEVEL_TRACE, "instr_off=%lx, instr_flop.precision=%d, instr_flop.fclass=%d, instr_flop.count=%d",
        offset + index * instruction_size, static_cast<int>(work.precision), static_cast<int>(work.fclass),
        static_cast<int>(work.count));
    block.flop += static_cast<std::int64_t>(work.count * work.multiplier);
    const auto lanes = static_cast<std::uint32_t>(work.count);
    block.vector_length = static_cast<std::int32_t>(std::max(static_cast<std::uint32_t>(block.vector_length), lanes));
  }
}

// Deliberately one for a whole block. A scalable instruction does not set the record's multiplier, so the one of the
// instruction before it stays. A block that begins with a scalable instruction counts it once.
instr_flop new_work() {
  instr_flop work{};
  work.multiplier = 1;
  return work;
}

void count_generated_block(const generated_code& code, block_work& block) {
  instr_flop work = new_work();
  add_work(code.words.data(), code.words.size(), code.start, work, block);
}

// What is added to an address of the segment to have the offset in its file. Deliberately only the low half of the file
// offset: results have always been so, and no module has code beyond 4 GiB.
std::uint64_t to_file(const mapping_segment& segment) {
  return static_cast<std::uint32_t>(segment.offset) - segment.begin;
}

// Reads the block's instructions. False if a part could not be read; the work of the parts before it stands.
bool count_block_of_file(instruction_finder& finder, const mapping_segment& segment, const bb_record& record,
                         block_work& block) {
  instr_flop work = new_work();
  const std::uint64_t start = record.start + to_file(segment);
  const std::uint64_t end = record.end + to_file(segment);
  if (!is_logged_in_detail()) {
    if (const std::uint32_t* words = finder.words_at_hand(&segment, start, end)) {
      add_work(words, (end - start) / instruction_size, start, work, block);
      return true;
    }
  }
  const std::uint64_t partial_bb_num =
      ((end - start) / instruction_size + max_basic_block_size - 1) / max_basic_block_size;
  if (is_logged_in_detail()) {
    log(LEVEL_TRACE, "Read basic block from module %s, start_off=%lx, end_of=%lx, partial_bb_num=%ld",
        segment.name.c_str(), start, end, static_cast<long>(partial_bb_num));
  }
  for (std::uint64_t part = 0; part < partial_bb_num; ++part) {
    const std::uint64_t part_start = start + part_size * part;
    const std::uint64_t partial_bb_size = std::min(part_size, end - part_start);
    if (is_logged_in_detail()) {
      log(LEVEL_TRACE, "Read partial basic block start_off=%lx, partial_bb_size=%lx", part_start, partial_bb_size);
    }
    const std::uint32_t* words = finder.find_words(segment.name, part_start, part_start + partial_bb_size, &segment);
    if (words == nullptr) {
      log(LEVEL_WARN, "Failed to read basic block from module = %s, start_offset = %lx, end_offset = %lx",
          segment.name.c_str(), start, end);
      return false;
    }
    add_work(words, partial_bb_size / instruction_size, part_start, work, block);
  }
  return true;
}

// Whether the block's words are at hand and none of them is arithmetic, as in most blocks. Then it has no work, whether
// it is known or not.
bool is_seen_without_arithmetic(const instruction_finder& finder, const bb_record& record) {
  const mapping_segment* segment = record.code == nullptr ? mappings_t::find_segment(record.map_seg_id) : nullptr;
  if (segment == nullptr || is_logged_in_detail()) return false;
  const std::uint64_t distance = to_file(*segment);
  const std::uint32_t* word = finder.words_at_hand(segment, record.start + distance, record.end + distance);
  if (word == nullptr) return false;
  for (const std::uint32_t* end = word + (record.end - record.start) / instruction_size; word != end; ++word) {
    if (may_be_arithmetic(*word)) return false;
  }
  return true;
}

// The work of the block, from the table or from its instructions. None if the block is of no known file.
block_work find_or_count_work(instruction_finder& finder, const bb_record& record, block_work_table& known) {
  if (!is_logged_in_detail()) {
    if (const block_work* work = find_work(known, record)) return *work;
  }
  block_work work{record.end, record.map_seg_id, record.code, 0, 0, {}};
  if (record.code != nullptr) {
    count_generated_block(*record.code, work);
  } else if (const mapping_segment* segment = mappings_t::find_segment(record.map_seg_id)) {
    if (!count_block_of_file(finder, *segment, record, work)) {
      work.arithmetic = {};
      return work;
    }
  } else {
    log(LEVEL_DEBUG, "Cant find mapping segment at %lx address\n", record.start);
  }
  // A block without arithmetic, as most are, is looked at again sooner than it is found in a table.
  if (work.arithmetic.counted + work.arithmetic.uncounted != 0) known[record.start] = work;
  return work;
}

// The block as the report shows it.
basic_block_record block_of(const bb_record& record, const block_work& work) {
  basic_block_record block;
  block.start = record.start;
  block.end = record.end;
  const mapping_segment* segment = record.code == nullptr ? mappings_t::find_segment(record.map_seg_id) : nullptr;
  if (segment == nullptr && record.code == nullptr) return block;
  const std::uint64_t distance = segment != nullptr ? to_file(*segment) : 0;
  block.dump_start = block.start + distance;
  block.dump_end = block.end + distance;
  block.flop = work.flop;
  block.count = static_cast<std::int64_t>(record.count);
  block.vector_length = work.vector_length;
  block.module = segment != nullptr ? segment->name : generated_module_name;
  return block;
}

void warn_of_uncounted(const arithmetic_count& executed) {
  if (executed.uncounted == 0) return;
  const double all = static_cast<double>(executed.counted) + static_cast<double>(executed.uncounted);
  log({LEVEL_WARN, __builtin_LINE(), "finalize"},
      "%lu scalable floating-point instructions (SVE, SME) were executed and not counted, %.1f %% of all "
      "floating-point "
      "instructions: the operations are too low",
      executed.uncounted, 100.0 * static_cast<double>(executed.uncounted) / all);
}

bool has_generated_code(const bintracer_report& report) {
  for (const bintracer_region& region : report.regions) {
    for (const auto& [key, block] : region.bbs) {
      if (block.module == generated_module_name) return true;
    }
  }
  return false;
}

}  // namespace

bintracer_report finalize(instruction_finder& finder, const bintracer_t& tracer, std::uint64_t max_thread_count) {
  bintracer_report report;
  report.regions.reserve(first_region_room);
  block_work_table known;
  arithmetic_count executed;
  for (const thread_info* info = tracer.first_thread_info(); info != nullptr; info = info->next) {
    thread_info_processing(finder, report, *info, tracer, max_thread_count, known, executed);
  }
  if (report.regions.empty()) {
    log(LEVEL_WARN, "No flop in regions collected!");
    return {};
  }
  warn_of_uncounted(executed);
  if (has_generated_code(report)) name_generated_code(report, perf_map::read(perf_map::path_of(getpid())));
  report.max_thread_count = max_thread_count;
  return report;
}

void thread_info_processing(instruction_finder& finder, bintracer_report& report, const thread_info& info,
                            const bintracer_t& tracer, std::uint64_t max_thread_count, block_work_table& known,
                            arithmetic_count& executed) {
  for (const region_bbs& counted : info.regions) {
    bintracer_region& region = find_or_add_region(report.regions, counted.name);
    region.threads = region.name == total_region_name ? max_thread_count : tracer.max_active_threads(region.name);
    for (const bb_record& record : counted.bbs) {
      if (is_seen_without_arithmetic(finder, record)) continue;
      const block_work work = find_or_count_work(finder, record, known);
      executed.counted += work.arithmetic.counted * record.count;
      executed.uncounted += work.arithmetic.uncounted * record.count;
      if (work.flop == 0) continue;
      const auto [merged, is_new] = region.bbs.insert_by(key_of(record), [&] { return block_of(record, work); });
      // For a known block only the count is added. Everything else stays as the first thread has it.
      if (!is_new) merged->count += static_cast<std::int64_t>(record.count);
    }
    log(LEVEL_DEBUG, "%ld bbs collected for region %s", static_cast<long>(counted.bbs.size()), region.name.c_str());
    log(LEVEL_DEBUG, "%ld bbs with flop collected for region %s", static_cast<long>(region.bbs.size()),
        region.name.c_str());
  }
}

basic_block_record calculate_bb_metrics(instruction_finder& finder, const bb_record& record, block_work_table& known) {
  return block_of(record, find_or_count_work(finder, record, known));
}

void name_generated_code(bintracer_report& report, const perf_map& names) {
  for (bintracer_region& region : report.regions) {
    for (auto&& [key, block] : region.bbs) {
      if (block.module != generated_module_name) continue;
      std::string name = names.name_at(block.start);
      if (!name.empty()) block.module = std::move(name);
    }
  }
}

}  // namespace ceilmeter
