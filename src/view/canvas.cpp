#include "view/canvas.h"

#include <cmath>

#include "view/text.h"

namespace ceilmeter::view {

namespace {

std::string trimmed(double value, int decimals) {
  std::string text = fixed(value, decimals);
  if (text.find('.') == std::string::npos) return text;
  while (text.back() == '0') text.pop_back();
  if (text.back() == '.') text.pop_back();
  return text;
}

}  // namespace

std::string units(double value) { return trimmed(value, 2); }
std::string lg_text(double value) { return trimmed(value, 6); }

void svg_writer::indent() { out_.append(2 * open_.size(), ' '); }

void svg_writer::start(std::string_view tag, attributes list) {
  indent();
  out_ += '<';
  out_ += tag;
  for (const auto& [name, value] : list) {
    if (name.empty()) continue;  // an attribute that isn't wanted this time
    out_ += ' ';
    out_ += name;
    out_ += "=\"";
    out_ += escape_xml(value);
    out_ += '"';
  }
}

void svg_writer::open(std::string_view tag, attributes list) {
  start(tag, list);
  out_ += ">\n";
  open_.emplace_back(tag);
}

void svg_writer::close() {
  const std::string tag = std::move(open_.back());
  open_.pop_back();
  indent();
  out_ += "</" + tag + ">\n";
}

void svg_writer::leaf(std::string_view tag, attributes list) {
  start(tag, list);
  out_ += "/>\n";
}

void svg_writer::text(std::string_view tag, attributes list, std::string_view content) {
  start(tag, list);
  out_ += '>';
  out_ += escape_xml(content);
  out_ += "</";
  out_ += tag;
  out_ += ">\n";
}

std::string_view anchor_name(text_anchor align) {
  return align == text_anchor::start ? "start" : align == text_anchor::end ? "end" : "middle";
}

svg_writer svg_writer::nested() const {
  svg_writer inner;
  inner.open_ = open_;
  return inner;
}

std::string_view level_class(memory_level level) {
  static constexpr per_level<std::string_view> classes = {"l1", "l2", "l3", "ddr"};
  return classes[static_cast<std::size_t>(level)];
}

std::string marker_path(memory_level level, double radius) {
  const auto point = [](char command, double x, double y) { return command + units(x) + " " + units(y); };
  switch (level) {
    case memory_level::l1: {
      const std::string r = units(radius);
      return point('M', -radius, 0) + "A" + r + " " + r + " 0 1 0 " + r + " 0A" + r + " " + r + " 0 1 0 " +
             units(-radius) + " 0Z";
    }
    case memory_level::l2: {
      const double half = radius * std::sqrt(M_PI) / 2;
      return point('M', -half, -half) + "H" + units(half) + "V" + units(half) + "H" + units(-half) + "Z";
    }
    case memory_level::l3: {
      // Equilateral, its centre of gravity at 0,0.
      const double side = radius * std::sqrt(4 * M_PI / std::sqrt(3.0));
      const double height = side * std::sqrt(3.0) / 2;
      return point('M', 0, -height * 2 / 3) + point('L', side / 2, height / 3) + point('L', -side / 2, height / 3) +
             "Z";
    }
    case memory_level::ddr: break;
  }
  const double half = radius * std::sqrt(M_PI / 2);
  return point('M', 0, -half) + point('L', half, 0) + point('L', 0, half) + point('L', -half, 0) + "Z";
}

}  // namespace ceilmeter::view
