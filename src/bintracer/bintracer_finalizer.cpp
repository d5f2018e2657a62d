// The finalizer. A block that several threads or regions have run has the same work for each of them and is read once.
// Of the records that they have of it, the first one stays.
#include "bintracer/bintracer_finalizer.h"

#include <unistd.h>

#include <algorithm>
#include <array>
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
bool is_logged_in_detail() { return mora_log_get_level() >= LEVEL_TRACE; }

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
              basic_block_record& block, arithmetic_count& arithmetic) {
  for (std::size_t index = 0; index < count; ++index) {
    if (get_instr_flop(words[index], work) != 0) {
      if (is_uncounted_scalable_work(words[index])) ++arithmetic.uncounted;
      continue;
    }
    ++arithmetic.counted;
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

void set_generated_block_flop(const generated_code& code, basic_block_record& block, arithmetic_count& arithmetic) {
  instr_flop work = new_work();
  add_work(code.words.data(), code.words.size(), code.start, work, block, arithmetic);
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
      basic_block_record block = calculate_bb_metrics(finder, record, known);
      if (const block_work* work = find_work(known, record)) {
        executed.counted += work->arithmetic.counted * record.count;
        executed.uncounted += work->arithmetic.uncounted * record.count;
      }
      if (block.flop == 0) continue;
      const std::int64_t count = block.count;
      const auto [merged, is_new] = region.bbs.insert(key_of(record), std::move(block));
      // For a known block only the count is added. Everything else stays as the first thread has it.
      if (!is_new) merged->count += count;
    }
    log(LEVEL_DEBUG, "%ld bbs collected for region %s", static_cast<long>(counted.bbs.size()), region.name.c_str());
    log(LEVEL_DEBUG, "%ld bbs with flop collected for region %s", static_cast<long>(region.bbs.size()),
        region.name.c_str());
  }
}

basic_block_record calculate_bb_metrics(instruction_finder& finder, const bb_record& record, block_work_table& known) {
  basic_block_record block;
  block.start = record.start;
  block.end = record.end;
  const block_work* work = is_logged_in_detail() ? nullptr : find_work(known, record);
  if (work != nullptr && work->flop == 0) return block;
  const mapping_segment segment = mappings_t::get_segment(record.map_seg_id);
  if (segment.begin == 0 && record.code == nullptr) {
    log(LEVEL_DEBUG, "Cant find mapping segment at %lx address\n", block.start);
    return block;
  }
  // Deliberately only the low half of the file offset: results have always been so, and no module has code beyond 4
  // GiB.
  const std::uint64_t to_file = record.code == nullptr ? static_cast<std::uint32_t>(segment.offset) - segment.begin : 0;
  block.dump_start = block.start + to_file;
  block.dump_end = block.end + to_file;
  block.count = static_cast<std::int64_t>(record.count);
  block.module = record.code == nullptr ? segment.name : generated_module_name;
  if (work != nullptr) {
    block.flop = work->flop;
    block.vector_length = work->vector_length;
    return block;
  }
  arithmetic_count arithmetic;
  if (record.code != nullptr) {
    set_generated_block_flop(*record.code, block, arithmetic);
  } else if (!set_basic_block_flop(finder, block, arithmetic)) {
    return block;
  }
  known[record.start] = {record.end, record.map_seg_id, record.code, block.flop, block.vector_length, arithmetic};
  return block;
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

bool set_basic_block_flop(instruction_finder& finder, basic_block_record& block, arithmetic_count& arithmetic) {
  std::array<std::uint32_t, max_basic_block_size> buffer{};
  instr_flop work = new_work();
  const std::uint64_t partial_bb_num =
      ((block.dump_end - block.dump_start) / instruction_size + max_basic_block_size - 1) / max_basic_block_size;
  log(LEVEL_TRACE, "Read basic block from module %s, start_off=%lx, end_of=%lx, partial_bb_num=%ld",
      block.module.c_str(), block.dump_start, block.dump_end, static_cast<long>(partial_bb_num));
  for (std::uint64_t part = 0; part < partial_bb_num; ++part) {
    const std::uint64_t part_start = block.dump_start + part_size * part;
    const std::uint64_t partial_bb_size = std::min(part_size, block.dump_end - part_start);
    log(LEVEL_TRACE, "Read partial basic block start_off=%lx, partial_bb_size=%lx", part_start, partial_bb_size);
    if (!finder.get_basic_block_instruction_code(buffer.data(), block.module, part_start,
                                                 part_start + partial_bb_size)) {
      log(LEVEL_WARN, "Failed to read basic block from module = %s, start_offset = %lx, end_offset = %lx",
          block.module.c_str(), block.dump_start, block.dump_end);
      return false;
    }
    add_work(buffer.data(), partial_bb_size / instruction_size, part_start, work, block, arithmetic);
  }
  return true;
}

}  // namespace ceilmeter
