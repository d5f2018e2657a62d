#include "view/compare.h"

#include <cmath>
#include <string>
#include <unordered_map>
#include <utility>

#include "view/formulas.h"
#include "view/frame.h"
#include "view/ranks.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr double work_difference = 0.01;
constexpr double roof_tolerance = 0.03;

figure ratio(const figure& after, const figure& before) {
  if (!after || !before || *before == 0 || !std::isfinite(*after / *before)) return std::nullopt;
  return *after / *before;
}

figure real(const count& value) { return value ? figure(static_cast<double>(*value)) : std::nullopt; }

void compare_work(const region_figures& before, const region_figures& after, region_pair& pair) {
  if (!before.operations || !after.operations) return;
  const auto old_work = static_cast<double>(*before.operations);
  const auto new_work = static_cast<double>(*after.operations);
  if (std::abs(new_work - old_work) <= work_difference * old_work) return;
  pair.remarks.push_back({remark_kind::other, "The work changed: " + number(*before.operations) +
                                                  " operations before, " + number(*after.operations) +
                                                  " after. Times do not compare."});
}

region_pair pair_of(const region_figures& before, const region_figures& after) {
  region_pair pair;
  pair.name = after.name;
  pair.before = before.index;
  pair.after = after.index;
  pair.time_ratio = ratio(real(after.time), real(before.time));
  pair.performance_ratio = ratio(after.performance, before.performance);
  for (std::size_t level = 0; level < level_count; ++level) {
    pair.intensity_ratio[level] = ratio(after.intensity[level], before.intensity[level]);
  }
  pair.reached_before = before.reached;
  pair.reached_after = after.reached;
  compare_work(before, after, pair);
  return pair;
}

std::vector<roof_difference> compare_roofs(const result_file& before, const result_file& after) {
  std::vector<roof_difference> differences;
  for (const roof_set& new_set : after.roofs) {
    for (const roof_set& old_set : before.roofs) {
      if (old_set.threads != new_set.threads) continue;
      for (const roof& one : new_set.roofs) {
        const roof* other = find_roof(old_set, one.name);
        if (other != nullptr && roofs_differ(static_cast<double>(other->value), static_cast<double>(one.value))) {
          differences.push_back(
              {one.name, one.unit, new_set.threads, static_cast<double>(other->value), static_cast<double>(one.value)});
        }
      }
    }
  }
  return differences;
}

baseline_view compare_baseline(const file_view& before, const file_view& after) {
  baseline_view result;
  std::unordered_map<std::string, std::size_t> old_regions;
  for (const region_figures& one : before.regions) old_regions.emplace(one.name, one.index);
  for (const region_figures& one : after.regions) {
    const auto partner = old_regions.find(one.name);
    if (partner != old_regions.end()) {
      result.pairs.push_back(pair_of(before.regions[partner->second], one));
      old_regions.erase(partner);
      continue;
    }
    region_pair& alone = result.pairs.emplace_back();
    alone.name = one.name;
    alone.after = one.index;
    alone.reached_after = one.reached;
    alone.remarks.push_back({remark_kind::other, "Only in " + after.file.label + ", the file after: no partner."});
  }
  for (const region_figures& one : before.regions) {
    if (!old_regions.contains(one.name)) continue;
    region_pair& alone = result.pairs.emplace_back();
    alone.name = one.name;
    alone.before = one.index;
    alone.reached_before = one.reached;
    alone.remarks.push_back({remark_kind::other, "Only in " + before.file.label + ", the file before: no partner."});
  }
  result.roofs = compare_roofs(before.file, after.file);
  if (!result.roofs.empty()) {
    result.remarks.push_back(
        {remark_kind::other, counted(result.roofs.size(), "roof") +
                                 " differ by more than 3 %: both are drawn. The machine, its clock or its "
                                 "load was another, and the shares of the roofs do not compare."});
  }
  return result;
}

std::string title_of(const view_model& model) {
  if (!model.options.title.empty()) return clean_utf8(model.options.title);
  const std::string& first = model.files.front().file.label;
  switch (model.options.mode) {
    case view_mode::single: return first;
    case view_mode::ranks: return first + " from " + model.files[1].file.label;
    case view_mode::baseline: return first + " before, " + model.files[1].file.label + " after";
    case view_mode::overlay: break;
  }
  std::string title;
  for (const file_view& view : model.files) title += (title.empty() ? "" : ", ") + view.file.label;
  return shorten(title, 100);
}

}  // namespace

bool roofs_differ(double before, double after) { return std::abs(after - before) > roof_tolerance * before; }

view_model build_view(std::vector<result_file> files, const view_options& options) {
  view_model model;
  model.options = options;
  if (files.size() == 1 && options.mode != view_mode::ranks) model.options.mode = view_mode::single;
  if (files.size() > 1 && options.mode == view_mode::single) model.options.mode = view_mode::overlay;
  if (files.size() < 2 && options.mode == view_mode::baseline) model.options.mode = view_mode::single;
  for (result_file& file : files) model.files.push_back(derive(std::move(file), model.options));
  if (model.options.mode == view_mode::baseline) {
    model.baseline = compare_baseline(model.files[0], model.files[1]);
  }
  if (model.options.mode == view_mode::ranks) {
    model.ranks = compare_ranks(model.files);
    model.files.insert(model.files.begin(), derive(sum_of_ranks(model.files), model.options));
  }
  model.title = title_of(model);
  model.axes = frame_of(model);
  return model;
}

}  // namespace ceilmeter::view
