// The picture of a result.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <vector>

#include "extra/plot_svg.h"

#include "extra/plot_ticks.h"
#include "query/escape.h"
#include "query/query_text.h"
#include "query/time_text.h"

namespace metricdb {
namespace {

constexpr double WIDTH = 960;
constexpr double HEIGHT = 420;
constexpr double TOP = 64;
constexpr double RIGHT = WIDTH - 28;
constexpr double BOTTOM = HEIGHT - 52;
constexpr double CHARACTER_WIDTH = 7;  // of a label, approximately
constexpr double MIN_SPOT_GAP = 12;    // points are marked if the average distance is larger
constexpr int MAX_VALUE_TICKS = 6;
constexpr int MAX_TIME_TICKS = 9;
constexpr size_t MAX_TITLE_BYTES = 90;

struct Spot {
  double x, y;
};
using Line = std::vector<Spot>;

// Maps times and values to positions in the picture.
struct Frame {
  double left;
  int64_t first_ns, last_ns;
  long double low, high;

  // A single time is in the middle.
  double x(int64_t ts_ns) const {
    const auto offset = [&](int64_t to_ns) {
      return static_cast<double>(static_cast<uint64_t>(to_ns) - static_cast<uint64_t>(first_ns));
    };
    const double share = last_ns == first_ns ? 0.5 : offset(ts_ns) / offset(last_ns);
    return left + share * (RIGHT - left);
  }
  double y(long double value) const {
    return BOTTOM - static_cast<double>((value - low) / (high - low)) * (BOTTOM - TOP);
  }
};

std::vector<Point> finite_ones(std::span<const Point> points) {
  std::vector<Point> finite;
  std::copy_if(points.begin(), points.end(), std::back_inserter(finite),
               [](const Point &point) { return std::isfinite(point.value); });
  return finite;
}

// The spots from `begin` on are in one column of pixels. Keeps the first, the lowest, the highest and the last one.
void thin_column(Line &line, size_t begin) {
  if (line.size() - begin <= 4) return;
  const auto first = line.begin() + static_cast<ptrdiff_t>(begin);
  auto [low, high] = std::minmax_element(first, line.end(), [](const Spot &a, const Spot &b) { return a.y < b.y; });
  if (high < low) std::swap(low, high);
  const Spot kept[] = {*first, *low, *high, line.back()};
  line.erase(first, line.end());
  line.insert(line.end(), std::begin(kept), std::end(kept));
}

// A line ends at a value that is not finite.
std::vector<Line> lines_of(const Frame &frame, std::span<const Point> points) {
  std::vector<Line> lines;
  size_t column_begin = 0;
  bool is_line_open = false;
  for (const Point &point : points) {
    const bool is_finite = std::isfinite(point.value);
    if (is_finite && !is_line_open) lines.emplace_back();
    if (is_finite) {
      Line &line = lines.back();
      const Spot spot{frame.x(point.ts_ns), frame.y(point.value)};
      if (!is_line_open) column_begin = 0;
      if (!line.empty() && std::floor(line.back().x) != std::floor(spot.x)) {
        thin_column(line, column_begin);
        column_begin = line.size();
      }
      line.push_back(spot);
    } else if (is_line_open) {
      thin_column(lines.back(), column_begin);
    }
    is_line_open = is_finite;
  }
  if (is_line_open) thin_column(lines.back(), column_begin);
  return lines;
}

void draw_lines(std::string &svg, const Frame &frame, std::span<const Point> points) {
  const auto out = std::back_inserter(svg);
  const bool marks_points = static_cast<double>(points.size()) * MIN_SPOT_GAP < RIGHT - frame.left;
  for (const Line &line : lines_of(frame, points)) {
    if (line.size() > 1) {
      svg += "<path class=\"line\" d=\"";
      for (size_t i = 0; i < line.size(); ++i)
        fmt::format_to(out, "{}{:.1f},{:.1f}", i == 0 ? "M" : " ", line[i].x, line[i].y);
      svg += "\"/>\n";
    }
    // A line of one point would be invisible.
    if (!marks_points && line.size() > 1) continue;
    for (const Spot &spot : line)
      fmt::format_to(out, "<circle class=\"spot\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"2.5\"/>\n", spot.x, spot.y);
  }
}

void draw_text(std::string &svg, double x, double y, const char *style, std::string_view text) {
  fmt::format_to(std::back_inserter(svg), "<text class=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\">{}</text>\n", style, x, y,
                 xml_text(text));
}

void draw_rule(std::string &svg, const char *style, double x1, double y1, double x2, double y2) {
  fmt::format_to(std::back_inserter(svg),
                 "<line class=\"{}\" x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\"/>\n", style, x1, y1, x2,
                 y2);
}

double text_width(const std::string &label) {
  return static_cast<double>(label.size()) * CHARACTER_WIDTH;
}

// Labels with fractions of a second are long. Then there are half as many.
std::vector<TimeTick> time_ticks_for(const Frame &frame) {
  std::vector<TimeTick> ticks = time_ticks(frame.first_ns, frame.last_ns, MAX_TIME_TICKS);
  double width = 0;
  for (const TimeTick &tick : ticks) width += text_width(tick.label) + 2 * CHARACTER_WIDTH;
  return width < RIGHT - frame.left ? ticks : time_ticks(frame.first_ns, frame.last_ns, MAX_TIME_TICKS / 2);
}

void draw_axes(std::string &svg, const Frame &frame, const std::vector<ValueTick> &values) {
  for (const ValueTick &tick : values) {
    draw_rule(svg, "grid", frame.left, frame.y(tick.value), RIGHT, frame.y(tick.value));
    draw_text(svg, frame.left - 10, frame.y(tick.value) + 4, "value", tick.label);
  }
  for (const TimeTick &tick : time_ticks_for(frame)) {
    const double x = frame.x(tick.ts_ns);
    // Keeps a label at the edge inside the picture.
    const double text_x = std::min(x, WIDTH - 6 - text_width(tick.label) / 2);
    draw_rule(svg, "grid", x, TOP, x, BOTTOM);
    draw_rule(svg, "axis", x, BOTTOM, x, BOTTOM + 5);
    draw_text(svg, text_x, BOTTOM + 20, "time", tick.label);
    if (!tick.date.empty()) draw_text(svg, text_x, BOTTOM + 36, "time", tick.date);
  }
  draw_rule(svg, "axis", frame.left, BOTTOM, RIGHT, BOTTOM);
  draw_rule(svg, "axis", frame.left, TOP, frame.left, BOTTOM);
}

// Cut at the end of a character.
std::string shortened_title(const std::string &title) {
  if (title.size() <= MAX_TITLE_BYTES) return title;
  size_t length = MAX_TITLE_BYTES;
  while (length > 0 && (static_cast<unsigned char>(title[length]) & 0xc0) == 0x80) --length;
  return title.substr(0, length) + "…";
}

void draw_heading(std::string &svg, const SeriesQuery &query, std::span<const Point> points) {
  const std::string title = title_of(query);
  svg += fmt::format("<title>{}</title>\n", xml_text(title));
  svg += fmt::format("<rect width=\"{}\" height=\"{}\" fill=\"#ffffff\"/>\n", WIDTH, HEIGHT);
  draw_text(svg, 24, 28, "title", shortened_title(title));
  if (points.empty()) return;
  const int64_t first_ns = points.front().ts_ns;
  const int64_t last_ns = points.back().ts_ns;
  draw_text(svg, 24, 47, "note",
            fmt::format("{} {}, {} to {}", points.size(), points.size() == 1 ? "point" : "points",
                        time_text(first_ns, time_decimals(first_ns)), time_text(last_ns, time_decimals(last_ns))));
}

constexpr std::string_view STYLE =
    "<style>\n"
    "text{font-family:\"DejaVu Sans\",Helvetica,Arial,sans-serif;font-size:12px;fill:#48525e}\n"
    ".title{font-size:14px;font-weight:bold;fill:#1c2733}\n"
    ".value{text-anchor:end}\n"
    ".time,.none{text-anchor:middle}\n"
    ".grid{stroke:#e4e8ec;stroke-width:1}\n"
    ".axis{stroke:#7b8794;stroke-width:1}\n"
    ".line{fill:none;stroke:#1f6fb2;stroke-width:1.6;stroke-linejoin:round;stroke-linecap:round}\n"
    ".spot{fill:#1f6fb2}\n"
    "</style>\n";

void draw_plot(std::string &svg, std::span<const Point> points, const std::vector<Point> &finite) {
  const auto [low, high] = std::minmax_element(finite.begin(), finite.end(),
                                               [](const Point &a, const Point &b) { return a.value < b.value; });
  const std::vector<ValueTick> values = value_ticks(low->value, high->value, MAX_VALUE_TICKS);
  size_t longest = 0;
  for (const ValueTick &tick : values) longest = std::max(longest, tick.label.size());
  const Frame frame{32 + static_cast<double>(longest) * CHARACTER_WIDTH, points.front().ts_ns, points.back().ts_ns,
                    values.front().value, values.back().value};
  draw_axes(svg, frame, values);
  draw_lines(svg, frame, points);
}

}  // namespace

std::string answer_svg(const SeriesQuery &query, std::span<const Point> points) {
  std::string svg = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} "
      "{1}\">\n",
      WIDTH, HEIGHT);
  svg += STYLE;
  draw_heading(svg, query, points);
  const std::vector<Point> finite = finite_ones(points);
  if (finite.empty())
    draw_text(svg, WIDTH / 2, HEIGHT / 2, "none", points.empty() ? "no points" : "no point has a finite value");
  else
    draw_plot(svg, points, finite);
  return svg + "</svg>\n";
}

}  // namespace metricdb
