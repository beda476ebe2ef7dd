// The arrays of a store: their declarations, and operations on whole arrays.
#pragma once

#include <tslb/durable.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tslb_durable {

struct ReleaseArray {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
using Array = std::unique_ptr<DynArrHandle_t, ReleaseArray>;

inline constexpr const char *KIND_NAMES[] = {"records", "slots", "big_buffer", "bit_vector"};

// Returns the value of an enumerator that a caller set, also if it is none.
template <class Enumeration>
int raw_value(const Enumeration &value) {
  int raw;
  static_assert(sizeof raw == sizeof value);
  std::memcpy(&raw, &value, sizeof raw);
  return raw;
}

inline bool is_pool(tslb_array_kind_t kind) {
  return kind == TSLB_POOL_BIG_BUFFER || kind == TSLB_POOL_BIT_VECTOR;
}

// A declaration that was checked, with its own copies of texts and policy.
struct ArrayDecl {
  std::string name;
  tslb_array_kind_t kind = TSLB_ARRAY_RECORDS;
  int32_t tbl_id = 0;
  uint32_t record_bytes = 0;  // as the array stores it: of a pool, MemSlot_t and its chunks
  uint32_t n_direct = 0;
  uint8_t daflag = 0;
  uint8_t rec_version = 0;
  bool has_compat = false;
  int16_t max_slots = 0;
  std::optional<tsdb_mem_pressure_config_t> reuse_policy;
  std::string description;
  tslb_record_converter_t convert = nullptr;
  void *convert_arg = nullptr;
  bool converts_newer = false;
  bool compresses = false;
};

// Throws StoreError with TSLB_DURABLE_INVALID.
std::vector<ArrayDecl> checked_decls(const tslb_array_decl_t *decls, uint32_t n_decls);

// Sizes of an array in memory. Positions are those of the flat image (tslb_stored.h).
struct Geometry {
  explicit Geometry(DynArrHandle_t *array);

  uint32_t header_bytes;
  uint32_t slot_bytes;
  uint32_t shift;         // offset of the record in its slot
  uint32_t record_bytes;  // without nodes
};

// Returns the first byte of slot `idx`, its node included.
char *slot_start(DynArrHandle_t *array, const Geometry &geometry, uint32_t idx);

// Offset of n_alloc in the headers. It counts the memory of one process, so it is neither logged nor compared.
uint32_t n_alloc_at(DynArrHandle_t *array);

// The bytes of a memory slot, from its first one, that chunks can have; at most up to the second node. The rest of the record is
// in no chunk: a compressed stream has zeros there. Of pools with compaction headers, whose slots can be taken again.
size_t bytes_to_unused(const char *slot, const Geometry &geometry);

// Of the bytes that two copies of an array share: the headers, with zeroes for n_alloc, and the slots with their nodes, in the
// order of their ids, without what bytes_to_unused leaves out. `bytes` is the length of the whole.
struct Digest {
  uint32_t crc32c;
  uint64_t bytes;
};
// Threads: as a reader of the array.
Digest digest_of(DynArrHandle_t *array);

inline DynMemHdr_t *pool_header_of(DynArrHandle_t *pool) {
  return static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool));
}

// All throw StoreError with TSLB_DURABLE_NO_MEMORY.
//
// Returns a new, empty array.
Array create_array(const ArrayDecl &decl);
// Returns an array with the same contents and parameters in process memory.
Array copy_of(DynArrHandle_t *array);
// Gives `to` the contents of `from`, which has the same parameters. Memory of `to` stays where it is; ids that `from`
// does not have are not issued any more, and their slots are zero.
void copy_content(DynArrHandle_t *from, DynArrHandle_t *to);

// Returns an array with the records of `from` in the declared version and size. Indices, statuses, lists and their order
// stay. Throws StoreError also if the converter fails.
Array converted(DynArrHandle_t *from, const ArrayDecl &decl, const std::string &folder);

// Returns why a stored array is not the declared one; empty if it is. A different rec_version is not compared.
std::string mismatch_of(DynArrHandle_t *array, const ArrayDecl &decl, bool compare_record_bytes);

uint8_t rec_version_of(DynArrHandle_t *array);

}  // namespace tslb_durable
