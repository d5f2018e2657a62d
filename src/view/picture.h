// The picture: the one renderer for the page, for --svg and for print. page_parts.h says what it consists of.
#pragma once

#include <string>

#include "view/model.h"

namespace ceilmeter::view {

struct picture_options {
  bool standalone = true;    // with its own style sheet, XML namespace and declaration; off inside of a page
  bool all_threads = false;  // the roofs of every thread count, the others hidden: for the page's switch
};

// The whole <svg> element. The same model gives the same bytes on every machine and in every locale.
std::string draw_picture(const view_model& model, const picture_options& options);

}  // namespace ceilmeter::view
