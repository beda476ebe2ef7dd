#include <fmt/format.h>

#include <algorithm>

#include "heat_map.h"
#include "picture.h"
#include "render.h"

namespace inspect {
namespace {

constexpr int MARGIN = 20, LABELS_WIDTH = 76, CELL = 18, PITCH = 21, LINE = 20;
constexpr size_t MAX_TITLE_CHARS = 84;
constexpr int RAMP_STEPS = 5;

// Keeps the end of a path, which is more specific than its beginning.
std::string shortened(const std::string &text) {
  return text.size() <= MAX_TITLE_CHARS ? text : "..." + text.substr(text.size() - MAX_TITLE_CHARS + 3);
}

class painter_t {
 public:
  explicit painter_t(const report_t &report) : report_(report), map_(report.map) {}

  picture_t paint(bool with_titles) {
    if (with_titles) titles();
    if (!map_.cells.empty()) {
      caption(map_.slots_per_cell == 1 ? "Slots, one to a cell"
                                       : fmt::format("Slots, {} to a cell", map_.slots_per_cell));
      legend();
      grid([this](const cell_t &cell, int x, int y) { uses(cell, x, y); });
      if (report_.pool) bytes();
    }
    return {out_, y_ + MARGIN};
  }

 private:
  void text(int x, int y, const char *style, const std::string &words, const char *anchor = "start") {
    out_ += fmt::format("<text class=\"m-{}\" x=\"{}\" y=\"{}\" text-anchor=\"{}\">{}</text>\n", style, x, y, anchor,
                        escaped(words));
  }
  void rect(const std::string &style, double x, double y, double width, double height) {
    out_ += fmt::format("<rect class=\"m-{}\" x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\"/>\n", style,
                        x, y, width, height);
  }

  void line_of(const char *style, const std::string &words) {
    y_ += LINE;
    text(MARGIN, y_, style, words);
  }

  void titles() {
    y_ = MARGIN - 4;
    line_of("title", shortened(report_.name));
    line_of(report_.is_good() ? "note" : "fault", kind_text(report_) + ": " + verdict_text(report_));
    for (const list_t &list : report_.lists)
      line_of("note", fmt::format("{}: length {}, counter {}, head {}, tail {}", list.name, list.length, list.count,
                                  index_text(list.head), index_text(list.tail)));
  }

  void caption(const std::string &words) {
    y_ += LINE / 2;
    line_of("caption", words);
  }

  // Starts a new line if the item does not fit.
  void legend_item(int *x, const std::string &style, const std::string &words) {
    const int width = 17 + static_cast<int>(words.size()) * 7;
    if (*x + width > PICTURE_WIDTH - MARGIN) {
      *x = MARGIN;
      y_ += LINE;
    }
    rect(style, *x, y_ - 10, 12, 12);
    text(*x + 17, y_, "note", words);
    *x += width + 18;
  }

  void legend() {
    y_ += LINE + 2;
    int x = MARGIN;
    for (int use = 0; use < N_USES; ++use) {
      uint64_t slots = 0;
      for (const cell_t &cell : map_.cells) slots += cell.counts[static_cast<size_t>(use)];
      const bool is_use = use == USE_ACTIVE && !report_.has_nodes;
      if (slots != 0)
        legend_item(&x, fmt::format("use{}", use),
                    fmt::format("{} {}", is_use ? "in use" : use_text(static_cast<use_t>(use)), slots));
    }
    const bool has_stray =
        std::any_of(map_.cells.begin(), map_.cells.end(), [](const cell_t &c) { return c.has_stray; });
    if (has_stray) legend_item(&x, "stray", "not on the list of its status");
  }

  // Fills the cell with the colour of each use, in proportion to its slots.
  void uses(const cell_t &cell, int x, int y) {
    double bottom = y + CELL;
    for (size_t use = 0; use < N_USES; ++use) {
      if (cell.counts[use] == 0) continue;
      const double height = CELL * static_cast<double>(cell.counts[use]) / static_cast<double>(cell.slots);
      bottom -= height;
      rect(fmt::format("use{}", use), x, bottom, CELL, height);
    }
    if (cell.has_stray) rect("stray", x, y, CELL, CELL);
  }

  void bytes() {
    caption("Bytes of live chunks, as a share of the slot");
    y_ += LINE + 2;
    int x = MARGIN;
    for (int step = 0; step < RAMP_STEPS; ++step)
      legend_item(&x, fmt::format("heat{}", step),
                  fmt::format("{} to {} %", step * 100 / RAMP_STEPS, (step + 1) * 100 / RAMP_STEPS));
    legend_item(&x, "heatnone", "no chunks");
    grid([this](const cell_t &cell, int at_x, int at_y) {
      const double live = live_share(cell);
      const int step = std::min(static_cast<int>(live * RAMP_STEPS), RAMP_STEPS - 1);
      rect(live < 0 ? "heatnone" : fmt::format("heat{}", step), at_x, at_y, CELL, CELL);
    });
  }

