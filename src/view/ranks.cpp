#include "view/ranks.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <string>
#include <tuple>
#include <unordered_map>

#include "view/formulas.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr std::size_t slowest_named = 3;

// One region over all ranks: per rank its index there, or `absent`.
constexpr std::size_t absent = static_cast<std::size_t>(-1);
struct joined_region {
  std::string name;
  std::vector<std::size_t> at;
};

std::vector<joined_region> join_regions(const std::vector<file_view>& ranks) {
  std::vector<joined_region> joined;
  std::unordered_map<std::string, std::size_t> places;
  for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
    for (const region_figures& one : ranks[rank].regions) {
      const auto [place, is_new] = places.try_emplace(one.name, joined.size());
      if (is_new) joined.push_back({one.name, std::vector<std::size_t>(ranks.size(), absent)});
      joined[place->second].at[rank] = one.index;
    }
  }
  return joined;
}

// A sum over those ranks that know the figure. Once it has overflowed it stays unknown.
struct rank_sum {
  count value;
  bool overflow = false;
  std::size_t known = 0;

  void include(const count& one) {
    if (!one) return;
    ++known;
    if (overflow) return;
    value = value ? add(value, one) : one;
    overflow = !value;
  }
};

class module_table {
 public:
  explicit module_table(result_file& sums) : sums_(sums) {}
  std::uint32_t index(const std::string& name) {
    const auto [place, is_new] = places_.try_emplace(name, static_cast<std::uint32_t>(sums_.modules.size()));
    if (is_new) sums_.modules.push_back(name);
    return place->second;
  }

 private:
  result_file& sums_;
  std::unordered_map<std::string, std::uint32_t> places_;
};

// Blocks meet by module and offsets, not by address: each rank loads its libraries where it likes.
using block_key = std::tuple<std::uint32_t, std::uint64_t, std::uint64_t, std::int64_t, std::int32_t>;

void add_blocks(std::map<block_key, block>& all, const file_view& rank, std::size_t index, module_table& modules) {
  for (block one : rank.file.regions[index].blocks) {
    one.module = modules.index(rank.file.modules[one.module]);
    const auto [place, is_new] =
        all.try_emplace({one.module, one.dump_start, one.dump_end, one.flop, one.elements}, one);
    // Executions beyond 64 bits stay at the largest count; the sum of operations overflows in any case, and says so.
    if (!is_new) {
      place->second.executions = add(place->second.executions, one.executions).value_or(INT64_MAX);
    }
  }
}

region sum_region(const std::vector<file_view>& ranks, const joined_region& joined, module_table& modules) {
  region sums;
  sums.name = joined.name;
  rank_sum flop;
  rank_sum threads;
  per_level<rank_sum> bytes;
  std::map<block_key, block> blocks;
  for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
    if (joined.at[rank] == absent) continue;
    const region_figures& one = ranks[rank].regions[joined.at[rank]];
    flop.include(one.operations);
    threads.include(one.threads);
    for (std::size_t level = 0; level < level_count; ++level) bytes[level].include(one.bytes[level]);
    if (one.time) sums.time = std::max(sums.time.value_or(0), *one.time);
    add_blocks(blocks, ranks[rank], joined.at[rank], modules);
  }
  // A wrapped sum is negative, as the collector's own would be.
  sums.flop = flop.overflow ? count(-1) : flop.value;
  sums.threads = threads.value;
  for (std::size_t level = 0; level < level_count; ++level) {
    sums.bytes[level] = bytes[level].overflow ? count(-1) : bytes[level].value;
  }
  for (const auto& [key, one] : blocks) sums.blocks.push_back(one);
  return sums;
}

