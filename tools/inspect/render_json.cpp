#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include <tslb/tslb_stored.h>
#include "render.h"

namespace inspect {
namespace {

using json_t = nlohmann::ordered_json;

std::string hex_of(const std::string &bytes) {
  std::string digits;
  for (const char byte : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return digits;
}

json_t index_json(uint32_t idx) {
  return idx == TSLB_DA_NIL_IDX ? json_t(nullptr) : json_t(idx);
}

json_t header_json(const header_t &header) {
  json_t fields = json_t::array();
  for (const field_t &field : header.fields) {
    json_t value = field.is_signed ? json_t(static_cast<int16_t>(field.value)) : json_t(field.value);
    fields.push_back({{"name", field.name}, {"offset", field.offset}, {"bytes", field.bytes}, {"value", value}});
    if (!field.meaning.empty()) fields.back()["meaning"] = field.meaning;
  }
  json_t json = {{"name", header.name}, {"offset", header.offset}, {"bytes", header.bytes}, {"fields", fields}};
  if (!header.raw.empty()) json["hex"] = hex_of(header.raw);
  return json;
}

json_t geometry_json(const geometry_t &g) {
  json_t levels = json_t::array();
  for (const level_t &level : g.levels)
    levels.push_back({{"level", level.level},
                      {"first_id", level.first_id},
                      {"ids", level.ids},
                      {"used", level.used},
                      {"first_block", level.first_block},
                      {"blocks", level.blocks},
                      {"block_bytes", level.block_bytes},
                      {"tables", level.tables},
                      {"table_bytes", level.table_bytes}});
  return {{"header_bytes", g.header_bytes},
          {"record_bytes", g.record_bytes},
          {"node_bytes", g.node_bytes},
          {"slot_bytes", g.slot_bytes},
          {"n_direct", g.n_direct},
          {"n_direct_used", g.n_direct_used},
          {"n_used", g.n_used},
          {"n_present", g.n_present},
          {"capacity", g.capacity},
          {"block0_bytes", g.block0_bytes},
          {"data_blocks", g.data_blocks},
          {"data_block_bytes", g.data_block_bytes},
          {"root_table_bytes", g.root_table_bytes},
          {"table_bytes", g.table_bytes},
          {"image_bytes", g.image_bytes},
          {"stored_bytes", g.stored_bytes},
          {"levels", levels}};
}

// Counts by status. add_slots appends the stray slots.
json_t slots_json(const report_t &report) {
  const statuses_t &counts = report.statuses;
  return {{"active", counts.n_active}, {"free", counts.n_free},           {"inactive", counts.n_inactive},
          {"unset", counts.n_unset},   {"not_ready", counts.n_not_ready}, {"other", counts.n_other}};
}

json_t lists_json(const report_t &report) {
  json_t lists = json_t::array();
  for (const list_t &list : report.lists)
    lists.push_back({{"name", list.name},
                     {"head", index_json(list.head)},
                     {"tail", index_json(list.tail)},
                     {"counter", list.count},
                     {"length", list.length},
                     {"last", index_json(list.last)},
                     {"complete", list.is_complete}});
  return lists;
}

// Sums. add_pool appends the slots.
json_t pool_json(const pool_t &pool) {
  return {{"kind", pool.kind},       {"slot_capacity", pool.slot_capacity}, {"used", pool.used},
          {"deleted", pool.deleted}, {"tail_lost", pool.tail_lost},         {"tail_open", pool.tail_open}};
}

json_t record_json(const record_t &record, const std::optional<layout_t> &layout) {
  json_t json = {{"id", record.id},
                 {"file", record.file},
                 {"offset", record.offset},
                 {"node_bytes_before", record.head_bytes},
                 {"node_bytes_after", record.tail_bytes},
                 {"hex", hex_of(record.bytes)}};
  if (!layout) return json;
  json["layout"] = layout->name;
  json["fields"] = json_t::array();
  for (const layout_field_t &field : layout->fields)
    json["fields"].push_back({{"name", field.name},
                              {"offset", field.offset},
                              {"type", type_text(field.type)},
                              {"value", field_text(field, record_of(record))}});
  return json;
}

json_t seal_json(const seal_t &seal) {
  static const char *const states[] = {"absent", "verified", "contradicted"};
  json_t json = {{"path", seal.path}, {"state", states[static_cast<size_t>(seal.state)]}, {"faults", seal.faults}};
  if (seal.time.empty()) return json;
  json["writer"] = seal.writer;
  json["time"] = seal.time;
  return json;
}

json_t summary_json(const report_t &report) {
  json_t files = json_t::array(), findings = json_t::array(), headers = json_t::array();
  for (const stored_file_t &file : report.files)
    files.push_back({{"name", file.name}, {"block", file.block_num}, {"bytes", file.bytes}});
  for (const finding_t &finding : report.findings)
    findings.push_back({{"severity", finding.severity == severity_t::FAULT ? "fault" : "remark"},
                        {"file", finding.file},
                        {"offset", finding.offset},
                        {"text", finding.text}});
  for (const header_t &header : report.headers) headers.push_back(header_json(header));
  json_t json = {{"name", report.name},
                 {"form", report.is_stream ? "stream" : "block files"},
                 {"sound", report.is_sound()},
                 {"faults", report.n_faults},
                 {"remarks", report.n_remarks},
                 {"findings", findings},
                 {"files", files},
                 {"headers", headers}};
  if (report.seal) json["sidecar"] = seal_json(*report.seal);
  if (report.geometry) json["geometry"] = geometry_json(*report.geometry);
  return json;
}

// ---- Layout --------------------------------------------------------------------------------------------------------
// The pieces form one document, indented by two spaces per level.

constexpr size_t PIECE_BYTES = 1 << 16;
constexpr size_t ARRAY_INDENT = 4, MEMBER_INDENT = 6, ENTRY_INDENT = 10;

std::string line_of(size_t indent) {
  return fmt::format("\n{:{}}", "", indent);
}

// File names are bytes and can be invalid UTF-8. A line end in the dump is never part of a string: JSON escapes those.
std::string text_of(const json_t &json, size_t indent) {
  const std::string dumped = json.dump(2, ' ', false, json_t::error_handler_t::replace);
  std::string text;
  for (size_t at = 0; at < dumped.size();) {
    const size_t end = std::min(dumped.find('\n', at), dumped.size());
    text.append(dumped, at, end - at);
    if (end < dumped.size()) text += line_of(indent);
    at = end + 1;
  }
  return text;
}

// Returns the text of an object without its last line, so that the caller can append members.
std::string open_text_of(const json_t &json, size_t indent) {
  const std::string text = text_of(json, indent);
  return text.substr(0, text.rfind('\n'));
}

std::string member_text(const char *name, size_t indent) {
  return fmt::format(",{}\"{}\": ", line_of(indent), name);
}

}  // namespace

void json_writer_t::flush_at(size_t bytes) {
  if (pending_.size() < bytes) return;
  sink_(pending_);
  pending_.clear();
}

void json_writer_t::add_slots(const report_t &report, slot_rows_t *rows) {
  pending_ += member_text("slots", MEMBER_INDENT) + open_text_of(slots_json(report), MEMBER_INDENT) +
              member_text("not_on_their_list", MEMBER_INDENT + 2) + "[";
  const char *separator = "";
  for (uint64_t idx = 0; idx < rows->n_node_slots(); ++idx) {
    if (!rows->is_stray(static_cast<uint32_t>(idx))) continue;
    pending_ += fmt::format("{}{}{}", separator, line_of(ENTRY_INDENT), idx);
    separator = ",";
    flush_at(PIECE_BYTES);
  }
  if (*separator != '\0') pending_ += line_of(MEMBER_INDENT + 2);
  pending_ += fmt::format("]{}}}", line_of(MEMBER_INDENT));
}

void json_writer_t::add_pool(const report_t &report, slot_rows_t *rows) {
  pending_ += member_text("pool", MEMBER_INDENT) + open_text_of(pool_json(*report.pool), MEMBER_INDENT) +
              member_text("slots", MEMBER_INDENT + 2) + "[";
  const std::string entry = line_of(ENTRY_INDENT), member = line_of(ENTRY_INDENT + 2);
  for (uint64_t idx = 0; idx < rows->n_pool_slots(); ++idx) {
    const pool_slot_t slot = rows->pool_slot(static_cast<uint32_t>(idx));
    fmt::format_to(std::back_inserter(pending_),
                   "{0}{1}{{{2}\"state\": \"{3}\",{2}\"used\": {4},{2}\"deleted\": {5},{2}\"tail\": {6}{1}}}",
                   idx == 0 ? "" : ",", entry, member, state_text(slot.state), slot.used, slot.deleted, slot.tail);
    flush_at(PIECE_BYTES);
  }
  if (rows->n_pool_slots() != 0) pending_ += line_of(MEMBER_INDENT + 2);
  pending_ += fmt::format("]{}}}", line_of(MEMBER_INDENT));
}

void json_writer_t::add(const report_t &report, slot_rows_t *rows) {
  pending_ += has_arrays_ ? "," : "{\n  \"arrays\": [";
  has_arrays_ = true;
  pending_ += line_of(ARRAY_INDENT) + open_text_of(summary_json(report), ARRAY_INDENT);
  if (report.has_nodes) {
    add_slots(report, rows);
    pending_ += member_text("lists", MEMBER_INDENT) + text_of(lists_json(report), MEMBER_INDENT);
  }
  if (report.pool) add_pool(report, rows);
  if (report.record)
    pending_ +=
        member_text("record", MEMBER_INDENT) + text_of(record_json(*report.record, report.layout), MEMBER_INDENT);
  pending_ += line_of(ARRAY_INDENT) + "}";
  flush_at(1);
}

void json_writer_t::end() {
  pending_ += has_arrays_ ? "\n  ]\n}\n" : "{\n  \"arrays\": []\n}\n";
  flush_at(1);
}

}  // namespace inspect
