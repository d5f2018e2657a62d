// The files that every page carries, as arrays: cmake/embed_texts.cmake makes the source from src/view/page and
// third_party/d3.
#pragma once

#include <string_view>

namespace ceilmeter::view {

std::string_view page_template();  // page.html, with {{name}} where a part goes
std::string_view page_css();
// The four parts of the script, in the order in which they stand in the page.
std::string_view common_js();
std::string_view picture_js();
std::string_view tables_js();
std::string_view page_js();
std::string_view d3_js();

}  // namespace ceilmeter::view
