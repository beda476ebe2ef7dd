// What tests of conversions share: the routes of the catalogue as the format has them, arrays to store, and conversions
// that are refused.
#ifndef CONVERT_SUPPORT_H
#define CONVERT_SUPPORT_H

#include "loader_support.h"
#include "recovery_driver.h"

// ---- Routes of the catalogue, as the format has them ---------------------------------------------------------------

using older_t = std::string (*)(const std::string &newer);

template <size_t BYTES>
inline std::string first_bytes(const std::string &newer) {
  return newer.substr(0, BYTES);
}

inline std::string older_ty_sub(const std::string &newer) {
  std::string older(80, '\0');
  const auto carry = [&](size_t from, size_t to, size_t bytes) { older.replace(to, bytes, newer, from, bytes); };
  carry(0, 0, 10);
  carry(12, 12, 5);
  carry(20, 20, 9);
  for (size_t i = 0; i < 5; ++i) carry(32 + 12 * i, 32 + 8 * i, 8);
  carry(92, 72, 8);
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
  uint8_t daflag;  // where the array has nodes; 0: it must have none
  int newer_bytes, older_bytes;
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

// ---- Arrays to store -----------------------------------------------------------------------------------------------

struct stored_t {
  std::string stream;
  std::vector<std::string> records;
  uint32_t n_free = 0, n_inactive = 0, n_other = 0;
};

// With nodes, slots of every status: the last one has an id that nobody took, and its node is zero.
inline stored_t store(int record_bytes, uint8_t daflag, uint8_t rec_version, uint32_t n_records, int hdr_size = 0) {
  const uint32_t n_other = daflag != 0 && n_records != 0 ? 1 : 0;
  const array_t array = slot_array(hdr_size, record_bytes, 3, daflag, static_cast<int>(n_records - n_other));
  static_cast<DynHdr_t *>(array->arr_base)->rec_version = rec_version;
  void *record;
  if (n_other != 0) {
    get_dyn_arr_new_record_id_ex(array.get(), &record, daflag);
    stamp(array.get(), record, 77);
  }
  stored_t stored;
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

// The older stream, from the format alone: no call of the library.
inline std::string expected_stream(const route_t &route, const stored_t &stored, uint8_t daflag) {
  constexpr uint32_t NIL = 0xFFFFFFFF;
  const uint32_t n = static_cast<uint32_t>(stored.records.size());
  std::string stream = {2, static_cast<char>(route.to), 0, 0, 0, 0, static_cast<char>(daflag != 0 ? 60 : 0), 0};
  if (daflag != 0) stream += words({NIL, NIL, NIL, NIL, 0, 0, 0, daflag, 0, 0, 0, 0, 0, 0, 0});
  stream += words({n, n, n, static_cast<uint32_t>(route.older_bytes)});
  for (const std::string &record : stored.records) {
    if (daflag != 0) stream += words({TSLB_DA_SLOT_ACTIVE, NIL});
    stream += route.older(record);
    if (daflag != 0) stream += words({NIL, static_cast<uint32_t>(now)});
  }
  return stream;
}

constexpr pool_kind_t BIT_VECTOR = {"", 64, 2, MPOOL_FLAG_COMPAT, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL};

// ---- Refusals -----------------------------------------------------------------------------------------------------

struct refusal_row_t {
  const char *fault;
  uint16_t rec_type;
  uint8_t is_lib, to;
  std::string stream;
  recovery_result_t result;
  const char *line;
};

inline std::string edited(std::string stream, size_t at, char byte) {
  stream.at(at) = byte;
  return stream;
}

inline std::vector<refusal_row_t> refusal_rows() {
  constexpr uint8_t LL = TSLB_DA_DAFLAG_LL, INLL = TSLB_DA_DAFLAG_INLL;
  const std::string groups = store(44, 0, 2, 20).stream, types = store(100, INLL, 1, 20).stream;
  const std::string big_buffer = stream_of(chunk_pool(BIG_BUFFER, 9).get());
  const std::string bit_vector = stream_of(chunk_pool(BIT_VECTOR, 9).get());
  const std::string parked = stream_of(chunk_pool({"", 64, 2, MPOOL_FLAG_COMPAT, 0, INLL}, 9).get());
  return {
      {"truncated records", 2, 0, 0, groups.substr(0, groups.size() - 1), RECOVERY_BAD_STREAM,
       "byte 903: ends 43 bytes into slot 19 of 44 bytes"},
      {"a list that contradicts itself", 1, 0, 0, edited(types, 8, 18), RECOVERY_BAD_STREAM,
       "byte 2172: status 2 on the free list, slot 18"},
      {"an older version taken for the newer", 2, 0, 0, edited(groups, 1, 1), RECOVERY_DOES_NOT_FIT,
       "rec_version 1, where the version map has 2 for g_mg"},
      {"a version from the future", 2, 0, 1, edited(groups, 1, 3), RECOVERY_DOES_NOT_FIT,
       "rec_version 3, where the version map has 2 for g_mg"},
      {"another type's records", 2, 0, 0, store(28, 0, 2, 5).stream, RECOVERY_DOES_NOT_FIT,
       "record_size 28, where g_mg has 44 in version 2"},
      {"records that are older already", 20, 0, 0, store(392, 0, 1, 5).stream, RECOVERY_DOES_NOT_FIT,
       "record_size 392, where dmt_subject has 4232 in version 1"},
      {"records with something behind them", 2, 0, 0, store(45, 0, 2, 5).stream, RECOVERY_DOES_NOT_FIT,
       "record_size 45, where g_mg has 44 in version 2"},
      {"nodes where the map has none", 2, 0, 0, store(44, LL, 2, 5).stream, RECOVERY_DOES_NOT_FIT,
       "lltype 0x01, where the version map has 0x00 for g_mg"},
      {"other nodes than the map's", 10, 0, 0, store(100, LL, 1, 5).stream, RECOVERY_DOES_NOT_FIT,
       "lltype 0x01, where the version map has 0x02 for local_root_subject"},
      {"more flags than the map's", 1, 0, 0, store(100, LL | INLL, 1, 5).stream, RECOVERY_DOES_NOT_FIT,
       "lltype 0x03, where the version map has 0x02 for type"},
      {"a user header lost", 3, 0, 0, store(28, 0, 1, 5, 8).stream, RECOVERY_DOES_NOT_FIT,
       "a user header of 8 bytes, which the conversion would lose"},
      {"its own version", 2, 0, 2, groups, RECOVERY_NO_WAY, "g_mg is in version 2 already"},
      {"a version without a routine", 2, 0, 3, groups, RECOVERY_NO_WAY, "g_mg has no way from version 2 to 3"},
      {"a version beyond the map's", 2, 0, 4, groups, RECOVERY_NO_WAY, "g_mg has no way from version 2 to 4"},
      {"a type without a way", 5, 0, 1, groups, RECOVERY_NO_WAY, "l_mt has no way from version 0 to 1"},
      {"a type in version 0", 0, 0, 0, groups, RECOVERY_NO_WAY, "subject is in version 0 already"},
      {"a row of the catalogue for one of the library", 2, 1, 1, bit_vector, RECOVERY_NO_WAY,
       "lib_bv is in version 1 already"},
      {"a row of the library that is empty", 4, 1, 1, groups, RECOVERY_NO_WAY, "tot has no way from version 0 to 1"},
      {"a pool whose header contradicts its slots", 0, 1, 1, edited(big_buffer, 12, 4), RECOVERY_BAD_STREAM,
       "byte 12: mslot_sz 4 does not go with record_size 72"},
      {"a slot array for a pool", 1, 1, 0, groups, RECOVERY_BAD_STREAM, "byte 4: hdr_size 0, a pool has 56"},
      {"a bit-vector pool for a big-buffer pool", 1, 1, 0, bit_vector, RECOVERY_DOES_NOT_FIT,
       "the pool's flag 0x11 is that of a bit-vector pool, which is not lib_bb"},
      {"a big-buffer pool for a bit-vector pool", 2, 1, 0, big_buffer, RECOVERY_DOES_NOT_FIT,
       "the pool's flag 0x01 is that of a big-buffer pool, which is not lib_bv"},
      {"a pool with other nodes than the map's", 1, 1, 0, parked, RECOVERY_DOES_NOT_FIT,
       "lltype 0x02, where the version map has 0x01 for lib_bb"},
  };
}

#endif
