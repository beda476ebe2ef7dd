#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "page_parts.h"
#include "picture.h"
#include "render.h"

namespace inspect {
namespace {

using row_t = std::vector<std::string>;

bool is_number(const std::string &cell) {
  return !cell.empty() && std::all_of(cell.begin(), cell.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// `like` is a row that shows which columns are numbers.
std::string cells_of(const row_t &row, const row_t &like, const char *tag) {
  std::string html;
  for (size_t i = 0; i < row.size(); ++i)
    html += fmt::format("<{0}{1}>{2}</{0}>", tag, is_number(like[i]) ? " class=\"n\"" : "", escaped(row[i]));
  return html;
}

std::string table(const std::string &title, const row_t &head, const std::vector<row_t> &rows) {
  if (rows.empty()) return "";
  std::string html = fmt::format("<h3>{}</h3>\n<div class=\"scroll\"><table>\n<tr>{}</tr>\n", escaped(title),
                                 cells_of(head, rows.front(), "th"));
  for (const row_t &row : rows) html += "<tr>" + cells_of(row, row, "td") + "</tr>\n";
  return html + "</table></div>\n";
}

std::string number(uint64_t value) {
  return std::to_string(value);
}

std::string findings_table(const report_t &report) {
  std::vector<row_t> rows;
  for (const finding_t &finding : report.findings)
    rows.push_back({finding.severity == severity_t::FAULT ? "fault" : "remark", finding.file, number(finding.offset),
                    finding.text});
  const uint64_t more = report.n_faults + report.n_remarks - report.findings.size();
  if (more != 0) rows.push_back({"", "", "", fmt::format("and {} more", more)});
  return table("Findings", {"", "File", "Byte", "Finding"}, rows);
}

std::string header_tables(const report_t &report) {
  std::string html;
  for (const header_t &header : report.headers) {
    std::vector<row_t> rows;
    for (const field_t &field : header.fields)
      rows.push_back({number(field.offset), field.name, value_text(field), field.meaning});
    html += table(fmt::format("{}, {} bytes at {}", header.name, header.bytes, header.offset),
                  {"Byte", "Field", "Value", ""}, rows);
  }
  return html;
}

std::string geometry_tables(const geometry_t &g) {
  const std::vector<row_t> sizes = {{"slot bytes", number(g.slot_bytes)},
                                    {"record bytes", number(g.record_bytes)},
                                    {"node bytes", number(g.node_bytes)},
                                    {"slots in use", number(g.n_used)},
                                    {"slots stored", number(g.n_present)},
                                    {"maximum slots", number(g.capacity)},
                                    {"direct slots", number(g.n_direct)},
                                    {"header bytes", number(g.header_bytes)},
                                    {"block 0 bytes", number(g.block0_bytes)},
                                    {"data blocks", number(g.data_blocks)},
                                    {"bytes of a data block", number(g.data_block_bytes)},
                                    {"table bytes when loaded", number(g.table_bytes)},
                                    {"headers and used slots, bytes", number(g.image_bytes)},
                                    {"stored bytes", number(g.stored_bytes)}};
  std::vector<row_t> levels;
  for (const level_t &level : g.levels)
    levels.push_back({number(level.level), number(level.first_id), number(level.ids), number(level.used),
                      number(level.first_block), number(level.blocks), number(level.block_bytes), number(level.tables),
                      number(level.table_bytes)});
  return table("Geometry", {"", ""}, sizes) +
         table("Levels",
               {"Level", "First id", "Ids", "In use", "First block", "Blocks", "Bytes", "Tables", "Table bytes"},
               levels);
}

std::string lists_table(const report_t &report) {
  std::vector<row_t> lists;
  for (const list_t &list : report.lists)
    lists.push_back({list.name, number(list.length), number(list.count), index_text(list.head), index_text(list.tail),
                     index_text(list.last), list.is_complete ? "yes" : "no"});
  return table("Lists", {"List", "Slots", "Counter", "Head", "Tail", "Walk ends with", "Complete"}, lists);
}

std::string layout_table(const report_t &report) {
  std::vector<row_t> rows;
  if (report.layout)
    for (const layout_field_t &field : report.layout->fields)
      rows.push_back({number(field.offset), field.name, type_text(field.type)});
  return rows.empty() ? "" : table("Layout " + report.layout->name, {"Byte", "Field", "Type"}, rows);
}

// The record that was asked for, with all of its fields.
std::string record_table(const report_t &report) {
  if (!report.record || !report.layout) return "";
  std::vector<row_t> rows;
  for (const layout_field_t &field : report.layout->fields)
    rows.push_back({number(field.offset), field.name, field_text(field, record_of(*report.record))});
  return table(fmt::format("Record {}", report.record->id), {"Byte", "Field", "Value"}, rows);
}

// ---- Overview ------------------------------------------------------------------------------------------------------

// With a blank between groups of three digits, which does not break the line.
std::string grouped(uint64_t value) {
  std::string digits = number(value);
  for (size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, "&#8239;");
  return digits;
}

std::string size_text(uint64_t bytes) {
  static const char *const units[] = {"bytes", "kB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  for (; value >= 1000 && unit + 1 < std::size(units); ++unit) value /= 1000;
  return fmt::format("{:.{}f} {}", value, unit != 0 ? 1 : 0, units[unit]);
}

std::string tile(const char *title, const std::string &value, const std::string &note) {
  return fmt::format("<div><dt>{}</dt><dd>{}</dd><dd class=\"note\">{}</dd></div>\n", title, value, note);
}

std::string pool_tiles(const pool_t &pool) {
  const auto percent = [&pool](uint64_t bytes) {
    const double all = static_cast<double>(pool.used + pool.tail_lost + pool.tail_open);
    return fmt::format("{:.1f} %", all == 0 ? 0 : 100 * static_cast<double>(bytes) / all);
  };
  const uint64_t live = pool.used > pool.deleted ? pool.used - pool.deleted : 0;
  return tile("Live chunks", size_text(live), percent(live) + " of slots in use") +
         tile("Deleted chunks", size_text(pool.deleted), percent(pool.deleted)) +
         tile("Lost in tails", size_text(pool.tail_lost), percent(pool.tail_lost));
}

std::string tiles(const report_t &report) {
  if (!report.geometry) return "";
  const geometry_t &g = *report.geometry;
  const size_t n_files = report.files.size();
  std::string html = tile("Slots", grouped(g.n_used), "of at most " + grouped(g.capacity)) +
                     tile("Stored", size_text(g.stored_bytes), n_files == 1 ? "1 file" : grouped(n_files) + " files") +
                     tile(report.pool ? "Memory slot" : "Record", size_text(g.record_bytes),
                          grouped(g.node_bytes) + " bytes of nodes");
  if (report.has_nodes)
    html +=
        tile("Active", grouped(report.statuses.n_active),
             fmt::format("{} free, {} inactive", grouped(report.statuses.n_free), grouped(report.statuses.n_inactive)));
  return "<dl class=\"tiles\">\n" + html + (report.pool ? pool_tiles(*report.pool) : "") + "</dl>\n";
}

std::string badge(const char *kind, const std::string &text) {
  return fmt::format("<span class=\"badge {}\">{}</span>\n", kind, escaped(text));
}

std::string badges(const report_t &report) {
  std::string html = badge("", kind_text(report)) + badge(report.is_good() ? "good" : "bad", verdict_text(report));
  if (report.layout) html += badge("", "layout " + report.layout->name);
  if (!report.seal) return html;
  static const char *const kinds[] = {"", "good", "bad"};
  return html + badge(kinds[static_cast<size_t>(report.seal->state)], seal_text(*report.seal));
}

std::string seal_faults(const report_t &report) {
  std::vector<row_t> rows;
  if (report.seal)
    for (const std::string &fault : report.seal->faults) rows.push_back({fault});
  return table("Sidecar", {"Contradiction"}, rows);
}

// ---- Page ----------------------------------------------------------------------------------------------------------

std::string details(const std::string &title, const std::string &content) {
  return content.empty() ? "" : "<details><summary>" + title + "</summary>\n" + content + "</details>\n";
}

// The script fills the parts.
std::string section(const report_t &report, size_t idx) {
  return fmt::format("<section id=\"array-{}\">\n<h2>{}</h2>\n<p class=\"badges\">\n{}</p>\n", idx,
                     escaped(report.name), badges(report)) +
         tiles(report) + findings_table(report) + seal_faults(report) + record_table(report) +
         "<div class=\"part\" data-part=\"map\"></div>\n<div class=\"part\" data-part=\"records\"></div>\n"
         "<div class=\"part\" data-part=\"slots\"></div>\n" +
         details("Lists and geometry",
                 lists_table(report) + (report.geometry ? geometry_tables(*report.geometry) : "")) +
         details("Headers, field by field", header_tables(report)) +
         details("Fields of a record", layout_table(report)) + "<script type=\"application/json\">" +
         page_data_of(report) + "</script>\n</section>\n";
}

std::string navigation(const reports_t &reports) {
  if (reports.size() < 2) return "";
  std::string html;
  for (size_t i = 0; i < reports.size(); ++i) {
    const bool is_bad = !reports[i].is_good();
    html +=
        fmt::format("<a href=\"#array-{}\"{}>{}</a>\n", i, is_bad ? " class=\"bad\"" : "", escaped(reports[i].name));
  }
  return "<nav>\n" + html + "</nav>\n";
}

}  // namespace

// The policy forbids the browser to load anything.
std::string html_of(const reports_t &reports) {
  std::string sections;
  for (size_t i = 0; i < reports.size(); ++i) sections += section(reports[i], i);
  return fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'; "
      "script-src 'unsafe-inline'\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>Stored arrays</title>\n"
      "<style>\n{}{}</style>\n</head>\n<body>\n<h1>Stored arrays</h1>\n"
      "<noscript><p>The map and the tables of slots and records need JavaScript.</p></noscript>\n{}{}"
      "<script>\n{}</script>\n</body>\n</html>\n",
      picture_style(), PAGE_CSS, navigation(reports), sections, PAGE_JS);
}

}  // namespace inspect
