#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "picture.h"
#include "render.h"

namespace inspect {
namespace {

using row_t = std::vector<std::string>;

const char *const PAGE_STYLE =
    "body{margin:0 auto;max-width:860px;padding:24px;background:var(--paper);color:var(--ink);"
    "font:14px/1.45 ui-sans-serif,system-ui,sans-serif}\n"
    "h1{font-size:20px}h2{font-size:17px;margin:32px 0 8px;overflow-wrap:anywhere}h3{font-size:14px;margin:20px 0 "
    "6px}\n"
    "svg{max-width:100%;height:auto}\n"
    ".scroll{overflow-x:auto}\n"
    "table{border-collapse:collapse;font-variant-numeric:tabular-nums}\n"
    "th,td{text-align:left;vertical-align:top;padding:3px 16px 3px 0;border-bottom:1px solid var(--edge)}\n"
    "th{color:var(--muted);font-weight:600}.n{text-align:right}\n"
    "td{overflow-wrap:anywhere}.bad{color:var(--bad);font-weight:600}\n";

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

std::string slot_tables(const report_t &report) {
  std::vector<row_t> lists;
  for (const list_t &list : report.lists)
    lists.push_back({list.name, number(list.length), number(list.count), index_text(list.head), index_text(list.tail),
                     index_text(list.last), list.is_complete ? "yes" : "no"});
  std::string html = table("Lists", {"List", "Slots", "Counter", "Head", "Tail", "Walk ends with", "Complete"}, lists);
  if (!report.pool) return html;
  const pool_t &pool = *report.pool;
  std::vector<row_t> rows;
  for (const pool_slot_t &slot : pool.first_slots)
    rows.push_back(
        {number(rows.size()), state_text(slot.state), number(slot.used), number(slot.deleted), number(slot.tail)});
  rows.push_back({"all", "", number(pool.used), number(pool.deleted), number(pool.tail_lost + pool.tail_open)});
  const std::string title = pool.n_slots > MAX_POOL_ROWS
                                ? fmt::format("Pool, the first {} of {} slots", MAX_POOL_ROWS, pool.n_slots)
                                : "Pool";
  return html + table(title, {"Slot", "State", "Used", "Deleted", "Tail"}, rows);
}

std::string section(const report_t &report) {
  const picture_t picture = picture_of(report, false);
  return fmt::format(
             "<section>\n<h2>{}</h2>\n<p{}>{}: {}</p>\n"
             "<svg role=\"img\" aria-label=\"slots\" width=\"{}\" height=\"{}\" viewBox=\"0 0 {} {}\">\n{}</svg>\n",
             escaped(report.name), report.is_sound() ? "" : " class=\"bad\"", escaped(kind_text(report)),
             escaped(verdict_text(report)), PICTURE_WIDTH, picture.height, PICTURE_WIDTH, picture.height,
             picture.elements) +
         findings_table(report) + header_tables(report) + (report.geometry ? geometry_tables(*report.geometry) : "") +
         slot_tables(report) + "</section>\n";
}

}  // namespace

std::string html_of(const reports_t &reports) {
  std::string sections;
  for (const report_t &report : reports) sections += section(report);
  return fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width\">\n<title>Stored arrays</title>\n"
      "<style>\n{}{}</style>\n</head>\n<body>\n<h1>Stored arrays</h1>\n{}</body>\n</html>\n",
      picture_style(), PAGE_STYLE, sections);
}

}  // namespace inspect