void compare_times(const std::vector<file_view>& ranks, rank_region& result) {
  for (const rank_cell& cell : result.ranks) {
    if (!cell.time) continue;
    result.time_longest = std::max(result.time_longest.value_or(*cell.time), *cell.time);
    result.time_shortest = std::min(result.time_shortest.value_or(*cell.time), *cell.time);
  }
  if (!result.time_longest) return;
  const auto longest = static_cast<double>(*result.time_longest);
  result.spread = (longest - static_cast<double>(*result.time_shortest)) / longest;
  for (rank_cell& cell : result.ranks) {
    if (cell.time) cell.of_longest = static_cast<double>(*cell.time) / longest;
  }
  std::vector<std::size_t> order(ranks.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::erase_if(order, [&result](std::size_t rank) { return !result.ranks[rank].time; });
  std::stable_sort(order.begin(), order.end(),
                   [&result](std::size_t a, std::size_t b) { return *result.ranks[a].time > *result.ranks[b].time; });
  order.resize(std::min(order.size(), slowest_named));
  result.slowest = std::move(order);
}

std::string of_ranks(std::size_t some, std::size_t all) {
  return number(static_cast<std::int64_t>(some)) + " of " + counted(all, "rank");
}

rank_region compare_region(const std::vector<file_view>& ranks, const joined_region& joined) {
  rank_region result;
  result.name = joined.name;
  rank_sum operations;
  per_level<rank_sum> bytes;
  for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
    rank_cell& cell = result.ranks.emplace_back();
    if (joined.at[rank] == absent) continue;
    const region_figures& one = ranks[rank].regions[joined.at[rank]];
    cell = {.present = true, .time = one.time, .operations = one.operations, .of_longest = std::nullopt};
    ++result.present;
    operations.include(one.operations);
    for (std::size_t level = 0; level < level_count; ++level) bytes[level].include(one.bytes[level]);
  }
  result.operations = operations.value;
  for (std::size_t level = 0; level < level_count; ++level) result.bytes[level] = bytes[level].value;
  compare_times(ranks, result);
  const auto remark_on = [&](std::size_t known, std::string_view what) {
    if (known == 0 || known == ranks.size()) return;
    result.remarks.push_back({remark_kind::other, std::string(what) + " " + of_ranks(known, ranks.size()) + "."});
  };
  remark_on(result.present, "The region is in");
  if (operations.known != result.present) remark_on(operations.known, "Operations are known for");
  const auto timed = static_cast<std::size_t>(std::count_if(
      result.ranks.begin(), result.ranks.end(), [](const rank_cell& cell) { return cell.time.has_value(); }));
  if (timed != result.present) remark_on(timed, "Time is known for");
  if (operations.overflow) {
    result.remarks.push_back({remark_kind::other, "The sum of the operations exceeds 64 bits."});
  }
  return result;
}

}  // namespace

result_file sum_of_ranks(const std::vector<file_view>& ranks) {
  result_file sums;
  sums.path = ranks.front().file.path;
  sums.label = counted(ranks.size(), "rank");
  // `threads` stays unknown: the sums of several ranks aren't held against the roofs that one of them measured, but
  // against those of as many threads as all ranks had together, where a file has them.
  sums.roofs = ranks.front().file.roofs;
  module_table modules(sums);
  for (const joined_region& joined : join_regions(ranks)) sums.regions.push_back(sum_region(ranks, joined, modules));
  return sums;
}

ranks_view compare_ranks(const std::vector<file_view>& ranks) {
  ranks_view result;
  for (const file_view& rank : ranks) result.labels.push_back(rank.file.label);
  for (const joined_region& joined : join_regions(ranks)) result.regions.push_back(compare_region(ranks, joined));
  const auto add_remark = [&result](std::string text) {
    result.remarks.push_back({remark_kind::other, std::move(text)});
  };
  add_remark("Operations and bytes are sums over the ranks; time is that of the longest rank.");
  add_remark(
      "Ranks of one node share its memory, and the files do not tell which ranks those are: against the DDR roof of "
      "a whole node a single rank looks slow while its neighbours use the rest.");
  if (!ranks.front().file.roofs.empty()) {
    add_remark("The roofs are those that " + ranks.front().file.label +
               " measured. The sums are held against roofs only "
               "where the file has them for as many threads as all ranks had together.");
  }
  return result;
}

}  // namespace ceilmeter::view
