// A picture of the result of a query.
#pragma once

#include <span>
#include <string>

#include "query/query_text.h"

namespace metricdb {

// Returns SVG 1.1 without external references: a line through the values, with axes of round values and round times.
// The line is interrupted at values that are not finite. Of the points in one column of pixels only those that are
// visible are drawn.
std::string answer_svg(const SeriesQuery &query, std::span<const Point> points);

}  // namespace metricdb
