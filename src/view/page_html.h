// The few forms of HTML that the page's tables are made of. All texts are escaped here.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "view/model.h"

namespace ceilmeter::view {

// What a cell shows, and the number that it is sorted by; empty: not known, sorted behind all others.
struct shown_figure {
  std::string text = "-";
  std::string sort;
};

shown_figure show_count(const count& value);  // all digits
shown_figure show_quantity(const count& value, std::string_view unit);
shown_figure show_time(const count& nanoseconds);
shown_figure show_figure(const figure& value, int digits = 3);
shown_figure show_percent(const figure& share, int digits = 3);  // 1 is 100 %

// A table inside of a frame that scrolls sideways. `id` has to be unique in the page.
void open_table(std::string& html, std::string_view id, std::string_view caption);
void close_table(std::string& html);

void head_cell(std::string& html, std::string_view text, bool number, std::string_view explanation = {});
void text_cell(std::string& html, std::string_view text);
void number_cell(std::string& html, const shown_figure& shown);

// The first cell of a region's row: its name, and that of its file where there are several.
void open_region_row(std::string& html, const view_model& model, std::size_t file, std::size_t region);

// A bar of `share` of its width; beyond 1 it is full and marked. `style` is the class of its colour.
std::string bar(double share, std::string_view style);

// "l1" to "ddr": the class of a level.
std::string_view level_class(std::size_t level);

}  // namespace ceilmeter::view
