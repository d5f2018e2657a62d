// The picture against committed ones, byte for byte, and what must hold for every picture: no label over another one, a
// point or the frame. The overlaps are found by points on a raster, not by the code that placed the labels.
//
// After a wanted change write the pictures anew with CEILMETER_WRITE_PICTURES=1, and look at each in a browser.
#include "view/picture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "picture_files.h"
#include "view/canvas.h"
#include "view/label_space.h"

namespace ceilmeter::view {
namespace {

using testing::HasSubstr;
using testing::Not;

// ---- Reading a picture back: one element a line ----

std::string attribute(const std::string& line, const std::string& name) {
  const std::string start = " " + name + "=\"";
  const std::size_t at = line.find(start);
  if (at == std::string::npos) return "";
  const std::size_t from = at + start.size();
  return line.substr(from, line.find('"', from) - from);
}

std::string text_content(const std::string& line) {
  const std::size_t from = line.find('>') + 1;
  std::string text = line.substr(from, line.rfind("</") - from);
  const std::vector<std::pair<std::string, std::string>> references = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&#39;", "'"}, {"&amp;", "&"}};
  for (const auto& [reference, character] : references) {
    for (std::size_t at = text.find(reference); at != std::string::npos; at = text.find(reference, at + 1)) {
      text.replace(at, reference.size(), character);
    }
  }
  return text;
}

struct shape {
  std::string what;
  std::vector<position> raster;  // points of the shape
  double x = 0;                  // the rectangle's own axes: origin at the baseline's start
  double y = 0;
  double angle = 0;
  double width = 0;
  double ascent = 0;
  double descent = 0;
};

// The text's rectangle as a browser draws it with the widest font of the table, without any margin.
shape text_shape(const std::string& line) {
  shape one;
  one.what = text_content(line);
  const double size = attribute(line, "class").starts_with("edge-value") ? 11 : 12;
  one.width = text_width(one.what, size);
  one.ascent = size * font_ascent;
  one.descent = size * font_descent;
  const std::string transform = attribute(line, "transform");
  if (std::sscanf(transform.c_str(), "translate(%lf %lf) rotate(%lf)", &one.x, &one.y, &one.angle) == 3) {
    one.angle *= M_PI / 180;
  } else {
    one.x = std::stod(attribute(line, "x"));
    one.y = std::stod(attribute(line, "y"));
  }
  const std::string anchor = attribute(line, "text-anchor");
  const double back = anchor == "end" ? one.width : anchor == "middle" ? one.width / 2 : 0;
  one.x -= back * std::cos(one.angle);
  one.y -= back * std::sin(one.angle);
  const int columns = std::max(2, static_cast<int>(one.width / 2));
  for (int column = 0; column <= columns; ++column) {
    for (int row = 0; row <= 7; ++row) {
      const double along = one.width * column / columns;
      const double across = -one.ascent + (one.ascent + one.descent) * row / 7;
      one.raster.push_back({one.x + along * std::cos(one.angle) - across * std::sin(one.angle),
                            one.y + along * std::sin(one.angle) + across * std::cos(one.angle)});
    }
  }
  return one;
}

bool holds(const shape& text, const position& point) {
  const double dx = point.x - text.x;
  const double dy = point.y - text.y;
  const double along = dx * std::cos(text.angle) + dy * std::sin(text.angle);
  const double across = -dx * std::sin(text.angle) + dy * std::cos(text.angle);
  return along > 0 && along < text.width && across > -text.ascent && across < text.descent;
}

bool overlapping(const shape& a, const shape& b) {
  const auto in = [](const shape& text) { return [&text](const position& point) { return holds(text, point); }; };
  return std::any_of(a.raster.begin(), a.raster.end(), in(b)) || std::any_of(b.raster.begin(), b.raster.end(), in(a));
}

struct read_picture {
  std::map<std::string, std::vector<shape>> roof_labels;  // by the set's file and thread count
  std::vector<shape> region_texts;
  std::vector<std::pair<position, double>> points;  // centre and radius of the area
  std::map<std::string, bool> hidden;
};

read_picture read_back(const std::string& svg) {
  read_picture picture;
  std::string set;
  std::size_t from = 0;
  while (from < svg.size()) {
    const std::size_t to = svg.find('\n', from);
    const std::string line = svg.substr(from, to - from);
    from = to + 1;
    const std::string kind = attribute(line, "class");
    if (kind == "roofs" || kind == "roofs old") {
      set = attribute(line, "data-file") + "/" + attribute(line, "data-threads");
      picture.hidden[set] = line.find(" hidden=") != std::string::npos;
    } else if (kind == "roof-label") {
      picture.roof_labels[set].push_back(text_shape(line));
    } else if (kind == "region-label" || kind == "region-note" || kind.starts_with("edge-value")) {
      picture.region_texts.push_back(text_shape(line));
    } else if (kind.starts_with("marker") && line.find("data-size") != std::string::npos) {
      position at;
      const std::string place = attribute(line, "transform");
      if (std::sscanf(place.c_str(), "translate(%lf %lf)", &at.x, &at.y) != 2)
        ADD_FAILURE() << line;
      else
        picture.points.push_back({at, std::stod(attribute(line, "data-size"))});
    }
  }
  return picture;
}

void expect_apart(const std::vector<shape>& texts, const std::string& name) {
  for (std::size_t a = 0; a < texts.size(); ++a) {
    for (std::size_t b = a + 1; b < texts.size(); ++b) {
      EXPECT_FALSE(overlapping(texts[a], texts[b])) << name << ": " << texts[a].what << " / " << texts[b].what;
    }
  }
}

void expect_off_points_and_frame(const shape& text, const read_picture& picture, const std::string& name) {
  for (const position& point : text.raster) {
    EXPECT_TRUE(point.x > 72 && point.x < 1096 && point.y > 44 && point.y < 640) << name << ": " << text.what;
    for (const auto& [center, radius] : picture.points) {
      EXPECT_GT(std::hypot(point.x - center.x, point.y - center.y), radius) << name << ": " << text.what;
    }
  }
}

// ---- Tests ----

TEST(picture, is_the_committed_one_byte_for_byte) {
  for (const auto& [name, model] : pictures()) {
    const std::string path = std::string(CEILMETER_VIEW_PICTURES) + "/" + name + ".svg";
    const std::string drawn = draw_picture(model, {});
    if (std::getenv("CEILMETER_WRITE_PICTURES") != nullptr) std::ofstream(path, std::ios::binary) << drawn;
    EXPECT_EQ(drawn == content(path), true) << path << " differs";
  }
}

TEST(picture, labels_of_ten_differing_files_overlap_neither_one_another_nor_points_nor_the_frame) {
  const auto all = pictures();
  ASSERT_GE(all.size(), 10U);
  std::size_t labels = 0;
  for (const auto& [name, model] : all) {
    const read_picture picture = read_back(draw_picture(model, {}));
    std::vector<shape> texts = picture.region_texts;
    for (const auto& [set, roofs] : picture.roof_labels) texts.insert(texts.end(), roofs.begin(), roofs.end());
    labels += texts.size();
    expect_apart(texts, name);
    for (const shape& text : texts) expect_off_points_and_frame(text, picture, name);
  }
  EXPECT_GT(labels, 80U) << "the pictures have labels at all";
}

TEST(picture, labels_stay_apart_whatever_a_page_shows_of_the_hidden_roofs) {
  for (const auto& [name, model] : pictures()) {
    const read_picture picture = read_back(draw_picture(model, {.standalone = false, .all_threads = true}));
    for (const auto& [set, roofs] : picture.roof_labels) {
      std::vector<shape> texts = picture.region_texts;
      texts.insert(texts.end(), roofs.begin(), roofs.end());
      expect_apart(texts, name + " " + set);
      for (const shape& text : roofs) expect_off_points_and_frame(text, picture, name + " " + set);
    }
  }
}

TEST(picture, every_drawn_roof_of_a_usual_file_has_its_label) {
  const std::string svg = draw_picture(build_view({committed("all_phases")}, {}), {});
  for (const char* label :
       {"L1 360 GB/s, 4 threads, scaled", "L2 280 GB/s, 4 threads, scaled", "L3 150 GB/s, 4 threads",
        "DDR 40 GB/s, 4 threads", "f32x4-FMLA/FMLS 192 GFLOPS, 4 threads, scaled",
        "f32x4-FADD/FSUB 96 GFLOPS, 4 threads, scaled", "Scalar(DP)-FMADD 48 GFLOPS, 4 threads, scaled"}) {
    EXPECT_THAT(svg, HasSubstr(std::string(">") + label + "</text>"));
  }
}

TEST(picture, point_stands_where_its_figures_say) {
  // solve: 19.2 GFLOP/s; 0.096, 0.48, 2.4, 0.6 flop/byte. The frame goes from 0.01 to 1000 over 1024 units.
  const std::string svg = draw_picture(build_view({committed("all_phases")}, {}), {});
  const double x = 72 + (std::log10(0.6) + 2) * 1024 / 5;
  const double y = 640 - (std::log10(19.2) + 1) * 596 / 4;
  char place[64];
  std::snprintf(place, sizeof place, "translate(%.2f %.2f)", x, y);
  EXPECT_THAT(svg, HasSubstr("data-x0=\"-2\" data-x1=\"3\" data-y0=\"-1\" data-y1=\"3\""));
  EXPECT_THAT(svg, HasSubstr(std::string("data-level=\"ddr\" data-x=\"-0.221849\" data-y=\"1.283301\"")));
  EXPECT_THAT(svg, HasSubstr(place));
}

// The area by the shoelace formula over the path's corners.
double area_of(const std::string& path) {
  std::vector<position> corners;
  position at;
  for (std::size_t from = path.find_first_of("MLHV"); from != std::string::npos;
       from = path.find_first_of("MLHV", from + 1)) {
    char* end = nullptr;
    const double first = std::strtod(path.c_str() + from + 1, &end);
    if (path[from] == 'H')
      at.x = first;
    else if (path[from] == 'V')
      at.y = first;
    else
      at = {first, std::strtod(end, nullptr)};
    corners.push_back(at);
  }
  double twice = 0;
  for (std::size_t from = 0; from < corners.size(); ++from) {
    const position& a = corners[from];
    const position& b = corners[(from + 1) % corners.size()];
    twice += a.x * b.y - b.x * a.y;
  }
  return std::abs(twice) / 2;
}

TEST(picture, shapes_of_one_time_have_one_area) {
  const double circle = M_PI * 10 * 10;
  for (const memory_level level : {memory_level::l2, memory_level::l3, memory_level::ddr}) {
    EXPECT_NEAR(area_of(marker_path(level, 10)), circle, 0.005 * circle) << marker_path(level, 10);
  }
  EXPECT_EQ(marker_path(memory_level::l1, 10), "M-10 0A10 10 0 1 0 10 0A10 10 0 1 0 -10 0Z");
}

TEST(picture, names_of_strangers_stay_text) {
  const std::string svg = draw_picture(strange_names(), {});
  EXPECT_THAT(svg, Not(HasSubstr("<img")));
  EXPECT_THAT(svg, Not(HasSubstr("</script")));
  EXPECT_THAT(svg, HasSubstr("&lt;/script&gt;&lt;img src=x onerror=alert(1)&gt;"));
  EXPECT_THAT(svg, HasSubstr("&quot;quoted&quot; &amp; &#39;single&#39;"));
}

TEST(picture, has_neither_inline_styles_nor_event_attributes) {
  for (const auto& [name, model] : pictures()) {
    const std::string svg = draw_picture(model, {.standalone = false, .all_threads = true});
    EXPECT_THAT(svg, Not(HasSubstr(" style=\""))) << name;
    // A quote in a name is escaped: what ends in =" is an attribute.
    for (std::size_t at = svg.find(" on"); at != std::string::npos; at = svg.find(" on", at + 1)) {
      const std::size_t end = svg.find_first_not_of("abcdefghijklmnopqrstuvwxyz", at + 1);
      EXPECT_NE(svg.substr(end, 2), "=\"") << name << svg.substr(at, 20);
    }
    EXPECT_THAT(svg, Not(HasSubstr("<style"))) << name;
  }
}

TEST(picture, points_far_outside_become_arrows_with_their_values) {
  const std::string svg = draw_picture(far_points(), {});
  EXPECT_THAT(svg, HasSubstr("data-edge=\"right\""));
  EXPECT_THAT(svg, HasSubstr("data-edge=\"bottom\""));
  EXPECT_THAT(svg, HasSubstr("L1 4e+12, L2 4e+13, L3 4e+14, DDR 4e+15 flop/byte"));
  EXPECT_THAT(svg, HasSubstr(">1.11e-11 GFLOP/s</text>"));
  EXPECT_THAT(svg, HasSubstr("no bytes: bytes were not counted"));
}

TEST(picture, baseline_shows_hollow_before_and_filled_after_with_an_arrow_and_both_roofs) {
  const std::string svg = draw_picture(compared_files(), {});
  EXPECT_THAT(svg, HasSubstr("class=\"region before\" id=\"region-0-0\""));
  EXPECT_THAT(svg, HasSubstr("class=\"region after\" id=\"region-1-0\""));
  EXPECT_THAT(svg, HasSubstr("class=\"marker ddr hollow\""));
  EXPECT_THAT(svg, HasSubstr("class=\"move ddr\" data-level=\"ddr\""));
  EXPECT_THAT(svg, HasSubstr("class=\"roofs old\" data-file=\"0\""));
}

TEST(picture, same_model_gives_the_same_bytes_in_every_locale) {
  const view_model model = build_view({committed("all_phases")}, {});
  const std::string before = draw_picture(model, {});
  if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) std::setlocale(LC_ALL, "");
  EXPECT_EQ(draw_picture(model, {}) == before, true);
  std::setlocale(LC_ALL, "C");
}

}  // namespace
}  // namespace ceilmeter::view
