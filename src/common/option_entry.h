// One row of the command line's option table. The record stands here, below everything else, because the log's own
// option handlers take a row as much as the driver's do.
#pragma once

#include <cstdint>

namespace ceilmeter {

enum argument_kind : std::uint32_t {
  ARGUMENT_NONE = 0,
  ARGUMENT_REQUIRED = 1,
  ARGUMENT_OPTIONAL = 2,
};

struct option_entry {
  char32_t short_name;                     // 0: the option has no short form.
  const char* long_name;                   // Null: the option has no long form. A row with neither name closes a table.
  std::uint32_t argument_kind;             // An enumerator of argument_kind.
  std::uint32_t seen;                      // Set to 1 by the parser when the option occurs.
  const char* argument;                    // The argument of the last occurrence; points into the process's arguments.
  std::int32_t (*handler)(option_entry&);  // Null: the parser only records. A negative result ends the parsing.
  void* user_data;                         // For the handler.
};

}  // namespace ceilmeter
