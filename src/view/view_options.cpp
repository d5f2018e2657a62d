// Options may stand behind files, as users of a viewer type them; getopt_long would also print its complaints in the
// language of the locale. So the words are walked here.
#include "view/view_options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <system_error>

#include "view/frame.h"

namespace ceilmeter::view {

namespace {

enum class value_kind : std::uint8_t { NONE, REQUIRED, OPTIONAL };

// Stores an option's value, empty where there is none. Returns what is wrong with it, or an empty text.
using option_reader = std::string (*)(command_options&, std::string_view value);

struct option_row {
  char short_name;  // 0: none
  const char* long_name;
  value_kind kind;
  const char* value_name;  // As the usage text shows it.
  option_reader read;
  const char* words;
};

std::string in_quotes(std::string_view text) { return "'" + std::string(text) + "'"; }

// Decimal digits only: no sign, no blanks.
std::optional<std::uint64_t> whole_number(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

std::string read_form(command_options& options, output_form form) {
  const bool is_second = options.form != output_form::PAGE && options.form != form;
  options.form = form;
  return is_second ? "only one of --svg, --csv and --table can be given" : "";
}

std::string read_output(command_options& options, std::string_view value) {
  if (value.empty()) return "--output wants a path";
  options.output = value;
  return {};
}

std::string read_relation(command_options& options, file_relation relation) {
  if (options.relation != file_relation::OVERLAY) {
    return options.relation == relation ? "--baseline can be given once" : "--baseline and --ranks exclude each other";
  }
  options.relation = relation;
  return {};
}

// The earlier run is kept in front of the files.
std::string read_baseline(command_options& options, std::string_view value) {
  if (value.empty()) return "--baseline wants the result file of the earlier run";
  std::string error = read_relation(options, file_relation::BASELINE);
  if (error.empty()) options.files.emplace(options.files.begin(), value);
  return error;
}

std::string read_ranks(command_options& options, std::string_view) {
  if (options.relation == file_relation::RANKS) return {};
  return read_relation(options, file_relation::RANKS);
}

std::string read_threads(command_options& options, std::string_view value) {
  options.threads = whole_number(value);
  if (options.threads.value_or(0) > 0) return {};
  return "--threads wants a whole number from 1 on, not " + in_quotes(value);
}

std::string read_level(command_options& options, std::string_view value) {
  for (std::size_t level = 0; level < level_count; ++level) {
    const std::string_view name = level_names[level];
    bool same = name.size() == value.size();
    // Names have letters and digits only; bit 5 makes a letter a small one and leaves a digit as it is.
    for (std::size_t at = 0; same && at < name.size(); ++at) same = (name[at] | 0x20) == (value[at] | 0x20);
    if (!same) continue;
    options.level = static_cast<memory_level>(level);
    return {};
  }
  return "--level wants L1, L2, L3 or DDR, not " + in_quotes(value);
}

std::string read_frame(command_options& options, std::string_view value) {
  options.axes = parse_frame(value);
  if (options.axes) return {};
  return "--frame wants powers of ten such as -2:2,0:4 for 0.01 to 100 flop/byte and 1 to 10000 GFLOP/s, not " +
         in_quotes(value);
}

std::string read_title(command_options& options, std::string_view value) {
  options.title = value;
  return {};
}

std::string read_modules(command_options& options, std::string_view value) {
  options.modules = true;
  options.modules_folder = value;
  return {};
}

std::string read_blocks(command_options& options, std::string_view value) {
  options.blocks = whole_number(value);
  if (options.blocks || value == "all") return {};
  return "--blocks wants a whole number or all, not " + in_quotes(value);
}

constexpr option_row rows[] = {
    {'o', "output", value_kind::REQUIRED, "<file>", read_output,
     "where to write; - is standard output (default: the first file with .html, .svg or .csv for .json; with --table "
     "standard output)"},
    {0, "svg", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return read_form(options, output_form::SVG); },
     "write the picture alone"},
    {0, "csv", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return read_form(options, output_form::CSV); },
     "write the points and the roofs as comma-separated values"},
    {0, "table", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return read_form(options, output_form::TABLE); },
     "write a table of the regions as plain text"},
    {0, "baseline", value_kind::REQUIRED, "<file>", read_baseline, "compare the one file with this earlier run"},
    {0, "ranks", value_kind::NONE, "", read_ranks, "put the files together as the ranks of one parallel job"},
    {0, "threads", value_kind::REQUIRED, "<count>", read_threads,
     "draw the roofs of this thread count (default: that of the whole run)"},
    {0, "level", value_kind::REQUIRED, "<L1|L2|L3|DDR>", read_level,
     "the memory level that is selected first (default: all)"},
    {0, "frame", value_kind::REQUIRED, "<x:x,y:y>", read_frame,
     "the edges of the picture as powers of ten, flop/byte and then GFLOP/s: -2:2,0:4 (default: from the roofs)"},
    {0, "title", value_kind::REQUIRED, "<text>", read_title, "the heading (default: the names of the files)"},
    {0, "modules", value_kind::OPTIONAL, "[=<folder>]", read_modules,
     "name the functions and instructions of blocks from the module files (default: at the paths of the result file)"},
    {0, "blocks", value_kind::REQUIRED, "<count|all>", read_blocks,
     "blocks to list on the page, those of most operations first (default: 10000)"},
    {0, "short-paths", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return options.short_paths = true, std::string(); },
     "show module files without their folders"},
    {0, "open", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return options.open = true, std::string(); },
     "show what was written in a browser"},
    {'h', "help", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return options.help = true, std::string(); },
     "print this message and exit"},
    {'v', "version", value_kind::NONE, "",
     [](command_options& options, std::string_view) { return options.version = true, std::string(); },
     "print the version and exit"},
};

