// Text as it is written: numbers without a locale, and the one place where strangers' names become harmless.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "view/model.h"

namespace ceilmeter::view {

// Bytes that aren't UTF-8 become U+FFFD, one for each maximal part of a sequence; NUL and control characters other than
// tab and newline too, since XML has no way to write them.
std::string clean_utf8(std::string_view bytes);

// What stands in an escaped text for one character or sequence of bytes.
struct escape_row {
  std::string_view sequence;  // Not empty.
  std::string_view replacement;
};

// The text by clean_utf8, with each sequence of the rows replaced. The first row that fits is taken.
std::string escape(std::string_view text, std::span<const escape_row> rows);

// For XML and HTML, element text and quoted attributes: & < > " ' as references, the rest by clean_utf8.
std::string escape_xml(std::string_view text);

// Shortest text that gives the double back, or with `digits` significant ones, as "%.3g" does in the C locale.
std::string number(double value);
std::string number(double value, int digits);
std::string number(std::int64_t value);
std::string fixed(double value, int decimals);  // "%.*f" of the C locale, "0" for "-0"

// Three digits and a decimal prefix: "1.00 kB". What rounds to the next prefix's 1.00 is written with that.
std::string quantity(std::int64_t value, std::string_view unit);
std::string duration(std::int64_t nanoseconds);                    // "20.0 ms"
std::string counted(std::uint64_t number, std::string_view noun);  // "1 thread", "4 threads"

// The first `limit` characters (not bytes), with an ellipsis for the rest.
std::string shorten(std::string_view text, std::size_t limit);

}  // namespace ceilmeter::view
