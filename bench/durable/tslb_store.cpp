#include "tslb_store.h"

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

// The size of RocksDB's write buffer: both write out what they have after as many bytes.
constexpr uint64_t SNAPSHOT_BYTES = uint64_t{64} << 20;
constexpr uint32_t ARRAY = 0;

[[noreturn]] void fail(const tslb_error_t &error) {
  throw std::runtime_error(std::string("tslb: ") + error.text);
}

}  // namespace

tslb_contestant_t::tslb_contestant_t(const std::string &folder, uint64_t snapshot_bytes)
    : snapshot_bytes_(snapshot_bytes) {
  tslb_array_decl_t decl = {};
  decl.name = "records";
  decl.kind = TSLB_ARRAY_RECORDS;
  decl.tbl_id = 1;
  decl.record_bytes = sizeof(record_t);
  decl.n_direct = 16;
  tslb_store_options_t options = {};
  options.flags = TSLB_STORE_CREATE;
  options.snapshot_bytes = snapshot_bytes;
  tslb_error_t error;
  store_ = tslb_store_open(folder.c_str(), &decl, 1, &options, &error);
  if (store_ == nullptr) fail(error);
  array_ = tslb_store_array(store_, ARRAY);
}

tslb_contestant_t::~tslb_contestant_t() {
  tslb_store_close(store_, nullptr);
}

void tslb_contestant_t::append(uint32_t, std::span<const record_t> records) {
  tslb_error_t error;
  tslb_batch_t *const batch = tslb_batch_begin(store_, &error);
  if (batch == nullptr) fail(error);
  for (const record_t &record : records) {
    void *place;
    const int32_t id = get_dyn_arr_new_record_id_ex(array_, &place, 0);
    if (place == nullptr) throw std::runtime_error("tslb: no memory");
    std::memcpy(place, &record, sizeof record);
    tslb_batch_log_record(batch, ARRAY, static_cast<uint32_t>(id));
  }
  if (tslb_batch_commit(batch, &error) != 0) fail(error);
}

void tslb_contestant_t::update(unsigned, std::span<const update_t> updates) {
  tslb_error_t error;
  tslb_batch_t *const batch = tslb_batch_begin(store_, &error);
  if (batch == nullptr) fail(error);
  for (const update_t &update : updates) {
    std::memcpy(get_dyn_arr_record_position(array_, update.id), &update.record, sizeof update.record);
    tslb_batch_log_record(batch, ARRAY, update.id);
  }
  if (tslb_batch_commit(batch, &error) != 0) fail(error);
}

uint64_t tslb_contestant_t::read(std::span<const uint32_t> ids) {
  uint64_t sum = 0;
  for (const uint32_t id : ids) sum += sum_of(*static_cast<record_t *>(get_dyn_arr_record_position(array_, id)));
  return sum;
}

record_t tslb_contestant_t::get(uint32_t id) {
  const auto *const record = static_cast<const record_t *>(get_dyn_arr_record_position(array_, id));
  if (record == nullptr) throw std::runtime_error("tslb: a record is missing");
  return *record;
}

void tslb_contestant_t::flush() {
  tslb_error_t error;
  if (tslb_store_snapshot(store_, &error) != 0) fail(error);
}

// A snapshot that is due is written at once.
void tslb_contestant_t::settle() {
  while (snapshot_bytes_ != 0 && info().journal_bytes > snapshot_bytes_)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

tslb_store_info_t tslb_contestant_t::info() {
  tslb_store_info_t info;
  tslb_store_get_info(store_, &info);
  return info;
}

std::unique_ptr<contestant_t> open_tslb(const setup_t &setup) {
  return std::make_unique<tslb_contestant_t>(setup.folder, SNAPSHOT_BYTES);
}