const option_row* find_long(std::string_view name) {
  for (const option_row& row : rows) {
    if (name == row.long_name) return &row;
  }
  return nullptr;
}

const option_row* find_short(char name) {
  for (const option_row& row : rows) {
    if (row.short_name != 0 && row.short_name == name) return &row;
  }
  return nullptr;
}

// The words of the command line, taken from the front.
class argument_walk {
 public:
  argument_walk(std::span<const char* const> words, command_options& result) : left(words), options(result) {}

  // Returns what is wrong with the next word, or an empty text.
  std::string take_one() {
    const std::string_view word = left.front();
    left = left.subspan(1);
    if (closed || word == "-" || !word.starts_with('-')) return take_file(word);
    if (word == "--") {
      closed = true;
      return {};
    }
    return word.starts_with("--") ? take_long(word.substr(2)) : take_short(word.substr(1));
  }

  bool is_done() const { return left.empty() || options.help || options.version; }

 private:
  std::string take_file(std::string_view word) {
    if (word.empty()) return "a path is empty";
    options.files.emplace_back(word);
    return {};
  }

  std::string take_long(std::string_view word) {
    const std::size_t length = std::min(word.find('='), word.size());
    const option_row* row = find_long(word.substr(0, length));
    if (row == nullptr) return "there is no option --" + std::string(word.substr(0, length));
    if (length < word.size()) {
      if (row->kind == value_kind::NONE) return "--" + std::string(row->long_name) + " takes no value";
      return row->read(options, word.substr(length + 1));
    }
    return take_value(*row, {});
  }

  // Short options may stand together; what stands behind one that has a value is the value.
  std::string take_short(std::string_view word) {
    for (; !word.empty(); word.remove_prefix(1)) {
      const option_row* row = find_short(word.front());
      if (row == nullptr) return "there is no option -" + std::string(word.substr(0, 1));
      if (row->kind != value_kind::NONE) return take_value(*row, word.substr(1));
      if (std::string error = row->read(options, {}); !error.empty()) return error;
    }
    return {};
  }

  // `attached` is the value if it is not empty. An optional value never is a word of its own.
  std::string take_value(const option_row& row, std::string_view attached) {
    if (row.kind != value_kind::REQUIRED || !attached.empty()) return row.read(options, attached);
    if (left.empty()) return "--" + std::string(row.long_name) + " wants a value";
    const std::string_view value = left.front();
    left = left.subspan(1);
    return row.read(options, value);
  }

  std::span<const char* const> left;
  command_options& options;
  bool closed = false;
};

// "app.json" gives "app.html", any other name keeps all of it in front of the ending.
std::string default_output(std::string_view file, output_form form) {
  if (form == output_form::TABLE || file == "-") return "-";
  if (file.ends_with(".json") && file.size() > 5) file.remove_suffix(5);
  constexpr std::array<const char*, 3> endings = {".html", ".svg", ".csv"};
  return std::string(file) + endings[static_cast<std::size_t>(form)];
}

// What no option tells alone.
std::string check_together(const command_options& options) {
  const std::size_t files = options.files.size();
  if (files == 0) return "no result file is given";
  if (options.relation == file_relation::BASELINE && files != 2) {
    return "--baseline compares one file with an earlier one; " + std::to_string(files - 1) + " are given besides it";
  }
  if (std::count(options.files.begin(), options.files.end(), "-") > 1) return "standard input can be read once";
  if (options.open && options.output == "-") return "--open wants a file, not standard output";
  return {};
}

// Appends `words` in lines that end at `width`, those behind the first one indented.
void append_wrapped(std::string& text, std::string_view words, std::size_t indent, std::size_t width) {
  std::size_t column = indent;
  bool first = true;
  while (!words.empty()) {
    const std::size_t length = std::min(words.find(' '), words.size());
    if (!first && column + 1 + length > width) {
      text += '\n';
      text.append(indent, ' ');
      column = indent;
      first = true;
    }
    if (!first) text += ' ';
    text += words.substr(0, length);
    column += length + (first ? 0 : 1);
    first = false;
    words.remove_prefix(std::min(words.size(), length + 1));
  }
  text += '\n';
}

}  // namespace

parsed_command_line parse_command_line(std::span<const char* const> arguments) {
  parsed_command_line parsed;
  command_options& options = parsed.options;
  argument_walk walk(arguments, options);
  while (!walk.is_done()) {
    parsed.error = walk.take_one();
    if (!parsed.error.empty()) return parsed;
  }
  if (options.help || options.version) return parsed;
  // A baseline's own page is that of the later run.
  if (options.output.empty() && !options.files.empty()) {
    const bool is_later = options.relation == file_relation::BASELINE;
    options.output = default_output(is_later ? options.files.back() : options.files.front(), options.form);
  }
  parsed.error = check_together(options);
  return parsed;
}

std::string usage_text() {
  constexpr std::size_t words_column = 40;
  constexpr std::size_t width = 118;
  std::string text =
      "usage: ceilview [OPTIONS] FILE...\n"
      "Draws the rooflines of result files of ceilmeter.\n"
      "OPTIONS:\n";
  for (const option_row& row : rows) {
    std::string head = "    ";
    if (row.short_name != 0) head += std::string("-") + row.short_name + "|";
    head += std::string("--") + row.long_name;
    if (row.kind == value_kind::REQUIRED) head += "=";
    head += row.value_name;
    head.resize(words_column - 2, ' ');
    text += head + "- ";
    append_wrapped(text, row.words, words_column, width);
  }
  return text;
}

}  // namespace ceilmeter::view
