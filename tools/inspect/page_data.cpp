// The data of a page's script: the cells of the map as columns of numbers, and the records as rows of texts.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "heat_map.h"
#include "render.h"

namespace inspect {
namespace {

using json_t = nlohmann::ordered_json;

// Text of a record without a layout.
constexpr size_t RAW_COLUMN_BYTES = 32;
// Fields can have thousands of values, and overlap. These bounds keep the page small.
constexpr size_t MAX_VALUE_CHARS = 200;
constexpr size_t MAX_RECORDS_CHARS = 2 << 20;

template <class Value>
json_t column_of(const heat_map_t &map, Value value_of_cell) {
  json_t column = json_t::array();
  for (const cell_t &cell : map.cells) column.push_back(value_of_cell(cell));
  return column;
}

// Null for a use that no slot has.
json_t uses_json(const heat_map_t &map) {
  json_t uses = json_t::array();
  for (size_t use = 0; use < N_USES; ++use) {
    const bool is_used =
        std::any_of(map.cells.begin(), map.cells.end(), [use](const cell_t &cell) { return cell.counts[use] != 0; });
    uses.push_back(is_used ? column_of(map, [use](const cell_t &cell) { return cell.counts[use]; }) : json_t(nullptr));
  }
  return uses;
}

json_t cells_json(const report_t &report) {
  const heat_map_t &map = report.page_map;
  json_t names = json_t::array();
  for (size_t use = 0; use < N_USES; ++use) names.push_back(use_text(static_cast<use_t>(use)));
  if (!report.has_nodes) names[USE_ACTIVE] = "in use";
  json_t json = {{"perCell", map.slots_per_cell},
                 {"cells", map.cells.size()},
                 {"slots", map.cells.empty() ? 0 : map.cells.back().first + map.cells.back().slots},
                 {"useNames", names},
                 {"uses", uses_json(map)},
                 {"stray", json_t::array()}};
  for (size_t i = 0; i < map.cells.size(); ++i)
    if (map.cells[i].has_stray) json["stray"].push_back(i);
  return json;
}

json_t pool_columns(const heat_map_t &map, const pool_t &pool) {
  json_t json = {{"live", column_of(map, [](const cell_t &cell) { return cell.live; })},
                 {"used", column_of(map, [](const cell_t &cell) { return cell.used; })},
                 {"room", column_of(map, [](const cell_t &cell) { return cell.room; })}};
  if (pool.current < pool.n_slots) json["current"] = pool.current;
  return json;
}

std::string cut_text(const std::string &text) {
  return text.size() <= MAX_VALUE_CHARS ? text : text.substr(0, MAX_VALUE_CHARS) + "...";
}

std::string raw_text(const std::string &bytes) {
  const layout_field_t all = {"", 0, {field_kind_t::BYTES, 1, static_cast<uint32_t>(bytes.size()), false, 0, 0}};
  return field_text(all, bytes) + (bytes.size() == RAW_COLUMN_BYTES ? "..." : "");
}

json_t record_columns(const report_t &report) {
  json_t columns = json_t::array();
  columns.push_back({{"name", "record"}, {"number", true}});
  if (report.has_nodes) columns.push_back({{"name", "status"}, {"number", false}});
  if (report.layout) {
    for (const layout_field_t &field : report.layout->fields)
      columns.push_back({{"name", field.name}, {"number", field.type.is_number()}});
  } else {
    columns.push_back({{"name", "bytes"}, {"number", false}});
  }
  return columns;
}

json_t record_row(const report_t &report, const sample_t &sample, size_t *n_chars) {
  static const char *const statuses[] = {"unset", "free", "active", "inactive"};
  json_t row = json_t::array();
  const auto add = [&](const std::string &text) {
    *n_chars += text.size();
    row.push_back(text);
  };
  add(std::to_string(sample.id));
  if (report.has_nodes)
    add(sample.status < std::size(statuses) ? statuses[sample.status] : std::to_string(sample.status));
  if (!report.layout) add(raw_text(sample.bytes.substr(0, RAW_COLUMN_BYTES)));
  if (report.layout)
    for (const layout_field_t &field : report.layout->fields) add(cut_text(field_text(field, sample.bytes)));
  return row;
}

json_t records_json(const report_t &report) {
  json_t rows = json_t::array();
  size_t n_chars = 0;
  for (const sample_t &sample : report.samples)
    if (n_chars < MAX_RECORDS_CHARS) rows.push_back(record_row(report, sample, &n_chars));
  const statuses_t &counts = report.statuses;
  const uint64_t n_records =
      report.has_nodes ? report.geometry->n_present - counts.n_free - counts.n_unset : report.geometry->n_present;
  return {{"columns", record_columns(report)}, {"isAll", rows.size() == n_records}, {"rows", rows}};
}

}  // namespace

std::string page_data_of(const report_t &report) {
  json_t json = cells_json(report);
  if (report.pool) json["pool"] = pool_columns(report.page_map, *report.pool);
  if (!report.samples.empty()) json["records"] = records_json(report);
  const std::string dumped = json.dump(-1, ' ', true, json_t::error_handler_t::replace);
  // "</script>" in a text would end the element.
  std::string text;
  for (const char c : dumped) text += c == '<' ? std::string("\\u003c") : std::string(1, c);
  return text;
}

}  // namespace inspect
