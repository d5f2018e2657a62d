#include "view/formulas.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

#include "view/remarks.h"
#include "view/roofs.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr double per_second = 1e9;  // GB/s and GFLOPS to units per second, and nanoseconds of a second

// Operations by number of elements. The double is for shares: it goes on where 64 bits end.
struct width_sum {
  count exact = 0;
  double rough = 0;
};

std::map<std::int64_t, width_sum> sum_widths(const std::vector<block>& blocks) {
  std::map<std::int64_t, width_sum> sums;
  for (const block& one : blocks) {
    width_sum& sum = sums[one.elements];
    sum.exact = add(sum.exact, multiply(one.flop, one.executions));
    sum.rough += static_cast<double>(one.flop) * static_cast<double>(one.executions);
  }
  return sums;
}

figure finite(double value) { return std::isfinite(value) ? figure(value) : std::nullopt; }

region_state state_of(const region& source, const region_figures& figures) {
  const bool any_bytes =
      std::any_of(figures.bytes.begin(), figures.bytes.end(), [](const count& one) { return one.value_or(0) > 0; });
  if (!figures.threads) return region_state::not_traced;
  if (source.flop && *source.flop < 0) return region_state::overflow;
  if (!figures.operations || *figures.operations == 0) return region_state::no_operations;
  if (!figures.time) return any_bytes ? region_state::no_time : region_state::no_counters;
  return any_bytes ? region_state::complete : region_state::no_bytes;
}

void derive_rates(region_figures& figures) {
  if (figures.operations && figures.time) {
    figures.performance = finite(static_cast<double>(*figures.operations) / static_cast<double>(*figures.time));
  }
  for (std::size_t level = 0; level < level_count; ++level) {
    if (figures.bytes[level].value_or(0) <= 0) continue;
    const auto bytes = static_cast<double>(*figures.bytes[level]);
    if (figures.operations) figures.intensity[level] = finite(static_cast<double>(*figures.operations) / bytes);
    if (figures.time) figures.bandwidth[level] = finite(bytes / static_cast<double>(*figures.time));
  }
}

void add_bound(region_figures& figures, const roof& one, double work, memory_level level) {
  bound result{.roof = one.name,
               .is_compute = one.is_compute,
               .level = level,
               .value = static_cast<double>(one.value),
               .seconds = work / (static_cast<double>(one.value) * per_second),
               .share = std::nullopt};
  if (figures.time) result.share = finite(per_second * result.seconds / static_cast<double>(*figures.time));
  figures.bounds.push_back(std::move(result));
}

// Every roof that the region's work is known for gives a shortest time; the longest of these is the limit. A level of 0
// bytes was not counted and has no say, and without any level nothing is known of what moved: there is no limit then.
void derive_limit(const roof_set& roofs, const region& source, region_figures& figures) {
  for (std::size_t level = 0; level < level_count; ++level) {
    const roof* found = find_roof(roofs, level_names[level]);
    if (found == nullptr || figures.bytes[level].value_or(0) <= 0) continue;
    add_bound(figures, *found, static_cast<double>(*figures.bytes[level]), static_cast<memory_level>(level));
  }
  const bool any_level = !figures.bounds.empty();
  const std::int64_t width = main_width(source.blocks);
  const roof* compute = width > 0 ? multiply_add_roof(roofs, width) : nullptr;
  if (compute != nullptr && figures.operations) {
    add_bound(figures, *compute, static_cast<double>(*figures.operations), memory_level::l1);
  }
  if (!any_level) return;
  figures.limit = *std::max_element(figures.bounds.begin(), figures.bounds.end(), [](const bound& a, const bound& b) {
    return std::pair(a.seconds, std::string_view(a.roof)) < std::pair(b.seconds, std::string_view(b.roof));
  });
  if (figures.time) figures.reached = figures.limit->share;
}

