// The command line of ceilview. Every option is described once, in the table of view_options.cpp: the parser and the
// usage text take it from there, and tests compare README.md, the man page and the completion with the usage text.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "view/model.h"

namespace ceilmeter::view {

enum class output_form : std::uint8_t { PAGE, SVG, CSV, TABLE };

// What several files are to each other.
enum class file_relation : std::uint8_t { OVERLAY, BASELINE, RANKS };

struct command_options {
  std::vector<std::string> files;  // With BASELINE the earlier run first. Never empty but for help and version.
                                   // "-" is standard input.
  std::string output;              // "-" is standard output. Set by the parser, given or not.
  output_form form = output_form::PAGE;
  file_relation relation = file_relation::OVERLAY;
  std::optional<std::uint64_t> threads;  // Whose roofs are drawn.
  std::optional<memory_level> level;     // None: all are shown.
  std::optional<frame> axes;
  std::optional<std::string> title;
  bool modules = false;
  std::string modules_folder;                    // Empty: the paths of the result file.
  std::optional<std::uint64_t> blocks = 10'000;  // On the whole page; none: all.
  bool short_paths = false;
  bool open = false;
  bool help = false;
  bool version = false;
};

struct parsed_command_line {
  command_options options;
  std::string error;  // Empty: none, and the options are complete.
};

// `arguments` without the program's own name. Options and files may stand in any order; "--" ends the options.
parsed_command_line parse_command_line(std::span<const char* const> arguments);

// The text of --help, with a line feed at its end.
std::string usage_text();

}  // namespace ceilmeter::view
