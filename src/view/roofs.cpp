#include "view/roofs.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "view/formulas.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr double least_width_share = 0.05;
constexpr double numa_difference = 0.1;
constexpr double suspicious_ratio = 0.9;

struct compute_row {
  std::string_view name;
  std::int64_t width;
  bool thin;
};
constexpr std::array<compute_row, 8> compute_rows = {{
    {"Scalar(SP)-FMADD", 1, false},
    {"Scalar(DP)-FMADD", 1, false},
    {"f64x2-FMLA/FMLS", 2, false},
    {"f32x4-FMLA/FMLS", 4, false},
    {"f16x8-FMLA/FMLS", 8, false},
    {"f64x2-FADD/FSUB", 2, true},
    {"f32x4-FADD/FSUB", 4, true},
    {"f16x8-FADD/FSUB", 8, true},
}};
constexpr std::string_view numa_local = "DDR Numa-local";

const compute_row* find_row(std::string_view name) {
  const auto* found = std::find_if(compute_rows.begin(), compute_rows.end(),
                                   [name](const compute_row& row) { return row.name == name; });
  return found == compute_rows.end() ? nullptr : found;
}

// Operations of the file's blocks by class of width, as doubles: only their shares matter.
std::map<std::int64_t, double> work_by_class(const result_file& file) {
  std::map<std::int64_t, double> work;
  for (const region& one : file.regions) {
    for (const block& part : one.blocks) {
      const double operations = static_cast<double>(part.flop) * static_cast<double>(part.executions);
      if (operations > 0) work[width_class(part.elements)] += operations;
    }
  }
  return work;
}

// Whether the picture shows the vector roofs of a width: those that hold a twentieth of the operations. Without blocks
// the multiply-adds of two doubles and of four floats stand for the rest.
bool shows_width(const std::map<std::int64_t, double>& work, const compute_row& row) {
  if (work.empty()) return !row.thin && (row.width == 2 || row.width == 4);
  double all = 0;
  for (const auto& [width, operations] : work) all += operations;
  const auto found = work.find(row.width);
  return found != work.end() && found->second >= least_width_share * all;
}

bool is_drawn(const roof_set& set, const roof& one, const std::map<std::int64_t, double>& work) {
  if (one.value <= 0) return false;
  if (!one.is_compute && level_of_roof(one.name)) return true;
  if (!one.is_compute && one.name == numa_local) {
    const roof* ddr = find_roof(set, "DDR");
    return ddr == nullptr ||
           std::abs(static_cast<double>(one.value - ddr->value)) > numa_difference * static_cast<double>(ddr->value);
  }
  const compute_row* row = one.is_compute ? find_row(one.name) : nullptr;
  if (row == nullptr) return false;
  if (row->width == 1) {
    const roof* better = multiply_add_roof(set, 1);
    return better != nullptr && better->name == one.name;
  }
  return shows_width(work, *row);
}

bool too_near(const roof_set& set, std::string_view lower, std::string_view upper) {
  const roof* one = find_roof(set, lower);
  const roof* other = find_roof(set, upper);
  return one != nullptr && other != nullptr &&
         static_cast<double>(one->value) >= suspicious_ratio * static_cast<double>(other->value);
}

std::string values_of(const roof_set& set, std::string_view lower, std::string_view upper) {
  const roof* one = find_roof(set, lower);
  const roof* other = find_roof(set, upper);
  return "the " + one->name + " roof of " + counted(set.threads, "thread") + " is " + number(one->value) + " " +
         one->unit + ", the " + other->name + " roof " + number(other->value) + " " + other->unit;
}

void add_remarks(const roof_set& set, roof_lines& described) {
  const auto add = [&](remark_kind kind, std::string text) {
    described.remarks.push_back({kind, "Of the roofs, " + std::move(text)});
  };
  if (too_near(set, "DDR", "L3")) {
    add(remark_kind::ddr_roof_near_l3,
        values_of(set, "DDR", "L3") +
            ": no slower than nine tenths of it. The DDR row reads 4 MiB for each thread; on "
            "this machine that most likely fits the last level cache, and the row is not the memory's bandwidth.");
  }
  if (too_near(set, "L2", "L1")) {
    add(remark_kind::l2_roof_near_l1,
        values_of(set, "L2", "L1") +
            ": no slower than nine tenths of it. The L2 row reads 80 KiB for each thread; on "
            "this machine that most likely fits the first level cache, or the core's loads are as fast from both.");
  }
  std::string names;
  for (const roof_line& line : described.lines) {
    if (!line.measured) names += (names.empty() ? "" : ", ") + line.name;
  }
  if (!names.empty()) {
    add(remark_kind::roof_not_measured,
        names + " of " + counted(set.threads, "thread") +
            " have the value 0: not measured, or below one unit. They are not drawn and limit nothing.");
  }
}

}  // namespace

std::optional<memory_level> level_of_roof(std::string_view name) {
  for (std::size_t level = 0; level < level_count; ++level) {
    if (name == level_names[level]) return static_cast<memory_level>(level);
  }
  return std::nullopt;
}

std::vector<roof_lines> describe_roofs(const result_file& file) {
  const std::map<std::int64_t, double> work = work_by_class(file);
  std::vector<roof_lines> all;
  for (const roof_set& set : file.roofs) {
    roof_lines& described = all.emplace_back();
    described.threads = set.threads;
    for (const roof& one : set.roofs) {
      roof_line& line = described.lines.emplace_back();
      line.name = one.name;
      line.value = static_cast<double>(one.value);
      line.unit = one.unit;
      line.is_compute = one.is_compute;
      if (!one.is_compute) line.level = level_of_roof(one.name);
      line.measured = one.value > 0;
      line.drawn = is_drawn(set, one, work);
      const compute_row* row = find_row(one.name);
      line.thin = row != nullptr && row->thin;
      // The arithmetic, L1 and L2 are measured with the smallest count and multiplied for the others.
      const bool once = one.is_compute || line.level == memory_level::l1 || line.level == memory_level::l2;
      line.scaled = once && set.threads > file.roofs.front().threads;
    }
    // Roofs that another version measured, under names that mean nothing here, are better than none.
    const auto drawn = [](const roof_line& line) { return line.drawn; };
    if (std::none_of(described.lines.begin(), described.lines.end(), drawn)) {
      for (roof_line& line : described.lines) line.drawn = line.measured;
    }
    add_remarks(set, described);
  }
  return all;
}

std::optional<std::size_t> choose_roofs(const result_file& file, std::optional<std::uint64_t> wanted) {
  if (file.roofs.empty()) return std::nullopt;
  const auto find = [&](std::uint64_t threads) -> std::optional<std::size_t> {
    for (std::size_t at = 0; at < file.roofs.size(); ++at) {
      if (file.roofs[at].threads == threads) return at;
    }
    return std::nullopt;
  };
  std::optional<std::size_t> found;
  if (wanted) found = find(*wanted);
  if (!found && file.threads && *file.threads >= 0) found = find(static_cast<std::uint64_t>(*file.threads));
  return found ? found : file.roofs.size() - 1;
}

}  // namespace ceilmeter::view
