#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <iterator>

#include <tslb/tslb_dynarr.h>
#include "render.h"

namespace inspect {

// ---- Texts shared with the other renderers -------------------------------------------------------------------------

std::string printable(const std::string &text) {
  std::string shown;
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte == 0x7F)
      shown += fmt::format("\\x{:02x}", byte);
    else if (c == '\\')
      shown += "\\\\";
    else
      shown += c;
  }
  return shown;
}

std::string value_text(const field_t &field) {
  if (!field.is_signed) return fmt::format("{}", field.value);
  return fmt::format("{}", static_cast<int16_t>(field.value));
}

std::string index_text(uint32_t idx) {
  return idx == TSLB_DA_NIL_IDX ? "none" : fmt::format("{}", idx);
}

const char *state_text(pool_slot_state_t state) {
  static const char *const texts[] = {"current", "filled", "free", "unset"};
  return texts[static_cast<size_t>(state)];
}

std::string kind_text(const report_t &report) {
  const std::string form = report.is_stream ? "snapshot stream" : "block files";
  if (!report.geometry) return form;
  if (report.pool) return fmt::format("{}, {} pool", form, report.pool->kind);
  return form + (report.has_nodes ? ", slot array" : ", plain array");
}

std::string status_text(uint32_t status) {
  static const char *const names[] = {"unset", "free", "active", "inactive"};
  return status < std::size(names) ? fmt::format("{} ({})", status, names[status]) : std::to_string(status);
}

std::string_view record_of(const record_t &record) {
  const std::string_view slot = record.bytes;
  const size_t before = std::min<size_t>(record.head_bytes, slot.size());
  return slot.substr(before, record.slot_bytes - record.head_bytes - record.tail_bytes);
}

std::string seal_text(const seal_t &seal) {
  static const char *const texts[] = {"contents unverified, since there is no sidecar", "contents verified",
                                      "the contents are not those that were sealed"};
  return texts[static_cast<size_t>(seal.state)];
}

std::string verdict_text(const report_t &report) {
  const auto counted = [](uint64_t count, const char *what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
  };
  std::string faults = report.is_sound() ? "sound" : counted(report.n_faults, "fault");
  // Often the only line that is read. A sidecar that could not be read has no time.
  if (report.is_contradicted())
    faults += report.seal->time.empty() ? ", but its sidecar cannot be read" : ", but not as sealed";
  return report.n_remarks == 0 ? faults : faults + ", " + counted(report.n_remarks, "remark");
}

