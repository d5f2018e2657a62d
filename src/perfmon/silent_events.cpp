// Which metrics are 0 for want of an event.
#include "perfmon/silent_events.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>

#include "shared_names.h"

namespace ceilmeter {

namespace {

// With fewer accesses than this all data may really have come from the first-level cache.
constexpr std::uint64_t accesses_that_reach_every_level = 10'000;

std::string in_lower_case(std::string_view name) {
  std::string text(name);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
  return text;
}

// The kernel lists only events that the architecture defines, and of these the ones that the processor says it has.
bool would_be_listed(std::int32_t code) { return code < 0x40 || (code >= 0x4000 && code < 0x4040); }

std::string hexadecimal(std::int32_t code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(code));
  return text;
}

// What is known about the events of one metric.
struct metric_events {
  std::string names;  // "LL_CACHE (0x32)", joined by commas.
  std::uint64_t count = 0;
  bool opened = false;
  bool all_unlisted = true;
};

metric_events events_of(const std::string& metric, const counter_table& totals,
                        const std::optional<std::set<std::string>>& listed) {
  metric_events events;
  for (const roofline_event_row& row : roofline_event_codes) {
    if (row.metric != metric) continue;
    const std::uint64_t* value = totals.find(std::string_view(row.name));
    if (value == nullptr) continue;
    events.opened = true;
    events.count += *value;
    if (!events.names.empty()) events.names += ", ";
    events.names += std::string(row.name) + " (" + hexadecimal(row.code) + ")";
    if (!listed || !would_be_listed(row.code) || listed->contains(in_lower_case(row.name))) events.all_unlisted = false;
  }
  return events;
}

// Empty if the folder is not there.
std::set<std::string> entries_of(const std::string& folder) {
  std::set<std::string> names;
  DIR* stream = opendir(folder.c_str());
  if (stream == nullptr) return names;
  while (const dirent* entry = readdir(stream)) {
    if (entry->d_name[0] != '.') names.insert(entry->d_name);
  }
  closedir(stream);
  return names;
}

}  // namespace

std::optional<std::set<std::string>> read_listed_events(const std::string& folder) {
  std::set<std::string> names;
  for (const std::string& unit : entries_of(folder)) {
    const std::string path = folder + "/" + unit;
    // Units of the processor name their processors in "cpus"; those of interconnects and memory use codes of their own.
    if (access((path + "/cpus").c_str(), F_OK) != 0) continue;
    names.merge(entries_of(path + "/events"));
  }
  if (names.empty()) return std::nullopt;
  return names;
}

std::vector<std::string> describe_silent_metrics(const counter_table& totals,
                                                 const std::optional<std::set<std::string>>& listed) {
  const std::uint64_t* accesses = totals.find(std::string_view(roofline_event_codes[0].name));
  const bool has_work = accesses != nullptr && *accesses >= accesses_that_reach_every_level;
  std::vector<std::string> warnings;
  for (const std::string& metric : roofline_metric_names) {
    const metric_events events = events_of(metric, totals, listed);
    if (!events.opened || events.count != 0 || !(has_work || events.all_unlisted)) continue;
    std::string text = metric + " is 0 in all regions: " + events.names + " did not count";
    if (has_work) text += " while L1D_CACHE counted " + std::to_string(*accesses);
    if (events.all_unlisted) text += ", and the kernel does not list it for this processor";
    warnings.push_back(text + ". The processor may lack the event; do not read this 0 as no traffic");
  }
  return warnings;
}

}  // namespace ceilmeter