  template <class Paint>
  void grid(Paint paint_cell) {
    y_ += LINE / 2 + 2;
    for (size_t i = 0; i < map_.cells.size(); ++i) {
      const int column = static_cast<int>(i % CELL_COLUMNS);
      if (column == 0) text(MARGIN + LABELS_WIDTH - 10, y_ + 13, "label", std::to_string(map_.cells[i].first), "end");
      out_ += fmt::format("<g><title>{}</title>\n", escaped(cell_text(map_.cells[i])));
      paint_cell(map_.cells[i], MARGIN + LABELS_WIDTH + column * PITCH, y_);
      out_ += "</g>\n";
      if (column + 1 == static_cast<int>(CELL_COLUMNS) || i + 1 == map_.cells.size()) y_ += PITCH;
    }
  }

  const report_t &report_;
  const heat_map_t &map_;
  std::string out_;
  int y_ = 0;
};

}  // namespace

picture_t picture_of(const report_t &report, bool with_titles) {
  return painter_t(report).paint(with_titles);
}

const char *picture_style() {
  return ":root{color-scheme:light dark;--paper:#ffffff;--ink:#17202c;--muted:#566172;--edge:#b9c2cd;--bad:#b42318;"
         "--use0:#2f6fb5;--use1:#8fc9a3;--use2:#e5a93b;--use3:#9a6fc4;--use4:#d9483b;"
         "--heat0:#dce9f7;--heat1:#a9cbec;--heat2:#6ea6db;--heat3:#3a7cc0;--heat4:#174f8c}\n"
         "@media (prefers-color-scheme:dark){:root{--paper:#14181e;--ink:#e8edf3;--muted:#a3afbe;--edge:#4b5664;"
         "--bad:#ff8a7d;--use0:#5b9be0;--use1:#3f8a5b;--use2:#c98d20;--use3:#b18ad8;--use4:#e5604f;"
         "--heat0:#1d2f44;--heat1:#234d78;--heat2:#2f72b0;--heat3:#5a9fe0;--heat4:#b3d6fb}}\n"
         ".m-paper{fill:var(--paper)}\n"
         ".m-title,.m-caption,.m-note,.m-fault,.m-label{font:12px ui-sans-serif,system-ui,sans-serif;fill:var(--ink)}\n"
         ".m-title{font-size:15px;font-weight:600}.m-caption{font-weight:600}\n"
         ".m-note,.m-label{fill:var(--muted)}.m-label{font-size:11px;font-variant-numeric:tabular-nums}\n"
         ".m-fault{fill:var(--bad);font-weight:600}\n"
         ".m-use0{fill:var(--use0)}.m-use1{fill:var(--use1)}.m-use2{fill:var(--use2)}.m-use3{fill:var(--use3)}"
         ".m-use4{fill:var(--use4)}\n"
         ".m-use5,.m-heatnone{fill:var(--edge);fill-opacity:.35}\n"
         ".m-stray{fill:none;stroke:var(--bad);stroke-width:2.5}\n"
         ".m-heat0{fill:var(--heat0)}.m-heat1{fill:var(--heat1)}.m-heat2{fill:var(--heat2)}.m-heat3{fill:var(--heat3)}"
         ".m-heat4{fill:var(--heat4)}\n";
}

std::string escaped(const std::string &text) {
  std::string safe;
  for (const char letter : text) {
    const unsigned char byte = static_cast<unsigned char>(letter);
    if (letter == '&')
      safe += "&amp;";
    else if (letter == '<')
      safe += "&lt;";
    else if (letter == '>')
      safe += "&gt;";
    else if (letter == '"')
      safe += "&quot;";
    else
      safe += byte < 0x20 || byte >= 0x7F ? '?' : letter;
  }
  return safe;
}

std::string svg_of(const reports_t &reports) {
  std::string groups;
  int height = 0;
  for (const report_t &report : reports) {
    const picture_t picture = picture_of(report, true);
    groups += fmt::format("<g transform=\"translate(0 {})\">\n{}</g>\n", height, picture.elements);
    height += picture.height;
  }
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\">\n"
      "<style>\n{2}</style>\n<rect class=\"m-paper\" width=\"{0}\" height=\"{1}\"/>\n{3}</svg>\n",
      PICTURE_WIDTH, std::max(height, MARGIN), picture_style(), groups);
}

}  // namespace inspect
