// The picture of one array, for a file of its own and for a page.
#ifndef TSLB_INSPECT_PICTURE_H
#define TSLB_INSPECT_PICTURE_H

#include <string>

#include "report.h"

namespace inspect {

constexpr int PICTURE_WIDTH = 800;

// Elements of SVG, with the origin at their top left, and the height that they take. A page has titles of its own.
struct picture_t {
  std::string elements;
  int height;
};
picture_t picture_of(const report_t &report, bool with_titles);

// Colours of the elements, in light and in dark.
const char *picture_style();

// A text between tags or in an attribute, in which a question mark stands for each byte that is not printable ASCII.
std::string escaped(const std::string &text);

}  // namespace inspect

#endif