namespace {

// ---- Sections ------------------------------------------------------------------------------------------------------

std::string contents_text(const seal_t &seal) {
  std::string text = fmt::format("  {}: {}", printable(seal.path), seal_text(seal));
  if (!seal.time.empty()) text += fmt::format(", sealed {} by {}", seal.time, printable(seal.writer));
  text += "\n";
  for (const std::string &fault : seal.faults) text += fmt::format("    {}\n", printable(fault));
  return text;
}

std::string findings_text(const report_t &report) {
  std::string text;
  for (const finding_t &finding : report.findings)
    text += fmt::format("  {}{}: byte {}: {}\n",
                        finding.severity == severity_t::FAULT ? "" : "remark: ", printable(finding.file),
                        finding.offset, finding.text);
  const uint64_t more = report.n_faults + report.n_remarks - report.findings.size();
  if (more != 0) text += fmt::format("  and {} more\n", more);
  return text;
}

std::string hex_lines(const std::string &bytes, uint64_t offset);

std::string header_text(const header_t &header) {
  std::string text = fmt::format("  {}, {} bytes at {}\n", header.name, header.bytes, header.offset);
  for (const field_t &field : header.fields)
    text += fmt::format("    {:>6}  {:<50}  {}{}\n", field.offset, field.name, value_text(field),
                        field.meaning.empty() ? "" : "  (" + field.meaning + ")");
  text += hex_lines(header.raw.substr(0, MAX_RAW_BYTES), header.offset);
  if (header.raw.size() > MAX_RAW_BYTES)
    text += fmt::format("    and {} more bytes; --json has them all\n", header.raw.size() - MAX_RAW_BYTES);
  return text;
}

std::string levels_text(const geometry_t &g) {
  if (g.levels.empty()) return "";
  std::string text =
      fmt::format("    {:>5}  {:>10}  {:>10}  {:>10}  {:>11}  {:>10}  {:>12}  {:>8}  {:>12}\n", "level", "first id",
                  "ids", "in use", "first block", "blocks", "block bytes", "tables", "table bytes");
  for (const level_t &level : g.levels)
    text += fmt::format("    {:>5}  {:>10}  {:>10}  {:>10}  {:>11}  {:>10}  {:>12}  {:>8}  {:>12}\n", level.level,
                        level.first_id, level.ids, level.used, level.first_block, level.blocks, level.block_bytes,
                        level.tables, level.table_bytes);
  return text;
}

std::string geometry_text(const geometry_t &g) {
  return fmt::format(
             "  geometry\n"
             "    slot           {} bytes: record {}, nodes {}\n"
             "    slots          {} in use of at most {}, {} of them stored\n"
             "    block 0        {} bytes: headers {}, direct area {} for {} slots, {} in use\n"
             "    data blocks    {} of {} bytes\n"
             "    tables         {} bytes when loaded, with the root table\n"
             "    stored bytes   {}; headers and used slots need {}\n",
             g.slot_bytes, g.record_bytes, g.node_bytes, g.n_used, g.capacity, g.n_present, g.block0_bytes,
             g.header_bytes, g.block0_bytes - g.header_bytes, g.n_direct, g.n_direct_used, g.data_blocks,
             g.data_block_bytes, g.table_bytes, g.stored_bytes, g.image_bytes) +
         levels_text(g);
}

std::string lists_text(const report_t &report) {
  if (!report.has_nodes) return "";
  const statuses_t &counts = report.statuses;
  std::string text = fmt::format(
      "  slots\n    active {}, free {}, inactive {}, unset {}, not ready {}, other {}\n  lists\n", counts.n_active,
      counts.n_free, counts.n_inactive, counts.n_unset, counts.n_not_ready, counts.n_other);
  for (const list_t &list : report.lists)
    text += fmt::format("    {:<13}  {} slots, counter {}; head {}, tail {}, walk ends with {}{}\n", list.name,
                        list.length, list.count, index_text(list.head), index_text(list.tail), index_text(list.last),
                        list.is_complete ? "" : ", before the end of the list");
  return text;
}

std::string pool_text(const pool_t &pool) {
  std::string text = fmt::format(
      "  pool, {}\n"
      "    slots          {}: {} filled, {} free, {} unset\n"
      "    chunk bytes    {} used, {} of them deleted; {} lost in tails, {} open in the current slot\n",
      pool.kind, pool.n_slots, pool.n_filled, pool.n_free, pool.n_unset, pool.used, pool.deleted, pool.tail_lost,
      pool.tail_open);
  if (!pool.first_slots.empty())
    text += fmt::format("    {:>6}  {:<8}  {:>10}  {:>10}  {:>10}\n", "slot", "state", "used", "deleted", "tail");
  for (size_t idx = 0; idx < pool.first_slots.size(); ++idx) {
    const pool_slot_t &slot = pool.first_slots[idx];
    text += fmt::format("    {:>6}  {:<8}  {:>10}  {:>10}  {:>10}\n", idx, state_text(slot.state), slot.used,
                        slot.deleted, slot.tail);
  }
  if (pool.n_slots > MAX_POOL_ROWS)
    text += fmt::format("    and {} more; --json has them all\n", pool.n_slots - MAX_POOL_ROWS);
  return text;
}

// ---- Bytes ---------------------------------------------------------------------------------------------------------

constexpr size_t LINE_BYTES = 16;

std::string hex_line(const std::string &line, uint64_t offset) {
  std::string digits, letters;
  for (size_t i = 0; i < line.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(line[i]);
    digits += fmt::format("{}{:02x}", i == LINE_BYTES / 2 ? "  " : " ", byte);
    letters += byte < 0x80 && std::isprint(byte) != 0 ? line[i] : '.';
  }
  return fmt::format("    {:>10} {:<49}  |{}|\n", offset, digits, letters);
}

// Prints "*" for lines that repeat the line above.
std::string hex_lines(const std::string &bytes, uint64_t offset) {
  std::string text, above;
  bool is_repeating = false;
  for (size_t at = 0; at < bytes.size(); at += LINE_BYTES) {
    const std::string line = bytes.substr(at, LINE_BYTES);
    const bool is_last = at + LINE_BYTES >= bytes.size();
    if (line != above || is_last)
      text += hex_line(line, offset + at);
    else if (!is_repeating)
      text += "             *\n";
    is_repeating = line == above;
    above = line;
  }
  return text;
}

std::string fields_text(const layout_t &layout, std::string_view record) {
  std::string text = fmt::format("    fields of {}\n", layout.name);
  for (const layout_field_t &field : layout.fields)
    text += fmt::format("    {:>6}  {:<50}  {}\n", field.offset, field.name, field_text(field, record));
  return text;
}

std::string record_text(const record_t &record, const std::optional<layout_t> &layout) {
  std::string text =
      fmt::format("  record {}, slot at byte {} of {}\n", record.id, record.offset, printable(record.file));
  if (record.bytes.empty()) return text + "    its bytes are missing\n";
  // Only the end of a slot can be missing.
  const size_t head = std::min<size_t>(record.head_bytes, record.bytes.size());
  const auto word = [&](size_t at) {
    uint32_t value;
    record.bytes.copy(reinterpret_cast<char *>(&value), sizeof(value), at);
    return value;
  };
  if (head == sizeof(node_fw))
    text += fmt::format("    status {}, next {}\n", status_text(word(0)), index_text(word(4)));
  if (layout) text += fields_text(*layout, record_of(record));
  text += hex_lines(record.bytes.substr(head), record.offset + head);
  if (record.bytes.size() < record.slot_bytes)
    return text +
           fmt::format("    only {} of the slot's {} bytes are stored\n", record.bytes.size(), record.slot_bytes);
  if (record.tail_bytes != sizeof(node_bw)) return text;
  const size_t back = record.bytes.size() - sizeof(node_bw);
  return text + fmt::format("    the last {} bytes are the back node: prev {}, ts {}\n", sizeof(node_bw),
                            index_text(word(back + offsetof(node_bw, prev))), word(back + offsetof(node_bw, ts)));
}

}  // namespace

std::string text_of(const report_t &report) {
  std::string text = fmt::format("{}: {}: {}\n", printable(report.name), kind_text(report), verdict_text(report)) +
                     (report.seal ? contents_text(*report.seal) : "") + findings_text(report);
  for (const header_t &header : report.headers) text += header_text(header);
  if (report.geometry) text += geometry_text(*report.geometry);
  text += lists_text(report);
  if (report.pool) text += pool_text(*report.pool);
  if (report.record) text += record_text(*report.record, report.layout);
  return text;
}

}  // namespace inspect
