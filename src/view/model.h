// The records of ceilview: a result file as it was read, what is derived from it, and the whole that page, picture,
// tables and CSV are written from.
//
// Figures of the file are 64-bit integers and stay that way; derived figures are doubles. A figure that is not known is
// an empty optional, never 0, and the reason stands beside it. All texts are valid UTF-8 but not escaped: text.h does
// that at the place where they are written.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ceilmeter::view {

// The memory levels, in the order of the tables. Arrays of `level_count` elements are indexed by them.
enum class memory_level : std::uint8_t { l1 = 0, l2 = 1, l3 = 2, ddr = 3 };
inline constexpr std::size_t level_count = 4;
inline constexpr std::array<const char*, level_count> level_names = {"L1", "L2", "L3", "DDR"};

template <typename T>
using per_level = std::array<T, level_count>;
using figure = std::optional<double>;
using count = std::optional<std::int64_t>;

// ---- As read (read_result.h) ----

struct block {
  std::uint64_t start = 0;  // Addresses in the process; dump_*: offsets in the module's file.
  std::uint64_t end = 0;
  std::uint64_t dump_start = 0;
  std::uint64_t dump_end = 0;
  std::int64_t flop = 0;  // of one execution
  std::int64_t executions = 0;
  std::int32_t elements = 0;  // the file's vector_length
  std::uint32_t module = 0;   // index into result_file::modules
};

struct region {
  std::string name;
  count flop;  // Empty: the key is absent or of a wrong type.
  count threads;
  per_level<count> bytes;
  count time;  // nanoseconds
  std::vector<block> blocks;
};

struct roof {
  std::string name;
  std::int64_t value = 0;
  std::string unit;  // the file's `measure`
  bool is_compute = false;
};

struct roof_set {
  std::uint64_t threads = 0;
  std::vector<roof> roofs;
};

struct result_file {
  std::string path;   // as given on the command line
  std::string label;  // short name for the page: the path's last part without ".roofline.json" or ".json"
  count threads;
  std::vector<region> regions;   // in the order of the file; names can repeat
  std::vector<roof> root_roofs;  // the root's `roofs`
  std::vector<roof_set> roofs;   // `roofs_by_num_threads`, by rising count; without that key, `root_roofs` of `threads`
  std::vector<std::string> modules;
  std::vector<std::string> notes;  // What was odd in the file and how it was taken, one sentence each.
};

// ---- Derived (formulas.h) ----

// Why a region has no point, or only a part of one. The text that a reader sees is region_figures::missing.
enum class region_state : std::uint8_t {
  complete,       // a point for each counted level
  not_traced,     // threads 0: bandwidth bars only
  no_operations,  // traced, flop 0: listed
  no_counters,    // no metrics in the file, or time 0 and all bytes 0
  no_time,        // bytes, but time absent or 0
  no_bytes,       // time and operations, all bytes 0: a horizontal line at P
  overflow,       // a figure wrapped (negative) or isn't finite: listed
};

struct width_work {
  std::int64_t elements = 0;
  count operations;  // Empty: the sum exceeds 64 bits.
};

// Time that one roof alone would need for the region's work.
struct bound {
  std::string roof;  // name, such as "DDR" or "f64x2-FMLA/FMLS"
  bool is_compute = false;
  memory_level level = memory_level::l1;  // of a memory roof
  double value = 0;                       // GB/s or GFLOPS
  double seconds = 0;
  figure share;  // seconds / measured time: 1 is at the roof
};

enum class remark_kind : std::uint8_t {
  above_roof,            // more than 5 % above a roof
  ddr_roof_near_l3,      // DDR >= 0.9 L3
  l2_roof_near_l1,       // L2 >= 0.9 L1
  level_not_counted,     // one level 0: the limit is among the counted levels
  roofs_of_other_count,  // the region's thread count has no roofs of its own
  no_roofs,
  roof_not_measured,  // a roof of 0
  sum_differs,        // flop isn't the sum over the blocks
  other,
};

struct remark {
  remark_kind kind = remark_kind::other;
  std::string text;  // one or two sentences, complete with the figures
};

