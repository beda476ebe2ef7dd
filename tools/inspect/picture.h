// The picture of one array, for an SVG file and for an HTML page.
#ifndef TSLB_INSPECT_PICTURE_H
#define TSLB_INSPECT_PICTURE_H

#include <string>

#include "report.h"

namespace inspect {

constexpr int PICTURE_WIDTH = 800;

// SVG elements and their height. The origin is at the top left. An HTML page has its own titles.
struct picture_t {
  std::string elements;
  int height;
};
picture_t picture_of(const report_t &report, bool with_titles);

// Style sheet of the elements, with light and dark colours.
const char *picture_style();

// Escapes a text for element content and attributes. Bytes that are not printable ASCII become question marks.
std::string escaped(const std::string &text);

}  // namespace inspect

#endif
