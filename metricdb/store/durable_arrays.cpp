#include "store/durable_arrays.h"

#include <fmt/format.h>
#include <tslb/tslb_rd_api.h>

#include <cstring>
#include <utility>

#include "store/store_internal.h"

namespace metricdb {
namespace {

// Converts a record of the catalogue to another layout. Fields that the older layout lacks are lost.
int convert_record(void *, uint8_t from_layout, const void *from, uint32_t, void *to, uint32_t to_bytes) {
  const uint8_t to_layout = to_bytes == series_record_bytes(NEWEST_LAYOUT) ? NEWEST_LAYOUT : OLDEST_LAYOUT;
  const SeriesRecord source(static_cast<char *>(const_cast<void *>(from)), from_layout);
  SeriesRecord(static_cast<char *>(to), to_layout).copy_fields(source);
  return 0;
}

tslb_array_decl_t pool_decl(const char *name, tslb_array_kind_t kind, int table, int slot_bytes) {
  tslb_array_decl_t decl = {};
  decl.name = name;
  decl.kind = kind;
  decl.tbl_id = table;
  decl.record_bytes = static_cast<uint32_t>(slot_bytes);
  decl.daflag = TSLB_DA_DAFLAG_LL;
  decl.rec_version = POOL_RECORD_VERSION;
  decl.has_compat = 1;
  return decl;
}

}  // namespace

std::optional<ArrayParameters> stored_parameters(const std::string &folder) {
  tslb_stored_array_t arrays[N_ARRAYS];
  tslb_error_t error = {};
  const int32_t n_arrays = tslb_store_describe(folder.c_str(), arrays, N_ARRAYS, &error);
  if (n_arrays < 0 && error.code == TSLB_DURABLE_NO_STORE) return std::nullopt;
  if (n_arrays < 0) throw DatabaseError(error.text);
  ArrayParameters found;
  for (int32_t i = 0; i < n_arrays; ++i) {
    const tslb_stored_array_t *const array = i < static_cast<int32_t>(N_ARRAYS) ? &arrays[i] : nullptr;
    if (array != nullptr && std::strcmp(array->name, ARRAY_NAMES[CATALOGUE]) == 0)
      found.layout = array->rec_version;
    else if (array != nullptr && std::strcmp(array->name, ARRAY_NAMES[KEYS]) == 0)
      found.key_slot_bytes = static_cast<int>(array->record_bytes);
    else if (array != nullptr && std::strcmp(array->name, ARRAY_NAMES[POINTS]) == 0)
      found.point_slot_bytes = static_cast<int>(array->record_bytes);
    else
      throw DatabaseError(folder + ": is a store of another program");
  }
  if (n_arrays != static_cast<int32_t>(N_ARRAYS) || found.layout > NEWEST_LAYOUT)
    throw DatabaseError(folder + ": is a store of another program, or of a later version of this one");
  return found;
}

DurableArrays::DurableArrays(const std::string &folder, const ArrayParameters &parameters,
                             const tslb_store_options_t &options, const ReplicaOptions *replica) {
  tslb_array_decl_t decls[N_ARRAYS] = {
      {},
      pool_decl(ARRAY_NAMES[KEYS], TSLB_POOL_BIG_BUFFER, KEYS_TABLE, parameters.key_slot_bytes),
      pool_decl(ARRAY_NAMES[POINTS], TSLB_POOL_BIT_VECTOR, POINTS_TABLE, parameters.point_slot_bytes)};
  tslb_array_decl_t &catalogue = decls[CATALOGUE];
  catalogue.name = ARRAY_NAMES[CATALOGUE];
  catalogue.kind = TSLB_ARRAY_SLOTS;
  catalogue.tbl_id = CATALOGUE_TABLE;
  catalogue.record_bytes = static_cast<uint32_t>(series_record_bytes(parameters.layout));
  catalogue.n_direct = static_cast<uint32_t>(CATALOGUE_DIRECT_SLOTS);
  catalogue.daflag = TSLB_DA_DAFLAG_INLL;
  catalogue.rec_version = parameters.layout;
  catalogue.convert = convert_record;
  catalogue.converts_newer = 1;
  for (tslb_array_decl_t &decl : decls) decl.compresses = 1;
  if (replica != nullptr) {
    replica_ = std::make_unique<Replica>(folder, decls, N_ARRAYS, options, *replica);
    return;
  }
  tslb_error_t error = {};
  store_.reset(tslb_store_open(folder.c_str(), decls, N_ARRAYS, &options, &error));
  if (!store_) throw DatabaseError(error.text);
}

StoreArrays DurableArrays::arrays() const {
  const auto view = [this](uint32_t idx) { return Array(tslb_store_array(get(), idx), {.owns = false}); };
  return {view(CATALOGUE), view(KEYS), view(POINTS)};
}

tslb_store_info_t DurableArrays::info() const {
  tslb_store_info_t info;
  tslb_store_get_info(get(), &info);
  return info;
}

std::string DurableArrays::payload() const {
  size_t size;
  const void *const bytes = tslb_store_payload(get(), &size);
  return bytes == nullptr ? std::string() : std::string(static_cast<const char *>(bytes), size);
}

tslb_batch_t *DurableArrays::begin() const {
  tslb_error_t error = {};
  tslb_batch_t *const batch = tslb_batch_begin(get(), &error);
  if (batch == nullptr) error_ = error.text;
  return batch;
}

void DurableArrays::set_payload(const std::string &payload) const {
  tslb_error_t error = {};
  if (tslb_store_set_payload(get(), payload.data(), payload.size(), &error) != 0) throw DatabaseError(error.text);
}

void DurableArrays::snapshot() const {
  tslb_error_t error = {};
  if (tslb_store_snapshot(get(), &error) != 0) throw DatabaseError(error.text);
}

void DurableArrays::restore() const {
  tslb_error_t error = {};
  if (tslb_store_restore(get(), &error) != 0) throw DatabaseError(error.text);
}

void DurableArrays::close() {
  if (replica_) {
    replica_->close();
    replica_.reset();
    return;
  }
  tslb_error_t error = {};
  if (tslb_store_close(store_.release(), &error) != 0) throw DatabaseError(error.text);
}

}  // namespace metricdb
