// An answer in the forms in which it is printed: a table for people, CSV and JSON for programs, and a picture.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "query/query.h"

namespace metricdb {

// What an answer is the answer to.
struct Asked {
  std::string_view key;
  Query query;
};

// Times and values under each other, then how many there are and a line of cells that shows their course. Values have
// up to ten digits here, and all of theirs in CSV and JSON.
std::string answer_table(const Asked &asked, std::span<const Point> points);

// RFC 4180, with a line `time,KEY` ahead. What is no finite number reads nan, inf or -inf.
std::string answer_csv(const Asked &asked, std::span<const Point> points);

// {"key": KEY, "fn": "mean", "every_ns": 60000000000, "points": [["2026-01-02T03:04:05Z", 1.5], ...]}, in lines; fn and
// every_ns with windows only. What is no finite number is null, since JSON has no word for it.
std::string answer_json(const Asked &asked, std::span<const Point> points);

// SVG 1.1, all in itself: a line through the values over axes with round numbers and round times. Where a value is no
// finite number the line is broken. Of many points in one column of the picture the ones that show are drawn.
std::string answer_svg(const Asked &asked, std::span<const Point> points);

// What was asked, for a heading: the key, and with windows their function and length.
std::string title_of(const Asked &asked);

}  // namespace metricdb
