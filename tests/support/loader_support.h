// Helpers for tests of the loaders: arrays to store, calls of the loaders, and the operations of a host afterwards.
#ifndef LOADER_SUPPORT_H
#define LOADER_SUPPORT_H

#include <functional>

#include <tslb/array_loader.h>
#include "array_support.h"
#include "list_audit.h"
#include "own_time.h"  // both arrays of a comparison get the same times in their nodes
#include "stored_image.h"

constexpr array_load_options_t ANY = {
    "ctx", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
constexpr array_load_options_t POOL = {
    "ctx", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_POOL, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};

struct load_result_t {
  array_t array;
  std::string error;
};

// Loads with `load(error, size)`.
template <class Load>
load_result_t loaded_by(Load load) {
  char error[512] = "untouched";
  load_result_t loaded = {array_t(load(error, sizeof(error))), error};
  EXPECT_EQ(loaded.array != nullptr, loaded.error.empty()) << "an error text with each refusal, and only then";
  EXPECT_EQ(loaded.error.find('\n'), std::string::npos);
  return loaded;
}

inline load_result_t load(const std::string &stream, const array_load_options_t &options = ANY) {
  const memory_file_t file(stream);
  return loaded_by([&](char *error, size_t size) { return array_load_stream(file.fd(), &options, error, size); });
}

inline void expect_refused(const load_result_t &loaded, const std::string &error) {
  EXPECT_EQ(loaded.array, nullptr);
  EXPECT_EQ(loaded.error, error);
}

inline void stamp(DynArrHandle_t *array, void *record, int seed) {
  for (uint32_t i = 0; i < get_dyn_arr_record_sz(array); ++i)
    bytes_of(record)[i] = static_cast<char>(seed * 31 + static_cast<int>(i));
}

// With lists: every third slot is freed, and every fourth of the others is inactive.
inline array_t slot_array(int usrhdr_sz, int record_sz, int n_direct, uint8_t daflag, int n_used,
                          char mem_type = MPOOL_TYPE_DRAM, const char *ctx_name = "ctx") {
  array_t array(get_default_dyn_array_ex_ex(usrhdr_sz, record_sz, n_direct, mem_type, 12, ctx_name, daflag, 0xC3));
  memset(tslb_da_get_usrhdr(array.get()), 0xEE, static_cast<size_t>(usrhdr_sz));
  uint32_t idx;
  for (int i = 0; i < n_used; ++i, ++now) stamp(array.get(), tslb_da_get_newptr(array.get(), &idx), i);
  for (uint32_t i = 0; daflag != 0 && i < tslb_da_get_size(array.get()); ++i) {
    if (i % 3 == 1) tslb_da_free_idx(array.get(), i);
    if ((daflag & TSLB_DA_DAFLAG_INLL) != 0 && i % 3 != 1 && i % 4 == 0) tslb_da_inactivate_idx(array.get(), i, now++);
  }
  return array;
}

struct pool_kind_t {
  const char *fault;
  int mslot_sz, n_direct;
  char compat_flag, slot_type;
  uint8_t daflag;
};
constexpr pool_kind_t BIG_BUFFER = {"", 64, 2, MPOOL_FLAG_COMPAT, 0, TSLB_DA_DAFLAG_LL};

inline void take_chunks(DynArrHandle_t *pool, int count, int first) {
  const bool compat = (static_cast<DynMemHdr_t *>(get_user_hdr(pool))->flag & MPOOL_FLAG_COMPAT) != 0;
  for (int i = first; i < first + count; ++i) {
    maddr_t address;
    const int bytes = 8 + 8 * (i % 3);
    const srcaddr_t source = {1, static_cast<uint32_t>(i), 3, {4, 5}};
    char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool, &address, bytes, source));
    memset(chunk + (compat ? 16 : 0), i, static_cast<size_t>(bytes));
    if (address.mslot_idx % 3 == 1) tslb_dynmem_del_mchunk(pool, address);
  }
}

inline array_t chunk_pool(const pool_kind_t &kind, int n_chunks, int tbl_id = BBP_TBLID) {
  array_t pool(tslb_init_dynmem_ex1(kind.mslot_sz, kind.n_direct, kind.compat_flag, MPOOL_TYPE_DRAM, kind.slot_type,
                                    "ctx", tbl_id, kind.daflag, 0, 0, 0));
  take_chunks(pool.get(), n_chunks, 0);
  size_t total, used, deleted;
  tslb_dynmem_update_free_list(pool.get(), &total, &used, &deleted);
  return pool;
}

// Runs further operations of a host. Returns a text with every result and time.
inline std::string go_on_with_slots(DynArrHandle_t *array) {
  std::string seen;
  for (int i = 0; i < 60; ++i) {
    uint32_t idx = 0, last_ts = 0;
    uint8_t last_status = 0;
    now = 1800000000 + i;
    void *const record =
        i % 2 == 0 ? tslb_da_get_newptr(array, &idx) : tslb_da_get_newptr_inll(array, &idx, &last_ts, &last_status);
    stamp(array, record, i + 1000);
    seen += std::to_string(idx) + ' ' + std::to_string(last_ts) + ' ' + std::to_string(last_status) + '\n';
    if (array->daflag == 0) continue;
    const uint32_t other = static_cast<uint32_t>(i * 7) % tslb_da_get_size(array);
    if ((array->daflag & TSLB_DA_DAFLAG_INLL) != 0 && i % 3 == 0) {
      const uint32_t status = status_at(array, other);
      if (status == TSLB_DA_SLOT_ACTIVE) tslb_da_inactivate_idx(array, other, now);
      if (status == TSLB_DA_SLOT_INACTIVE) tslb_da_activate_idx(array, other);
    }
    if (i % 5 == 0) tslb_da_free_idx(array, other);
  }
  return seen;
}

// Expects that both arrays are equal, and that they stay equal after the same operations.
inline void expect_same_from_now_on(DynArrHandle_t *original, DynArrHandle_t *loaded,
                                    const std::function<std::string(DynArrHandle_t *)> &go_on) {
  const time_t then = now;
  ASSERT_EQ(stream_of(loaded), stream_of(original));
  const std::string seen = go_on(original);
  now = then;
  EXPECT_EQ(go_on(loaded), seen);
  EXPECT_EQ(stream_of(loaded), stream_of(original)) << "after the same operations";
}

inline std::string go_on_with_chunks(DynArrHandle_t *pool) {
  take_chunks(pool, 20, 100);
  return "";
}

#endif
