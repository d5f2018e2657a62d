#include "view/remarks.h"

#include <algorithm>

#include "view/formulas.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr double above_roof_share = 1.05;

bool any_metric(const region& source) {
  return source.time ||
         std::any_of(source.bytes.begin(), source.bytes.end(), [](const count& one) { return one.has_value(); });
}

std::string file_name(const std::string& path) {
  return path == "-" || path.empty() ? "FILE" : clean_utf8(path.substr(path.rfind('/') + 1));
}

bool any_bytes(const region_figures& figures) {
  return std::any_of(figures.bytes.begin(), figures.bytes.end(), [](const count& one) { return one.value_or(0) > 0; });
}

std::string missing_text(const region& source, const region_figures& figures) {
  switch (figures.state) {
    case region_state::complete: return {};
    case region_state::not_traced:
      return any_metric(source)
                 ? "the tracer has not seen it (threads 0), so that its operations are not known: a run of the "
                   "bintracer phase adds them. Its bandwidths are known."
                 : "it has neither operations nor counters.";
    case region_state::no_operations: return "the tracer has counted no floating-point operations in it.";
    case region_state::no_counters:
      return "it has no counters: no run of the perfmon phase, or a machine that lets nobody count.";
    case region_state::no_time: return "it has no time.";
    case region_state::no_bytes: return "bytes were not counted: only its performance is known.";
    case region_state::overflow: return "its operations are negative: the sum exceeds 64 bits.";
  }
  return {};
}

std::string levels_where(const region_figures& figures, bool are_counted) {
  std::string names;
  for (std::size_t level = 0; level < level_count; ++level) {
    if ((figures.bytes[level].value_or(0) > 0) != are_counted) continue;
    names += (names.empty() ? "" : ", ") + std::string(level_names[level]);
  }
  return names;
}

void explain_levels(region_figures& figures) {
  if (!any_bytes(figures)) return;
  const std::string absent = levels_where(figures, false);
  if (absent.empty()) return;
  figures.remarks.push_back({remark_kind::level_not_counted,
                             absent +
                                 ": 0 bytes, which most often means that the counter could not be opened or does not "
                                 "exist. Limit among the counted levels: " +
                                 levels_where(figures, true) + "."});
}

void explain_above(region_figures& figures) {
  std::string roofs;
  bool memory = false;
  bool compute = false;
  for (const bound& one : figures.bounds) {
    if (!one.share || *one.share <= above_roof_share) continue;
    roofs += (roofs.empty() ? "" : ", ") + number(100 * *one.share, 3) + " % of " + one.roof + " (" +
             number(one.value) + (one.is_compute ? " GFLOPS)" : " GB/s)");
    (one.is_compute ? compute : memory) = true;
  }
  if (roofs.empty()) return;
  std::string text = "Above its roof: it reaches " + roofs +
                     ". Either the roof was measured low (another load, a lower "
                     "clock, threads on another node)";
  if (memory) text += ", or the counter counts more than the bytes that moved";
  if (compute) text += ", or the operations are of a shorter or wider type than the class that was taken for them";
  figures.remarks.push_back({remark_kind::above_roof, text + "."});
}

void explain_roofs(const result_file& file, const region& source, region_figures& figures) {
  if (!figures.roof_threads) {
    if (!file.roofs.empty() && figures.threads) {
      figures.remarks.push_back(
          {remark_kind::no_roofs, "No roofs for " + counted(static_cast<std::uint64_t>(*figures.threads), "thread") +
                                      " nor for the whole run's count: it is held against none."});
    }
    return;
  }
  const auto used = static_cast<std::int64_t>(*figures.roof_threads);
  if (figures.threads && *figures.threads != used) {
    figures.remarks.push_back({remark_kind::roofs_of_other_count,
                               "Roofs of " + counted(static_cast<std::uint64_t>(*figures.threads), "thread") +
                                   " were not measured: it is held against those of " +
                                   counted(*figures.roof_threads, "thread") + "."});
  }
  explain_above(figures);
  const roof_set* roofs = roofs_for(file, source.threads);
  for (std::size_t level = 0; level < level_count; ++level) {
    if (figures.bytes[level].value_or(0) <= 0 || find_roof(*roofs, level_names[level]) != nullptr) continue;
    figures.remarks.push_back(
        {remark_kind::roof_not_measured,
         std::string("The ") + level_names[level] + " roof was not measured: that level has no say in the limit."});
  }
}

}  // namespace

void explain_region(const result_file& file, const region& source, region_figures& figures) {
  figures.missing = missing_text(source, figures);
  explain_levels(figures);
  explain_roofs(file, source, figures);
  for (std::size_t level = 0; level < level_count; ++level) {
    if (source.bytes[level].value_or(0) >= 0) continue;
    figures.remarks.push_back(
        {remark_kind::other, std::string("The bytes of ") + level_names[level] +
                                 " are negative: the sum exceeds 64 bits. Taken as not counted."});
  }
  if (figures.blocks_overflow) {
    figures.remarks.push_back({remark_kind::sum_differs, "The sum over its blocks exceeds 64 bits."});
    return;
  }
  count sum = 0;
  for (const width_work& one : figures.widths) sum = add(sum, one.operations);
  if (!source.blocks.empty() && source.flop && sum != source.flop) {
    figures.remarks.push_back({remark_kind::sum_differs,
                               "Its operations are " + number(*source.flop) + ", the sum over its blocks is " +
                                   (sum ? number(*sum) : "beyond 64 bits") + ": blocks are missing or were changed."});
  }
}

void explain_file(file_view& view, const view_options& options) {
  const auto add_remark = [&view](remark_kind kind, std::string text) {
    view.remarks.push_back({kind, std::move(text)});
  };
  if (view.file.regions.empty()) add_remark(remark_kind::other, "No regions in this file: the roofs alone are shown.");
  if (view.file.roofs.empty()) {
    add_remark(remark_kind::no_roofs,
               "No roofs in this file. This adds them, on the machine of the run: "
               "ceilmeter --phase=benchmarks -o " +
                   file_name(view.file.path));
  } else if (options.threads && view.roofs[*view.drawn_roofs].threads != *options.threads) {
    add_remark(remark_kind::no_roofs, "Roofs of " + counted(*options.threads, "thread") +
                                          " are not in this file: those of " +
                                          counted(view.roofs[*view.drawn_roofs].threads, "thread") + " are shown.");
  }
  const auto without_counters = [](const region_figures& one) { return !any_bytes(one); };
  if (std::any_of(view.regions.begin(), view.regions.end(), without_counters)) {
    add_remark(remark_kind::other,
               "No counters, or none that moved. Where the kernel forbids to count: sysctl "
               "kernel.perf_event_paranoid=2, or setcap cap_perfmon=ep on ceilmeter, or --cap-add PERFMON for a "
               "container. Where there is no PMU, as in most virtual machines: count on the host, or ask for a virtual "
               "PMU. The log of the run has a line for each event that could not be opened.");
  }
  for (const std::string& note : view.file.notes) add_remark(remark_kind::other, note);
}

}  // namespace ceilmeter::view