region_figures derive_region(const result_file& file, const region& source, const std::string& name) {
  region_figures figures;
  figures.name = name;
  if (source.threads.value_or(0) > 0) {
    figures.threads = source.threads;
    if (source.flop && *source.flop >= 0) figures.operations = source.flop;
  }
  if (source.time.value_or(0) > 0) figures.time = source.time;
  figures.bytes = source.bytes;
  figures.state = state_of(source, figures);
  derive_rates(figures);
  for (const auto& [elements, sum] : sum_widths(source.blocks)) {
    figures.widths.push_back({elements, sum.exact});
    if (!sum.exact) figures.blocks_overflow = true;
  }
  const roof_set* roofs = roofs_for(file, source.threads);
  if (roofs != nullptr) {
    figures.roof_threads = roofs->threads;
    derive_limit(*roofs, source, figures);
  }
  explain_region(file, source, figures);
  return figures;
}

}  // namespace

count add(const count& a, const count& b) {
  std::int64_t sum = 0;
  if (!a || !b || __builtin_add_overflow(*a, *b, &sum)) return std::nullopt;
  return sum;
}

count multiply(const count& a, const count& b) {
  std::int64_t product = 0;
  if (!a || !b || __builtin_mul_overflow(*a, *b, &product)) return std::nullopt;
  return product;
}

std::int64_t width_class(std::int64_t elements) {
  return elements >= 8 ? 8 : elements >= 4 ? 4 : elements >= 2 ? 2 : 1;
}

std::int64_t main_width(const std::vector<block>& blocks) {
  std::int64_t widest = 0;
  double most = 0;
  bool any = false;
  for (const auto& [elements, sum] : sum_widths(blocks)) {
    any = any || sum.rough != 0;
    // If shares are equal, the wider class counts. The sums come by rising elements.
    if (widest == 0 || sum.rough >= most) {
      widest = width_class(elements);
      most = sum.rough;
    }
  }
  return any ? widest : 0;
}

const roof* find_roof(const roof_set& roofs, std::string_view name) {
  const auto last =
      std::find_if(roofs.roofs.rbegin(), roofs.roofs.rend(), [name](const roof& one) { return one.name == name; });
  return last != roofs.roofs.rend() && last->value > 0 ? &*last : nullptr;
}

const roof* multiply_add_roof(const roof_set& roofs, std::int64_t width) {
  if (width == 2) return find_roof(roofs, "f64x2-FMLA/FMLS");
  if (width == 4) return find_roof(roofs, "f32x4-FMLA/FMLS");
  if (width == 8) return find_roof(roofs, "f16x8-FMLA/FMLS");
  const roof* single_precision = find_roof(roofs, "Scalar(SP)-FMADD");
  const roof* double_precision = find_roof(roofs, "Scalar(DP)-FMADD");
  if (single_precision == nullptr || double_precision == nullptr) {
    return single_precision != nullptr ? single_precision : double_precision;
  }
  return single_precision->value >= double_precision->value ? single_precision : double_precision;
}

const roof_set* roofs_for(const result_file& file, const count& threads) {
  for (const std::int64_t wanted : {threads.value_or(0), file.threads.value_or(0)}) {
    for (const roof_set& set : file.roofs) {
      if (wanted >= 0 && set.threads == static_cast<std::uint64_t>(wanted)) return &set;
    }
  }
  return nullptr;
}

file_view derive(result_file file, const view_options& options) {
  file_view view;
  std::unordered_map<std::string, std::size_t> seen;
  for (const region& source : file.regions) {
    std::string name = source.name;
    // A region can really be named "solve (2)": names are tried until one is free.
    std::size_t& times = seen[source.name];
    while (times > 0 && seen.contains(name)) name = source.name + " (" + std::to_string(++times) + ")";
    ++seen[name];
    view.regions.push_back(derive_region(file, source, name));
    view.regions.back().index = view.regions.size() - 1;
  }
  view.roofs = describe_roofs(file);
  view.drawn_roofs = choose_roofs(file, options.threads);
  view.file = std::move(file);
  explain_file(view, options);
  return view;
}

}  // namespace ceilmeter::view
