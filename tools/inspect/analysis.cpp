// Reads headers, computes the geometry and compares it with the files.
#include "analysis.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <tslb/array_loader.h>
#include "analysis_internal.h"
#include "heat_map.h"

namespace inspect {
namespace {

constexpr uint64_t TABLE_BYTES = TSLB_ENTRIES_PER_TABLE * sizeof(void *);

uint64_t ids_of_level(unsigned level) {
  const uint32_t ids[] = {single_redirection_elements_count, second_redirection_elements_count,
                          third_redirection_elements_count,  fourth_redirection_elements_count,
                          fifth_redirection_elements_count,  sixth_redirection_elements_count};
  return ids[level - 1];
}

uint64_t ids_beyond_direct() {
  return tslb_stored_first_of_level(TSLB_LEVELS) + ids_of_level(TSLB_LEVELS);
}

uint64_t blocks_for(uint64_t slots) {
  return (slots + TSLB_SLOTS_PER_BLOCK - 1) / TSLB_SLOTS_PER_BLOCK;
}

}  // namespace

bool analysis_t::count(severity_t severity) {
  ++(severity == severity_t::FAULT ? report_.n_faults : report_.n_remarks);
  return report_.findings.size() < MAX_FINDINGS;
}

void analysis_t::keep(severity_t severity, location_t at, const std::string &text) {
  report_.findings.push_back({severity, store_->file_name(at.block_num), at.offset, text});
}

// ---- Rules ---------------------------------------------------------------------------------------------------------

bool analysis_t::violated(tslb_rule_t rule, uint64_t pos, const uint64_t *values) {
  const severity_t severity = rule_is_fault(rule) ? severity_t::FAULT : severity_t::REMARK;
  if (!count(severity)) return true;
  char text[256];
  write_rule(rule, values, text, sizeof(text));
  location_t at = location_of(pos);
  // The position can be in the missing part of a cut slot. The report then names the end of the file.
  const stored_file_t *const file = store_->file_of(at.block_num);
  if (file != nullptr) at.offset = std::min(at.offset, file->bytes);
  keep(severity, at, text);
  return true;
}

void analysis_t::no_memory(uint32_t) {
  throw std::bad_alloc();
}

report_t analysis_t::run() {
  report_.name = store_->name();
  report_.is_stream = store_->is_stream();
  report_.files = store_->files();
  report_.kind = options_.kind;
  if (!read_headers()) return report_;
  measure();
  // Before check_stream_end, which needs the cursor: a stream may end there.
  rules_.check_pool(options_.kind, false);
  cut_bytes_ = rules_.last_slot_bytes();
  store_->is_stream() ? check_stream_end() : check_files();
  report_.is_cut = cut_bytes_ != 0;
  n_present_ = geometry().n_present = present_slots();
  if (report_.has_nodes) read_nodes();
  rules_.check_nodes(this, static_cast<uint32_t>(n_present_));
  if (report_.has_nodes) add_list("free list", TSLB_RULE_FREE_LIST);
  if (rules_.has_inactive_list()) add_list("inactive list", TSLB_RULE_INACTIVE_LIST);
  rules_.check_counters(this, static_cast<uint32_t>(n_present_));
  count_cells();
  if (is_pool()) sum_pool();
  report_.map = merged_map(report_.page_map, MAX_CELLS);
  copy_record();
  if (options_.for_page && !is_pool()) copy_samples();
  return report_;
}

// ---- Headers -------------------------------------------------------------------------------------------------------

bool analysis_t::read_headers() {
  const stored_file_t &file = store_->files().front();
  const auto bytes_at = [&](uint64_t offset, uint64_t size) {
    std::string bytes(offset < file.bytes ? std::min(size, file.bytes - offset) : 0, '\0');
    bytes.resize(store_->read(file, offset, bytes.data(), bytes.size()));
    return bytes;
  };
  DynHdr_t hdr;
  const std::string start = bytes_at(0, sizeof(hdr));
  report_.headers.push_back(start_fields(start));
  if (start.size() < sizeof(hdr)) {
    fault({0, start.size()}, "ends {} bytes into DynHdr_t of {}", start.size(), sizeof(hdr));
    return false;
  }
  std::memcpy(&hdr, start.data(), sizeof(hdr));
  rules_.check_start(hdr);

  const std::string user = bytes_at(sizeof(hdr), hdr.hdr_size);
  if (options_.kind != ARRAY_LOAD_ANY && hdr.hdr_size == sizeof(DynMemHdr_t))
    report_.headers.push_back(pool_fields(sizeof(hdr), user));
  else if (hdr.hdr_size != 0)
    report_.headers.push_back(user_header(sizeof(hdr), hdr.hdr_size, user));
  const uint64_t lli_at = rules_.lli_at(), arr_hdr_at = rules_.arr_hdr_at();
  const std::string lists = bytes_at(lli_at, std::min<uint64_t>(hdr.lli_sz, sizeof(DynArrLLI_t)));
  if (hdr.lli_sz != 0) report_.headers.push_back(list_fields(lli_at, lists));
  report_.headers.push_back(array_fields(arr_hdr_at, bytes_at(arr_hdr_at, sizeof(DynArrHdr_t))));

  const uint64_t header_bytes = arr_hdr_at + sizeof(DynArrHdr_t);
  const std::string all = bytes_at(0, header_bytes);
  if (all.size() == header_bytes) {
    rules_.check_headers(all.data(), 0);
    return true;
  }
  fault({0, file.bytes}, "ends {} bytes into headers of {}", file.bytes, header_bytes);
  return false;
}

// ---- Sizes ---------------------------------------------------------------------------------------------------------

// The products below wrap only with a record_size that check_headers has reported as a fault.
void analysis_t::measure() {
  const image_shape_t &shape = rules_.shape();
  geometry_t &g = report_.geometry.emplace();
  g.header_bytes = shape.header_bytes;
  g.record_bytes = shape.record_bytes;
  g.daflag = shape.daflag;
  g.node_bytes = shape.slot_bytes - shape.record_bytes;
  g.shift = shape.shift;
  g.slot_bytes = shape.slot_bytes;
  g.n_direct = shape.n_direct;
  g.n_used = shape.n_used;
  g.n_direct_used = std::min(g.n_direct, g.n_used);
  g.capacity = g.n_direct + ids_beyond_direct();
  g.block0_bytes = g.header_bytes + g.slot_bytes * g.n_direct;
  g.data_block_bytes = g.slot_bytes * TSLB_SLOTS_PER_BLOCK;
  g.image_bytes = g.header_bytes + g.slot_bytes * g.n_used;
  for (const stored_file_t &file : store_->files()) g.stored_bytes += file.bytes;
  report_.has_nodes = rules_.has_nodes();
  measure_levels();
}

void analysis_t::measure_levels() {
  geometry_t &g = geometry();
  const uint64_t beyond = std::min(g.n_used - g.n_direct_used, ids_beyond_direct());
  g.data_blocks = blocks_for(beyond);
  g.root_table_bytes = beyond != 0 ? TABLE_BYTES : 0;
  g.table_bytes = g.root_table_bytes;
  for (unsigned level = 1; level <= TSLB_LEVELS && beyond > tslb_stored_first_of_level(level); ++level) {
    level_t row = {};
    row.level = level;
    row.ids = ids_of_level(level);
    row.first_id = g.n_direct + tslb_stored_first_of_level(level);
    row.used = std::min(beyond - tslb_stored_first_of_level(level), row.ids);
    row.first_block = tslb_stored_block_num(tslb_stored_first_of_level(level));
    row.blocks = blocks_for(row.used);
    // Counts the tables tier by tier, upwards from the blocks: a table is needed for 16 entries.
    uint64_t below = row.blocks;
    for (unsigned tier = 0; tier < level; ++tier)
      row.tables += below = (below + TSLB_ENTRIES_PER_TABLE - 1) / TSLB_ENTRIES_PER_TABLE;
    row.block_bytes = row.blocks * g.data_block_bytes;
    row.table_bytes = row.tables * TABLE_BYTES;
    g.table_bytes += row.table_bytes;
    g.levels.push_back(row);
  }
}

// ---- Files ---------------------------------------------------------------------------------------------------------

location_t analysis_t::location_of(uint64_t pos) const {
  if (store_->is_stream() || !report_.geometry) return {0, pos};
  const geometry_t &g = geometry();
  if (pos < g.block0_bytes || g.data_block_bytes == 0) return {0, pos};
  const uint64_t beyond = pos - g.block0_bytes;
  return {static_cast<uint32_t>(beyond / g.data_block_bytes + 1), beyond % g.data_block_bytes};
}

void analysis_t::check_stream_end() {
  const geometry_t &g = geometry();
  if (g.slot_bytes == 0 && g.n_used != 0) return;  // a rule has reported this, and the end is unknown
  if (g.stored_bytes > g.image_bytes) {
    fault({0, g.image_bytes}, "{} more bytes after the last slot", g.stored_bytes - g.image_bytes);
  } else if (g.stored_bytes < g.image_bytes) {
    const uint64_t whole = (g.stored_bytes - g.header_bytes) / g.slot_bytes;
    const uint64_t rest = (g.stored_bytes - g.header_bytes) % g.slot_bytes;
    if (cut_bytes_ != 0 && whole == g.n_used - 1 && rest == cut_bytes_) return;
    cut_bytes_ = 0;
    fault({0, g.stored_bytes}, "ends {} bytes into slot {} of {}", rest, whole, g.n_used);
    return;
  }
  cut_bytes_ = 0;
}

void analysis_t::check_file_size(const stored_file_t &file, uint64_t wanted) {
  if (file.bytes != wanted)
    fault({file.block_num, std::min(file.bytes, wanted)}, "{} bytes long, but its block has {}", file.bytes, wanted);
}

// Missing files with consecutive numbers are one finding: a header can claim millions.
void analysis_t::check_files() {
  const geometry_t &g = geometry();
  cut_bytes_ = 0;
  uint64_t due = 1;
  const auto report_missing = [&](uint64_t end) {
    if (due < end)
      fault({static_cast<uint32_t>(due), 0}, "{} of {} data blocks are missing, starting with this one", end - due,
            g.data_blocks);
  };
  for (const stored_file_t &file : store_->files()) {
    if (file.block_num > g.data_blocks) {
      remark({file.block_num, 0}, "no slot of its block is in use");
      continue;
    }
    check_file_size(file, file.block_num == 0 ? g.block0_bytes : g.data_block_bytes);
    if (file.block_num == 0) continue;
    report_missing(file.block_num);
    due = uint64_t{file.block_num} + 1;
  }
  report_missing(g.data_blocks + 1);
}

// Counts slots up to the first one that is not completely in the files, or cut at the cursor. At most the capacity:
// other ids have no place in the maps.
uint64_t analysis_t::present_slots() const {
  const geometry_t &g = geometry();
  if (g.slot_bytes == 0) return 0;
  const uint64_t n_used = std::min(g.n_used, g.capacity);
  const uint64_t in_file0 = (store_->files().front().bytes - g.header_bytes) / g.slot_bytes;
  if (store_->is_stream()) return std::min(in_file0 + (cut_bytes_ != 0 ? 1 : 0), n_used);
  uint64_t present = std::min(in_file0, g.n_direct_used);
  if (present < g.n_direct) return present;
  for (uint64_t block = 1; block <= g.data_blocks; ++block) {
    const stored_file_t *const file = store_->file_of(static_cast<uint32_t>(block));
    const uint64_t here = file != nullptr ? std::min<uint64_t>(file->bytes / g.slot_bytes, TSLB_SLOTS_PER_BLOCK) : 0;
    present += here;
    if (here < TSLB_SLOTS_PER_BLOCK) break;
  }
  return std::min(present, n_used);
}

// ---- A record ------------------------------------------------------------------------------------------------------

// Fewer bytes than a slot has if its end is missing.
std::string analysis_t::slot_bytes(location_t at) {
  const stored_file_t *const file = store_->file_of(at.block_num);
  if (file == nullptr || at.offset >= file->bytes) return "";
  std::string bytes(std::min(geometry().slot_bytes, file->bytes - at.offset), '\0');
  bytes.resize(store_->read(*file, at.offset, bytes.data(), bytes.size()));
  return bytes;
}

void analysis_t::copy_record() {
  const geometry_t &g = geometry();
  if (!options_.record || *options_.record >= std::min(g.n_used, g.capacity)) return;
  const location_t at = slot_at(*options_.record);
  report_.record = {*options_.record, store_->file_name(at.block_num), at.offset, g.slot_bytes, slot_bytes(at),
                    g.shift,          g.node_bytes - g.shift};
}

// A pool's records are memory slots, which the page shows as such.
void analysis_t::copy_samples() {
  const geometry_t &g = geometry();
  size_t room = MAX_SAMPLE_BYTES;
  for (uint64_t idx = 0; idx < n_present_ && report_.samples.size() < MAX_SAMPLES && room >= g.record_bytes; ++idx) {
    const uint32_t id = static_cast<uint32_t>(idx);
    const uint32_t status = report_.has_nodes ? status_of(id) : TSLB_DA_SLOT_ACTIVE;
    if (status == TSLB_DA_SLOT_FREE || status == TSLB_DA_SLOT_UNSET) continue;
    const std::string slot = slot_bytes(slot_at(idx));
    report_.samples.push_back({id, status, slot.substr(std::min(g.shift, slot.size()), g.record_bytes)});
    room -= g.record_bytes;
  }
}

analysis_result_t analyse(store_t *store, const options_t &options) {
  auto analysis = std::make_unique<analysis_t>(store, options);
  report_t report = analysis->run();
  return {std::move(report), std::move(analysis)};
}

}  // namespace inspect
