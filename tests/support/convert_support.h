// Helpers for tests of conversions: the conversions of the catalogue as the format defines them, and arrays to store.
#ifndef CONVERT_SUPPORT_H
#define CONVERT_SUPPORT_H

#include <tslb/recovery_driver.h>
#include "loader_support.h"

using older_t = std::string (*)(const std::string &newer);

template <size_t BYTES>
inline std::string first_bytes(const std::string &newer) {
  return newer.substr(0, BYTES);
}

inline std::string older_ty_sub(const std::string &newer) {
  std::string older(80, '\0');
  const auto copy = [&](size_t from, size_t to, size_t bytes) { older.replace(to, bytes, newer, from, bytes); };
  copy(0, 0, 10);
  copy(12, 12, 5);
  copy(20, 20, 9);
  for (size_t i = 0; i < 5; ++i) copy(32 + 12 * i, 32 + 8 * i, 8);
  copy(92, 72, 8);
  return older;
}

inline std::string older_subject_value(const std::string &newer) {
  const std::string tag = newer.substr(1, strnlen(newer.data() + 1, 63));
  const std::string value = newer.substr(68, strnlen(newer.data() + 68, 255));
  std::string older(392, '\0');
  older[0] = static_cast<char>(tag.size());
  older.replace(1, tag.size(), tag);
  older[65] = static_cast<char>(value.size());
  older.replace(66, value.size(), value);
  older[322] = newer[4164];
  older.replace(328, 64, newer, 4168, 64);
  return older;
}

struct route_t {
  const char *name;
  uint16_t rec_type;
  uint8_t from, to;
  uint8_t daflag;  // flags of the array; 0: it must have no nodes
  uint32_t newer_bytes, older_bytes;
  older_t older;
};
inline const route_t kRoutes[] = {
    {"type", 1, 1, 0, TSLB_DA_DAFLAG_INLL, 100, 80, older_ty_sub},
    {"g_mg", 2, 2, 0, 0, 44, 36, first_bytes<36>},
    {"g_mg", 2, 2, 1, 0, 44, 40, first_bytes<40>},
    {"g_mt", 3, 1, 0, 0, 28, 24, first_bytes<24>},
    {"local_root_subject", 10, 1, 0, TSLB_DA_DAFLAG_INLL, 100, 80, older_ty_sub},
    {"g_dmt_info", 14, 1, 0, 0, 112, 112, first_bytes<112>},
    {"g_dmg", 16, 2, 0, 0, 44, 36, first_bytes<36>},
    {"g_dmg", 16, 2, 1, 0, 44, 40, first_bytes<40>},
    {"dmt_member", 19, 1, 0, 0, 536, 512, first_bytes<512>},
    {"dmt_subject", 20, 1, 0, 0, 4232, 392, older_subject_value},
};

struct stored_array_t {
  std::string stream;
  std::vector<std::string> records;
  uint32_t n_free = 0, n_inactive = 0, n_other = 0;
};

// With nodes, the array has slots of every status. The last id was issued without an allocation, and its node is zero.
inline stored_array_t store(uint32_t record_bytes, uint8_t daflag, uint8_t rec_version, uint32_t n_records,
                            int hdr_size = 0) {
  const uint32_t n_other = daflag != 0 && n_records != 0 ? 1 : 0;
  const array_t array =
      slot_array(hdr_size, static_cast<int>(record_bytes), 3, daflag, static_cast<int>(n_records - n_other));
  static_cast<DynHdr_t *>(array->arr_base)->rec_version = rec_version;
  void *record;
  if (n_other != 0) {
    get_dyn_arr_new_record_id_ex(array.get(), &record, daflag);
    stamp(array.get(), record, 77);
  }
  stored_array_t stored;
  stored.n_other = n_other;
  for (uint32_t i = 0; i < n_records; ++i) {
    record = tslb_da_get_ptr(array.get(), i);
    stored.records.emplace_back(bytes_of(record), record_bytes);
    const uint32_t status = daflag != 0 ? status_at(array.get(), i) : uint32_t{TSLB_DA_SLOT_ACTIVE};
    stored.n_free += status == TSLB_DA_SLOT_FREE ? 1 : 0;
    stored.n_inactive += status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
  }
  stored.stream = stream_of(array.get());
  return stored;
}

inline std::string words(std::initializer_list<uint32_t> values) {
  std::string bytes;
  for (const uint32_t value : values) bytes.append(reinterpret_cast<const char *>(&value), sizeof(value));
  return bytes;
}

// Builds the older stream from the format, without calls of the library.
inline std::string expected_stream(const route_t &route, const stored_array_t &stored, uint8_t daflag) {
  constexpr uint32_t NIL = 0xFFFFFFFF;
  const uint32_t n = static_cast<uint32_t>(stored.records.size());
  std::string stream = {2, static_cast<char>(route.to), 0, 0, 0, 0, static_cast<char>(daflag != 0 ? 60 : 0), 0};
  if (daflag != 0) stream += words({NIL, NIL, NIL, NIL, 0, 0, 0, daflag, 0, 0, 0, 0, 0, 0, 0});
  stream += words({n, n, n, route.older_bytes});
  for (const std::string &record : stored.records) {
    if (daflag != 0) stream += words({TSLB_DA_SLOT_ACTIVE, NIL});
    stream += route.older(record);
    if (daflag != 0) stream += words({NIL, static_cast<uint32_t>(now)});
  }
  return stream;
}

constexpr pool_kind_t BIT_VECTOR = {"", 64, 2, MPOOL_FLAG_COMPAT, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL};

inline std::string edited(std::string stream, size_t at, char byte) {
  stream.at(at) = byte;
  return stream;
}

#endif
