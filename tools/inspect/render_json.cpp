#include <fmt/format.h>

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

json_t slots_json(const report_t &report) {
  const statuses_t &counts = report.statuses;
  json_t strays = json_t::array();
  for (size_t idx = 0; idx < report.slots.size(); ++idx)
    if (report.slots[idx].is_stray) strays.push_back(idx);
  return {{"active", counts.n_active},     {"free", counts.n_free},           {"inactive", counts.n_inactive},
          {"unset", counts.n_unset},       {"not_ready", counts.n_not_ready}, {"other", counts.n_other},
          {"claim_a_list_in_vain", strays}};
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

json_t pool_json(const pool_t &pool) {
  json_t slots = json_t::array();
  for (const pool_slot_t &slot : pool.slots)
    slots.push_back(
        {{"state", state_text(slot.state)}, {"used", slot.used}, {"deleted", slot.deleted}, {"tail", slot.tail}});
  return {{"kind", pool.kind},       {"slot_capacity", pool.slot_capacity}, {"used", pool.used},
          {"deleted", pool.deleted}, {"tail_lost", pool.tail_lost},         {"tail_open", pool.tail_open},
          {"slots", slots}};
}

json_t record_json(const record_t &record) {
  return {{"id", record.id},
          {"file", record.file},
          {"offset", record.offset},
          {"node_bytes_ahead", record.head_bytes},
          {"node_bytes_behind", record.tail_bytes},
          {"hex", hex_of(record.bytes)}};
}

json_t report_json(const report_t &report) {
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
  if (report.geometry) json["geometry"] = geometry_json(*report.geometry);
  if (report.has_nodes) json["slots"] = slots_json(report);
  if (report.has_nodes) json["lists"] = lists_json(report);
  if (report.pool) json["pool"] = pool_json(*report.pool);
  if (report.record) json["record"] = record_json(*report.record);
  return json;
}

}  // namespace

std::string json_of(const reports_t &reports) {
  json_t arrays = json_t::array();
  for (const report_t &report : reports) arrays.push_back(report_json(report));
  // Names of files are bytes, and not always UTF-8.
  return json_t({{"arrays", arrays}}).dump(2, ' ', false, json_t::error_handler_t::replace) + "\n";
}

}  // namespace inspect
