// Headers, what follows from them, and whether the files agree.
#include "analysis.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <tslb/array_loader.h>
#include "analysis_internal.h"

namespace inspect {
namespace {

constexpr uint8_t LIB_VERSION = 2;
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

void analysis_t::add(severity_t severity, location_t at, const std::string &text) {
  ++(severity == severity_t::FAULT ? report_.n_faults : report_.n_remarks);
  if (report_.findings.size() < MAX_FINDINGS)
    report_.findings.push_back({severity, store_->file_name(at.block_num), at.offset, text});
}

report_t analysis_t::run() {
  report_.name = store_->name();
  report_.is_stream = store_->is_stream();
  report_.files = store_->files();
  if (!read_headers()) return report_;
  measure();
  check_sizes();
  // Whether a stream may end early is the cursor's to say.
  if (is_pool_) is_pool_ = pool_sizes_fit();
  if (is_pool_) audit_cursor();
  store_->is_stream() ? check_stream_end() : check_files();
  geometry().n_present = present_slots();
  if (report_.has_nodes) read_nodes();
  if (has_lists_) audit_lists();
  if (is_pool_) audit_pool();
  copy_record();
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
  const std::string start = bytes_at(0, sizeof(hdr_));
  report_.headers.push_back(start_fields(start));
  if (start.size() < sizeof(hdr_)) {
    fault({0, start.size()}, "ends {} bytes into DynHdr_t of {}", start.size(), sizeof(hdr_));
    return false;
  }
  std::memcpy(&hdr_, start.data(), sizeof(hdr_));
  check_start();

  const std::string user = bytes_at(sizeof(hdr_), hdr_.hdr_size);
  is_pool_ = options_.kind != ARRAY_LOAD_ANY && hdr_.hdr_size == sizeof(DynMemHdr_t);
  std::memcpy(&pool_hdr_, user.data(), std::min(user.size(), sizeof(pool_hdr_)));
  if (is_pool_)
    report_.headers.push_back(pool_fields(sizeof(hdr_), user));
  else if (hdr_.hdr_size != 0)
    report_.headers.push_back(user_header(sizeof(hdr_), hdr_.hdr_size, user));
  check_user_header();

  const std::string lists = bytes_at(lli_at(), std::min<uint64_t>(hdr_.lli_sz, sizeof(lli_)));
  std::memcpy(&lli_, lists.data(), lists.size());
  if (hdr_.lli_sz != 0) report_.headers.push_back(list_fields(lli_at(), lists));

  const std::string counts = bytes_at(arr_hdr_at(), sizeof(DynArrHdr_t));
  report_.headers.push_back(array_fields(arr_hdr_at(), counts));
  if (counts.size() == sizeof(DynArrHdr_t)) return true;
  const uint64_t header_bytes = arr_hdr_at() + sizeof(DynArrHdr_t);
  fault({0, file.bytes}, "ends {} bytes into headers of {}", file.bytes, header_bytes);
  return false;
}

void analysis_t::check_start() {
  if (hdr_.lib_version != LIB_VERSION)
    fault({0, offsetof(DynHdr_t, lib_version)}, "lib_version {}, which is not {}", hdr_.lib_version, LIB_VERSION);
  if (hdr_.pad != 0) remark({0, offsetof(DynHdr_t, pad)}, "pad {}, which is reserved", hdr_.pad);
  if (hdr_.lli_sz != 0 && hdr_.lli_sz != sizeof(DynArrLLI_t))
    fault({0, offsetof(DynHdr_t, lli_sz)}, "lli_sz {}, which is neither 0 nor {}", hdr_.lli_sz, sizeof(DynArrLLI_t));
}

void analysis_t::check_user_header() {
  if (options_.kind == ARRAY_LOAD_POOL && !is_pool_)
    fault({0, offsetof(DynHdr_t, hdr_size)}, "hdr_size {}, a pool has {}", hdr_.hdr_size, sizeof(DynMemHdr_t));
}

void analysis_t::check_list_flags() {
  has_lists_ = hdr_.lli_sz >= sizeof(lli_) && tslb_stored_shift(lli_.lltype) != 0;
  if (hdr_.lli_sz == sizeof(lli_) && !has_lists_)
    fault({0, lli_at() + offsetof(DynArrLLI_t, lltype)}, "lltype 0x{:02x} has no list, lli_sz says there is one",
          lli_.lltype);
  const uint32_t flags = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;
  if (has_lists_ && (lli_.lltype & ~flags) != 0)
    remark({0, lli_at() + offsetof(DynArrLLI_t, lltype)}, "lltype 0x{:02x} has bits without a meaning", lli_.lltype);
}

// ---- Sizes ---------------------------------------------------------------------------------------------------------

// In 64 bits, nothing overflows: slots take less than 2^33 bytes each, and there are less than 2^33 of them.
void analysis_t::measure() {
  check_list_flags();
  const auto counts = [this](size_t offset) { return read_value<uint32_t>({0, arr_hdr_at() + offset}); };
  n_alloc_ = counts(offsetof(DynArrHdr_t, n_alloc));
  geometry_t &g = report_.geometry.emplace();
  g.header_bytes = arr_hdr_at() + sizeof(DynArrHdr_t);
  g.record_bytes = counts(offsetof(DynArrHdr_t, record_size));
  g.daflag = has_lists_ ? lli_.lltype : 0;
  g.node_bytes = tslb_stored_node_bytes(g.daflag);
  g.shift = tslb_stored_shift(g.daflag);
  g.slot_bytes = g.record_bytes + g.node_bytes;
  g.n_direct = counts(offsetof(DynArrHdr_t, n_direct));
  g.n_used = counts(offsetof(DynArrHdr_t, n_used));
  g.n_direct_used = std::min(g.n_direct, g.n_used);
  g.capacity = g.n_direct + ids_beyond_direct();
  g.block0_bytes = g.header_bytes + g.slot_bytes * g.n_direct;
  g.data_block_bytes = g.slot_bytes * TSLB_SLOTS_PER_BLOCK;
  g.image_bytes = g.header_bytes + g.slot_bytes * g.n_used;
  for (const stored_file_t &file : store_->files()) g.stored_bytes += file.bytes;
  report_.has_nodes = g.node_bytes != 0;
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
    // One tier of tables after the other, each as dense as what stands below it.
    uint64_t below = row.blocks;
    for (unsigned tier = 0; tier < level; ++tier)
      row.tables += below = (below + TSLB_ENTRIES_PER_TABLE - 1) / TSLB_ENTRIES_PER_TABLE;
    row.block_bytes = row.blocks * g.data_block_bytes;
    row.table_bytes = row.tables * TABLE_BYTES;
    g.table_bytes += row.table_bytes;
    g.levels.push_back(row);
  }
}

void analysis_t::check_sizes() {
  const geometry_t &g = geometry();
  const auto at = [this](size_t offset) { return location_t{0, arr_hdr_at() + offset}; };
  const location_t n_direct_at = at(offsetof(DynArrHdr_t, n_direct));
  const location_t record_size_at = at(offsetof(DynArrHdr_t, record_size));
  if (g.n_direct > INT_MAX)
    fault(n_direct_at, "n_direct {} is beyond what an array can have", g.n_direct);
  else if (g.block0_bytes > INT_MAX)
    fault(n_direct_at, "n_direct {} with slots of {} bytes takes more than block 0 may", g.n_direct, g.slot_bytes);
  if (g.n_used > g.capacity)
    fault(at(offsetof(DynArrHdr_t, n_used)), "n_used {} is beyond what an array with n_direct {} can have", g.n_used,
          g.n_direct);
  if (g.slot_bytes == 0 && g.n_used != 0) fault(record_size_at, "record_size 0 with {} slots in use", g.n_used);
  if (g.data_block_bytes > UINT32_MAX)
    fault(record_size_at, "record_size {} is beyond what an array can have", g.record_bytes);
  const uint64_t n_alloc = g.n_direct + g.data_blocks * TSLB_SLOTS_PER_BLOCK;
  if (n_alloc_ != n_alloc)
    remark(at(offsetof(DynArrHdr_t, n_alloc)), "n_alloc {}, where direct area and data blocks come to {}", n_alloc_,
           n_alloc);
}

// ---- Files ---------------------------------------------------------------------------------------------------------

location_t analysis_t::slot_at(uint64_t idx) const {
  const geometry_t &g = geometry();
  if (store_->is_stream() || idx < g.n_direct) return {0, g.header_bytes + idx * g.slot_bytes};
  const uint32_t beyond = static_cast<uint32_t>(idx - g.n_direct);
  return {tslb_stored_block_num(beyond), beyond % TSLB_SLOTS_PER_BLOCK * g.slot_bytes};
}

void analysis_t::check_stream_end() {
  const geometry_t &g = geometry();
  if (g.slot_bytes == 0 && g.n_used != 0) return;  // told already, and no end to compare with
  if (g.stored_bytes > g.image_bytes) {
    fault({0, g.image_bytes}, "{} more bytes behind the last slot", g.stored_bytes - g.image_bytes);
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
    fault({file.block_num, std::min(file.bytes, wanted)}, "{} bytes long, its block takes {}", file.bytes, wanted);
}

// Those missing in a row are one finding: a header can claim millions.
void analysis_t::check_files() {
  const geometry_t &g = geometry();
  cut_bytes_ = 0;
  uint64_t due = 1;
  const auto tell_missing = [&](uint64_t end) {
    if (due < end)
      fault({static_cast<uint32_t>(due), 0}, "{} of {} data blocks missing from this one on", end - due, g.data_blocks);
  };
  for (const stored_file_t &file : store_->files()) {
    if (file.block_num > g.data_blocks) {
      remark({file.block_num, 0}, "no slot of its block is in use");
      continue;
    }
    check_file_size(file, file.block_num == 0 ? g.block0_bytes : g.data_block_bytes);
    if (file.block_num == 0) continue;
    tell_missing(file.block_num);
    due = uint64_t{file.block_num} + 1;
  }
  tell_missing(g.data_blocks + 1);
}

// Up to the first slot that is not there whole.
uint64_t analysis_t::present_slots() const {
  const geometry_t &g = geometry();
  if (g.slot_bytes == 0) return 0;
  const uint64_t n_used = std::min(g.n_used, g.capacity);
  const uint64_t in_file0 = (store_->files().front().bytes - g.header_bytes) / g.slot_bytes;
  if (store_->is_stream()) return cut_bytes_ != 0 ? g.n_used : std::min(in_file0, n_used);
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

void analysis_t::copy_record() {
  const geometry_t &g = geometry();
  if (!options_.record || *options_.record >= std::min(g.n_used, g.capacity)) return;
  const location_t at = slot_at(*options_.record);
  const stored_file_t *const file = store_->file_of(at.block_num);
  std::string bytes;
  if (file != nullptr && at.offset < file->bytes) {
    bytes.resize(std::min(g.slot_bytes, file->bytes - at.offset));
    bytes.resize(store_->read(*file, at.offset, bytes.data(), bytes.size()));
  }
  report_.record = {*options_.record, store_->file_name(at.block_num), at.offset, g.slot_bytes, bytes,
                    g.shift,          g.node_bytes - g.shift};
}

report_t analyse(store_t *store, const options_t &options) {
  return analysis_t(store, options).run();
}

}  // namespace inspect