struct region_figures {
  std::size_t index = 0;  // in result_file::regions
  std::string name;       // the region's, with " (2)" and so on behind a repeated one
  region_state state = region_state::complete;
  std::string missing;                        // "not in the picture, because ..." as a sentence; empty if complete
  count threads;                              // empty if not traced
  count operations;                           // empty if not traced or wrapped
  count time;                                 // nanoseconds; empty if absent or not above 0
  per_level<count> bytes;                     // as in the file; 0 is "not counted"
  figure performance;                         // P, GFLOP/s
  per_level<figure> intensity;                // flop/byte
  per_level<figure> bandwidth;                // GB/s
  std::optional<std::uint64_t> roof_threads;  // thread count of the roofs that it is held against
  std::vector<bound> bounds;                  // one for each roof that the region has work for; compute last
  std::optional<bound> limit;                 // the longest of them; empty without any counted level that has a roof
  figure reached;                             // limit.seconds / measured seconds
  std::vector<width_work> widths;             // by rising elements
  bool blocks_overflow = false;               // the sum over the blocks exceeds 64 bits
  std::vector<remark> remarks;
};

// A roof with what the picture and the table of roofs need to know about it.
struct roof_line {
  std::string name;
  double value = 0;
  std::string unit;
  bool is_compute = false;
  std::optional<memory_level> level;  // of the four known memory roofs
  bool drawn = false;                 // by default; the others by a click
  bool thin = false;                  // FADD/FSUB rows
  bool scaled = false;                // measured with the smallest thread count and multiplied
  bool measured = true;               // false: value 0
};

struct roof_lines {
  std::uint64_t threads = 0;
  std::vector<roof_line> lines;
  std::vector<remark> remarks;
};

struct file_view {
  result_file file;
  std::vector<region_figures> regions;     // same order and size as file.regions
  std::vector<roof_lines> roofs;           // same order and size as file.roofs
  std::optional<std::size_t> drawn_roofs;  // index into `roofs`: --threads, else the root's count, else the largest
  std::vector<remark> remarks;  // of the file as a whole: no roofs, no regions, no counters with their remedies
};

// ---- Comparisons (compare.h) ----

struct region_pair {
  std::string name;
  std::optional<std::size_t> before;  // index into the old file's regions
  std::optional<std::size_t> after;
  figure time_ratio;  // after / before, as the others
  figure performance_ratio;
  per_level<figure> intensity_ratio;
  figure reached_before;
  figure reached_after;
  std::vector<remark> remarks;  // "the work changed", no partner
};

struct roof_difference {
  std::string name;
  std::string unit;
  std::uint64_t threads = 0;
  double before = 0;
  double after = 0;  // differ by more than 3 %: both are drawn
};

struct baseline_view {
  std::vector<region_pair> pairs;  // the new file's order, then those only in the old one
  std::vector<roof_difference> roofs;
  std::vector<remark> remarks;
};

struct rank_cell {
  bool present = false;
  count time;  // nanoseconds
  count operations;
  figure of_longest;  // time / the longest rank's: 0 to 1, the heat strip's shade
};

struct rank_region {
  std::string name;
  std::size_t present = 0;  // ranks that have the region
  count operations;         // sums; empty if not known in any rank, or on overflow
  per_level<count> bytes;
  count time_longest;  // nanoseconds
  count time_shortest;
  figure spread;                     // (longest - shortest) / longest
  std::vector<rank_cell> ranks;      // one for each file
  std::vector<std::size_t> slowest;  // up to three ranks, longest first
  std::vector<remark> remarks;
};

struct ranks_view {
  std::vector<std::string> labels;  // one for each rank
  std::vector<rank_region> regions;
  std::vector<remark> remarks;  // node memory is shared, and so on
};

// ---- The whole ----

// Whole decades of both axes, as exponents of ten: x is flop/byte, y GFLOP/s.
struct frame {
  int x0 = -2;
  int x1 = 2;
  int y0 = -1;
  int y1 = 3;
  bool operator==(const frame&) const = default;
};

enum class view_mode : std::uint8_t { single, overlay, baseline, ranks };

struct view_options {
  view_mode mode = view_mode::single;
  std::optional<std::uint64_t> threads;  // --threads
  std::optional<memory_level> level;     // --level; empty: all levels are shown
  std::optional<frame> fixed_frame;      // --frame
  std::string title;
};

// In mode `ranks`, `files` holds one file_view of the sums at the front and then one for each rank; in mode `baseline`
// the old file, then the new one. The picture of `ranks` shows files[0] alone.
struct view_model {
  view_options options;
  std::string title;
  std::vector<file_view> files;
  std::optional<baseline_view> baseline;
  std::optional<ranks_view> ranks;
  frame axes;  // what the picture is drawn in
};

}  // namespace ceilmeter::view
