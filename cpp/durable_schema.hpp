/* What a durable store is opened with, as C++20 types: the declarations of its arrays, and its options. Included by
 * <tslb/durable.hpp>. */
#ifndef TSLB_DURABLE_SCHEMA_HPP
#define TSLB_DURABLE_SCHEMA_HPP

#include <tslb/durable.h>

#include <tslb/tslb.hpp>
#include <vector>

namespace tslb {

static_assert(static_cast<int>(code::invalid) == TSLB_DURABLE_INVALID);
static_assert(static_cast<int>(code::full) == TSLB_DURABLE_FULL);
static_assert(static_cast<int>(code::broken) == TSLB_DURABLE_BROKEN, "both lists have the same order");

namespace detail {
inline failure failure_of(const tslb_error_t &error) {
  return {static_cast<code>(error.code), error.errnum, error.byte, error.file, error.text};
}
inline result<void> done_or(int outcome, const tslb_error_t &error) {
  if (outcome == 0) return {};
  return failure_of(error);
}
}  // namespace detail

/* Names an array of a store: made by the schema that the store was opened with. */
template <class View>
struct array_key {
  uint32_t index;
};

/* What a declaration can have besides name and type (tslb_array_decl_t). */
struct decl_options {
  int32_t tbl_id = 0;
  uint32_t n_direct = 16;
  uint8_t rec_version = 0;
  const char *description = nullptr;
  tslb_record_converter_t convert = nullptr;
  void *convert_arg = nullptr;
};
struct pool_decl_options {
  int32_t tbl_id = 0;
  uint32_t slot_bytes = 65536;
  uint32_t n_direct = 1;
  bool frees_slots = true;
  int16_t max_slots = 0;
  const char *description = nullptr;
};

/* Options of store::open, as tslb_store_options_t has them. */
struct store_options {
  bool creates = false;    /* TSLB_STORE_CREATE */
  bool reads_only = false; /* TSLB_STORE_READ_ONLY */
  bool has_shadow = false; /* TSLB_STORE_SHADOW */
  uint32_t flags = 0;      /* more of TSLB_STORE_* */
  tslb_sync_t sync = TSLB_SYNC_GROUP;
  uint64_t snapshot_bytes = 0; /* 0: the journal grows until snapshot() is called */
  uint32_t keep = 0;
  uint64_t bytes_per_s = 0;
  uint32_t journal_level = 0;
  void (*progress)(void *arg, uint64_t done_bytes, uint64_t all_bytes) = nullptr;
  void *progress_arg = nullptr;
  const tslb_store_log_t *log = nullptr;

  tslb_store_options_t native() const noexcept {
    tslb_store_options_t options = {};
    options.flags = flags | (creates ? uint32_t{TSLB_STORE_CREATE} : 0) |
                    (reads_only ? uint32_t{TSLB_STORE_READ_ONLY} : 0) | (has_shadow ? uint32_t{TSLB_STORE_SHADOW} : 0);
    options.sync = sync;
    options.snapshot_bytes = snapshot_bytes;
    options.keep = keep;
    options.bytes_per_s = bytes_per_s;
    options.journal_level = journal_level;
    options.progress = progress;
    options.progress_arg = progress_arg;
    options.log = log;
    return options;
  }
};

/* The field of a record that has a chunk's address: table id, index of the record, and offset of the field. It is stored
 * with the chunk; the library does not read it. */
class referrer {
 public:
  constexpr referrer(uint32_t table, uint32_t idx, size_t offset) noexcept
      : table_(table), idx_(idx), offset_(static_cast<uint32_t>(offset)) {}
  constexpr operator srcaddr_t() const noexcept { return {table_, idx_, static_cast<short>(offset_), {}}; }
  constexpr operator srcaddr64_t() const noexcept { return {table_, idx_, offset_}; }

 private:
  uint32_t table_, idx_, offset_;
};

/* Declarations of arrays. Names and descriptions are not copied until a store is opened. */
class schema {
 public:
  /* Returns array_key<slot_view<T, L>>. A type that is no slot_record does not compile, with the reason. */
  template <class T, lists L = lists::free_only>
  auto slots(const char *name, const decl_options &wanted = {}) {
    static_assert(storable<T>, "the bytes of a record are its value: no pointers, strings or virtual functions");
    static_assert(alignof(T) <= 4,
                  "slots begin at multiples of 4 bytes: enclose the type in #pragma pack(push, 4) and "
                  "#pragma pack(pop)");
    static_assert(slot_record<T> || !storable<T> || alignof(T) > 4,
                  "the first member of a slot's record is uint32_t gatekeeper, and its size is a multiple of 4");
    if constexpr (slot_record<T>)
      return array_key<slot_view<T, L>>{add(name, TSLB_ARRAY_SLOTS, sizeof(T), static_cast<uint8_t>(L), wanted)};
  }
  template <plain_record T>
  array_key<record_view<T>> records(const char *name, const decl_options &wanted = {}) {
    return {add(name, TSLB_ARRAY_RECORDS, sizeof(T), 0, wanted)};
  }
  template <kind K, headers H = headers::compact>
  array_key<pool_view<K, H>> pool(const char *name, const pool_decl_options &wanted = {}) {
    decl_options common;
    common.tbl_id = wanted.tbl_id;
    common.n_direct = wanted.n_direct;
    common.description = wanted.description;
    const uint32_t index = add(name, K == kind::bit_vector ? TSLB_POOL_BIT_VECTOR : TSLB_POOL_BIG_BUFFER,
                               wanted.slot_bytes, wanted.frees_slots ? TSLB_DA_DAFLAG_LL : 0, common);
    decls_[index].has_compat = H == headers::compact;
    decls_[index].max_slots = wanted.max_slots;
    is_valid_ = is_valid_ && (K != kind::big_buffer || wanted.slot_bytes <= pool_view<K, H>::max_slot_bytes);
    return {index};
  }
  /* For what the options lack, such as a reuse policy. */
  template <class View>
  tslb_array_decl_t &declaration(array_key<View> key) {
    return decls_[key.index];
  }
  const std::vector<tslb_array_decl_t> &declarations() const noexcept { return decls_; }
  /* False if a pool has slots in which the null address is a chunk's: pool_view::max_slot_bytes. */
  bool is_valid() const noexcept { return is_valid_; }

 private:
  uint32_t add(const char *name, tslb_array_kind_t of, uint32_t bytes, uint8_t daflag, const decl_options &wanted) {
    tslb_array_decl_t decl = {};
    decl.name = name;
    decl.kind = of;
    decl.tbl_id = wanted.tbl_id;
    decl.record_bytes = bytes;
    decl.n_direct = wanted.n_direct;
    decl.daflag = daflag;
    decl.rec_version = wanted.rec_version;
    decl.description = wanted.description;
    decl.convert = wanted.convert;
    decl.convert_arg = wanted.convert_arg;
    decls_.push_back(decl);
    return static_cast<uint32_t>(decls_.size() - 1);
  }

  std::vector<tslb_array_decl_t> decls_;
  bool is_valid_ = true;
};

}  // namespace tslb

#endif
