// Numbers come from std::to_chars, which knows no locale.
#include "view/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace ceilmeter::view {

namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";  // U+FFFD

bool is_continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Number of bytes of the well-formed sequence at the front of `text`, or 0; then `*skip` is what becomes one U+FFFD.
// The second byte's range keeps out overlong forms, surrogates and what lies beyond U+10FFFF.
std::size_t sequence_length(std::string_view text, std::size_t* skip) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  *skip = 1;
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead == 0xE0) low = 0xA0;
  if (lead == 0xED) high = 0x9F;
  if (lead == 0xF0) low = 0x90;
  if (lead == 0xF4) high = 0x8F;
  for (std::size_t at = 1; at < length; ++at) {
    if (at >= text.size() || !is_continuation(byte(at))) return 0;
    if (at == 1 && (byte(at) < low || byte(at) > high)) return 0;
    *skip = at + 1;
  }
  return length;
}

bool is_forbidden(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) return (first < 0x20 && first != '\t' && first != '\n') || first == 0x7F;
  // C1 control characters, and the two non-characters at the end of the basic plane.
  if (sequence.size() == 2) return first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;
  return sequence == "\xEF\xBF\xBE" || sequence == "\xEF\xBF\xBF";
}

}  // namespace

std::string clean_utf8(std::string_view bytes) {
  std::string clean;
  clean.reserve(bytes.size());
  while (!bytes.empty()) {
    std::size_t skip = 1;
    const std::size_t length = sequence_length(bytes, &skip);
    if (length == 0 || is_forbidden(bytes.substr(0, length))) {
      clean += replacement;
      bytes.remove_prefix(length == 0 ? skip : length);
    } else {
      clean += bytes.substr(0, length);
      bytes.remove_prefix(length);
    }
  }
  return clean;
}

std::string escape(std::string_view text, std::span<const escape_row> rows) {
  std::string escaped;
  const std::string clean = clean_utf8(text);
  for (std::string_view rest = clean; !rest.empty();) {
    const auto row = std::find_if(rows.begin(), rows.end(), [rest](const escape_row& candidate) {
      return candidate.sequence.front() == rest.front() && rest.starts_with(candidate.sequence);
    });
    if (row != rows.end()) {
      escaped += row->replacement;
      rest.remove_prefix(row->sequence.size());
    } else {
      escaped += rest.front();
      rest.remove_prefix(1);
    }
  }
  return escaped;
}

std::string escape_xml(std::string_view text) {
  static constexpr std::array<escape_row, 5> rows = {
      {{"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&#39;"}}};
  return escape(text, rows);
}

namespace {

template <typename value_type>
std::string shortest(value_type value) {
  std::array<char, 64> text;
  const auto done = std::to_chars(text.data(), text.data() + text.size(), value);
  return {text.data(), done.ptr};
}

}  // namespace

std::string number(double value) { return shortest(value); }

std::string number(double value, int digits) {
  std::array<char, 64> text;
  const auto done = std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::general, digits);
  return done.ec == std::errc{} ? std::string(text.data(), done.ptr) : number(value);
}

std::string number(std::int64_t value) { return shortest(value); }

std::string fixed(double value, int decimals) {
  std::array<char, 400> text;
  const auto done = std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals);
  if (done.ec != std::errc{}) return number(value);
  std::string result(text.data(), done.ptr);
  const bool zero = result.find_first_not_of("-0.") == std::string::npos;
  if (zero && result.front() == '-') result.erase(0, 1);
  return result;
}

namespace {

std::string three_digits(double value) { return fixed(value, value < 9.995 ? 2 : value < 99.95 ? 1 : 0); }

struct prefix {
  std::string_view name;
  double scale;
};

}  // namespace

std::string quantity(std::int64_t value, std::string_view unit) {
  static constexpr std::array<prefix, 4> prefixes = {{{"T", 1e12}, {"G", 1e9}, {"M", 1e6}, {"k", 1e3}}};
  for (const prefix& one : prefixes) {
    const auto amount = static_cast<double>(value);
    if (amount >= one.scale * 0.9995)
      return three_digits(amount / one.scale) + " " + std::string(one.name) + std::string(unit);
  }
  return number(value) + (unit.empty() ? "" : " ") + std::string(unit);
}

std::string duration(std::int64_t nanoseconds) {
  static constexpr std::array<prefix, 3> units = {{{"s", 1e9}, {"ms", 1e6}, {"us", 1e3}}};
  for (const prefix& one : units) {
    const auto amount = static_cast<double>(nanoseconds);
    if (amount >= one.scale * 0.9995) return three_digits(amount / one.scale) + " " + std::string(one.name);
  }
  return number(nanoseconds) + " ns";
}

std::string counted(std::uint64_t number, std::string_view noun) {
  return std::to_string(number) + " " + std::string(noun) + (number == 1 ? "" : "s");
}

std::string shorten(std::string_view text, std::size_t limit) {
  std::size_t characters = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (is_continuation(static_cast<unsigned char>(text[at]))) continue;
    if (characters == limit - 1) {
      // The ellipsis takes the last place, unless this is the last character.
      std::size_t next = at + 1;
      while (next < text.size() && is_continuation(static_cast<unsigned char>(text[next]))) ++next;
      return next == text.size() ? std::string(text) : std::string(text.substr(0, at)) + "\xE2\x80\xA6";
    }
    ++characters;
  }
  return std::string(text);
}

}  // namespace ceilmeter::view
