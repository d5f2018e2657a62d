// The colours of the style sheet, by the formulas of the web's accessibility guidelines and a simulation of the three
// colour-blindnesses (matrices of Machado, Oliveira and Fernandes for linear RGB, full severity).
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <string>

#include "view/page_parts.h"

namespace ceilmeter::view {
namespace {

using colour = std::array<double, 3>;
using palette = std::map<std::string, colour>;

double linear(double value) { return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4); }

palette read_palette(const std::string& block) {
  palette colours;
  for (std::size_t at = block.find("--"); at != std::string::npos; at = block.find("--", at + 2)) {
    const std::size_t colon = block.find(":#", at);
    colour& one = colours[block.substr(at + 2, colon - at - 2)];
    for (std::size_t part = 0; part < 3; ++part) {
      one[part] = linear(std::stoi(block.substr(colon + 2 + 2 * part, 2), nullptr, 16) / 255.0);
    }
  }
  return colours;
}

// The blocks of definitions: light, dark by the system, dark by choice, print.
std::vector<palette> palettes() {
  const std::string style(picture_style());
  std::vector<palette> all;
  for (std::size_t at = style.find("--paper:"); at != std::string::npos; at = style.find("--paper:", at + 1)) {
    all.push_back(read_palette(style.substr(at, style.find('}', at) - at)));
  }
  return all;
}

double luminance(const colour& one) { return 0.2126 * one[0] + 0.7152 * one[1] + 0.0722 * one[2]; }

double contrast(const colour& a, const colour& b) {
  const double first = luminance(a) + 0.05;
  const double second = luminance(b) + 0.05;
  return std::max(first, second) / std::min(first, second);
}

colour lab(const colour& rgb) {
  const auto part = [](double t) { return t > 0.008856 ? std::cbrt(t) : 7.787 * t + 16.0 / 116; };
  const double x = part((0.4124 * rgb[0] + 0.3576 * rgb[1] + 0.1805 * rgb[2]) / 0.95047);
  const double y = part(luminance(rgb));
  const double z = part((0.0193 * rgb[0] + 0.1192 * rgb[1] + 0.9505 * rgb[2]) / 1.08883);
  return {116 * y - 16, 500 * (x - y), 200 * (y - z)};
}

colour seen(const colour& rgb, const std::array<colour, 3>& matrix) {
  colour result;
  for (std::size_t row = 0; row < 3; ++row) {
    const double value = matrix[row][0] * rgb[0] + matrix[row][1] * rgb[1] + matrix[row][2] * rgb[2];
    result[row] = std::min(1.0, std::max(0.0, value));
  }
  return result;
}

double difference(const colour& a, const colour& b) {
  const colour first = lab(a);
  const colour second = lab(b);
  return std::hypot(first[0] - second[0], first[1] - second[1], first[2] - second[2]);
}

TEST(picture_style, light_dark_and_print_define_the_same_colours) {
  const std::vector<palette> all = palettes();
  ASSERT_EQ(all.size(), 4U);
  EXPECT_EQ(all[1], all[2]) << "dark by the system and dark by choice";
  EXPECT_EQ(all[0], all[3]) << "light and print";
  EXPECT_EQ(all[0].size(), 13U);
  EXPECT_EQ(all[1].size(), 13U);
}

TEST(picture_style, texts_have_a_contrast_of_four_and_a_half) {
  for (const palette& colours : palettes()) {
    for (const char* name : {"ink", "ink-soft", "l1", "l2", "l3", "ddr", "compute", "accent", "warn"}) {
      for (const char* ground : {"paper", "plot"}) {
        EXPECT_GE(contrast(colours.at(name), colours.at(ground)), 4.5) << name << " on " << ground;
      }
    }
  }
}

TEST(picture_style, levels_keep_apart_for_the_common_colour_blindnesses) {
  const std::map<std::string, std::array<colour, 3>> eyes = {
      {"all", {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}},
      {"protanopia",
       {{{0.152286, 1.052583, -0.204868}, {0.114503, 0.786281, 0.099216}, {-0.003882, -0.048116, 1.051998}}}},
      {"deuteranopia",
       {{{0.367322, 0.860646, -0.227968}, {0.280085, 0.672501, 0.047413}, {-0.011820, 0.042940, 0.968881}}}},
      {"tritanopia",
       {{{1.255528, -0.076749, -0.178779}, {-0.078411, 0.930809, 0.147602}, {0.004733, 0.691367, 0.303900}}}}};
  const std::array<const char*, 5> names = {"l1", "l2", "l3", "ddr", "compute"};
  for (const palette& colours : palettes()) {
    for (const auto& [eye, matrix] : eyes) {
      for (std::size_t a = 0; a < names.size(); ++a) {
        for (std::size_t b = a + 1; b < names.size(); ++b) {
          EXPECT_GT(difference(seen(colours.at(names[a]), matrix), seen(colours.at(names[b]), matrix)), 20)
              << names[a] << " and " << names[b] << " for " << eye;
        }
      }
    }
  }
}

}  // namespace
}  // namespace ceilmeter::view
