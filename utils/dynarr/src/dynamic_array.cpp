// Record arrays: creation of block 0, issue of ids, and the lookup, which creates missing tables and blocks. Lock-free:
// a table entry changes once, from null to a pointer, by one swap. A thread that loses the race releases the memory it
// allocated.
#include "dynamic_array.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include "dynarr_handle.h"
#include "dynarr_lookup.h"
#include "tslb_probes.h"
#include "tslb_report.h"

// Padding in one of these would put undefined bytes into a file.
static_assert(std::has_unique_object_representations_v<DynHdr_t>);
static_assert(std::has_unique_object_representations_v<DynArrLLI_t>);
static_assert(std::has_unique_object_representations_v<node_fw> && std::has_unique_object_representations_v<node_bw>);

uint32_t single_redirection_elements_count = 1u << 8;
uint32_t second_redirection_elements_count = 1u << 12;
uint32_t third_redirection_elements_count = 1u << 16;
uint32_t fourth_redirection_elements_count = 1u << 20;
uint32_t fifth_redirection_elements_count = 1u << 24;
uint32_t sixth_redirection_elements_count = 1u << 28;

// ---- Creation -----------------------------------------------------------------------------------------------------

// Returns 0 if an array of these sizes can exist, else the errno of the refusal. `block_bytes` is the size of block 0.
static int refusal_of(int32_t usrhdr_sz, int32_t record_sz, int32_t n_direct, uint32_t node_bytes,
                      int64_t block_bytes) {
  if (usrhdr_sz < 0 || record_sz < 0 || n_direct < 0) return EINVAL;
  if (usrhdr_sz > UINT16_MAX || block_bytes > INT32_MAX) return EOVERFLOW;
  const uint64_t slot_bytes = uint64_t{static_cast<uint32_t>(record_sz)} + node_bytes;
  return slot_bytes * TSLB_SLOTS_PER_BLOCK > UINT32_MAX ? EOVERFLOW : 0;
}

// Allocates block 0, zeroed; null with errno set. A file loses its old content here: a new array is always empty.
static void *make_block0(char mem_type, int64_t bytes, const char *ctx_name, int32_t tbl_id) {
  if (mem_type != MPOOL_TYPE_SHM && mem_type != MPOOL_TYPE_PMEM) return calloc(1, static_cast<size_t>(bytes));
  void *block0 = nullptr;
  if (mem_type == MPOOL_TYPE_SHM) {
    get_shm_block(bytes, ctx_name, tbl_id, 0, &block0);
  } else {
    get_pmem_block(bytes, ctx_name, tbl_id, 0, &block0);
    errno = ENOTSUP;
  }
  if (block0 != nullptr) memset(block0, 0, static_cast<size_t>(bytes));
  return block0;
}

static void fill_handle(DynArrHandle_t *array, void *block0, char mem_type, int64_t tbl_id, const char *ctx_name,
                        uint8_t daflag, int32_t n_direct) {
  array->arr_base = block0;
  array->tbl_id = static_cast<uint32_t>(tbl_id);
  array->mem_type = mem_type;
  array->daflag = daflag;
  array->n_direct = static_cast<uint32_t>(n_direct);
  // The other fields stay zero: lock free, no root table, and the name's terminator.
  if (ctx_name != nullptr) memcpy(array->ctx_name, ctx_name, strnlen(ctx_name, sizeof(array->ctx_name) - 1));
}

static void fill_headers(DynArrHandle_t *array, int32_t usrhdr_sz, int32_t record_sz, uint8_t rec_version) {
  DynHdr_t *const hdr = dyn_hdr_of(array);
  hdr->lib_version = TSLB_LIB_VERSION;
  hdr->rec_version = rec_version;
  hdr->hdr_size = static_cast<uint16_t>(usrhdr_sz);
  hdr->lli_sz = has_lists(array) ? TSLB_LLI_BYTES : 0;
  if (has_lists(array)) {
    DynArrLLI_t *const lli = lli_of(array);
    lli->free_head = lli->free_tail = lli->inact_head = lli->inact_tail = TSLB_DA_NIL_IDX;
    lli->lltype = array->daflag;
  }
  DynArrHdr_t *const arr_hdr = arr_hdr_of(array);
  arr_hdr->n_alloc = arr_hdr->n_direct = array->n_direct;
  arr_hdr->record_size = static_cast<uint32_t>(record_sz);
}

DynamicArray_t get_default_dyn_array_ex_ex(int32_t usrhdr_sz, int32_t size_of_single_data_slot,
                                           int32_t number_of_direct_slots, char mem_type, int64_t tbl_id,
                                           const char *ctx_name, uint8_t daflag, uint8_t rec_version) {
  const uint32_t node_bytes = tslb_stored_node_bytes(daflag);
  const int64_t tot_hdrsz =
      int64_t{usrhdr_sz} + (node_bytes != 0 ? TSLB_LLI_BYTES : 0) + (TSLB_DYN_HDR_BYTES + TSLB_ARR_HDR_BYTES);
  const int64_t default_dyn_array_size =
      tot_hdrsz + (int64_t{size_of_single_data_slot} + node_bytes) * number_of_direct_slots;

  DynArrHandle_t *const array = static_cast<DynArrHandle_t *>(calloc(1, sizeof(array_private_t)));
  if (array == nullptr) {
    const int err = errno;
    fprintf(stderr, "Error(%s:%d): unable to allocate memory for DynArrHandle_t of size %ld. err(%d)=(%s).\n",
            TSLB_FUNC_LINE, static_cast<long>(sizeof(DynArrHandle_t)), err, strerror(err));
    errno = err;
    return nullptr;
  }
  int err = refusal_of(usrhdr_sz, size_of_single_data_slot, number_of_direct_slots, node_bytes, default_dyn_array_size);
  void *block0 = nullptr;
  if (err == 0) {
    block0 = make_block0(mem_type, default_dyn_array_size, ctx_name, static_cast<int32_t>(tbl_id));
    err = errno;
  }
  if (block0 == nullptr) {
    free(array);
    fprintf(stderr,
            "Error(%s:%d) failed to allocate memory for Dynamic Array of size %ld for ContextName %s and "
            "TableId %ld, "
            "g_base_path = %s, err(%d)=%s.\n",
            TSLB_FUNC_LINE, static_cast<long>(default_dyn_array_size), ctx_name != nullptr ? ctx_name : "(null)",
            static_cast<long>(tbl_id), g_base_path, err, strerror(err));
    errno = err;
    return nullptr;
  }
  fill_handle(array, block0, mem_type, tbl_id, ctx_name, daflag, number_of_direct_slots);
  fill_headers(array, usrhdr_sz, size_of_single_data_slot, rec_version);
  TSLB_PROBE_BLOCK_CREATED(array, 0, default_dyn_array_size, block0);
  return array;
}

DynamicArray_t get_default_dyn_array_ex(int32_t usrhdr_sz, int32_t size_of_single_data_slot,
                                        int32_t number_of_direct_slots, char mem_type, int64_t tbl_id,
                                        const char *ctx_name, uint8_t daflag) {
  return get_default_dyn_array_ex_ex(usrhdr_sz, size_of_single_data_slot, number_of_direct_slots, mem_type, tbl_id,
                                     ctx_name, daflag, 0);
}

DynamicArray_t get_default_dyn_array(int32_t size_of_single_data_slot, int32_t number_of_direct_slots, char mem_type) {
  return get_default_dyn_array_ex(0, size_of_single_data_slot, number_of_direct_slots, mem_type, 0, nullptr, 0);
}

// ---- Getters ------------------------------------------------------------------------------------------------------

DynArrHdr_t *get_dyn_hdr(DynamicArray_t array) {
  return arr_hdr_of(array);
}
void *get_user_hdr(DynamicArray_t array) {
  return dyn_hdr_of(array)->hdr_size != 0 ? user_hdr_of(array) : nullptr;
}
uint32_t get_dyn_arr_size(DynamicArray_t array) {
  return get32(arr_hdr_of(array), &DynArrHdr_t::n_used);
}
uint32_t get_dyn_arr_record_sz(DynamicArray_t array) {
  return arr_hdr_of(array)->record_size;
}
uint32_t get_dyn_total_allocated_records(DynamicArray_t array) {
  return get32(arr_hdr_of(array), &DynArrHdr_t::n_alloc);
}
void *dyn_array_record(DynamicArray_t, int32_t) {
  return nullptr;
}

// ---- Growth -------------------------------------------------------------------------------------------------------

// Acquire. Pairs with the full barrier in cas64: a reader that sees the pointer also sees zeroed memory.
static inline void *load_entry(void *const *entry) {
  return __atomic_load_n(entry, __ATOMIC_ACQUIRE);
}

// Swaps `fresh` into an empty entry. Returns false if another thread filled the entry first; `fresh` is released then.
// No retry: cas64 fails only for a filled entry, and a filled entry never changes.
static bool publish(void *entry, void *fresh) {
  if (cas64(static_cast<uint64_t *>(entry), 0, reinterpret_cast<uint64_t>(fresh)) != 0) return true;
  free(fresh);
  return false;
}

void get_dyn_array_of_pointers(int32_t count, void *addr) {
  const size_t bytes = static_cast<size_t>(count) * sizeof(void *);
  void *const table = calloc(1, bytes);
  if (table == nullptr) {
    const int err = errno;
    fprintf(stderr, "Error(%s:%d) failed to allocate memory for PtrTabl_t of Dynamic Array of size %zd. err(%d)=%s.\n",
            TSLB_FUNC_LINE, static_cast<ssize_t>(bytes), err, strerror(err));
    return;
  }
  publish(addr, table);
}

// Publishes a data block from the process allocator. Returns false if another thread's block is in the entry, or after
// a report.
static bool publish_heap_block(size_t chunk_size, void *addr) {
  // Zeroed before the swap: another thread may read the block once it is published.
  void *const block = calloc(1, chunk_size);
  if (block != nullptr) return publish(addr, block);
  fprintf(stderr, "Error(DALib): Failed to allocted memory of size %ld\n", static_cast<long>(chunk_size));
  return false;
}

void get_dyn_data_array(DynamicArray_t array, uint32_t record_size, int32_t count, int32_t block_num, void *addr) {
  const uint32_t chunk_size = static_cast<uint32_t>(count) * record_size;
  const int32_t tbl_id = static_cast<int32_t>(array->tbl_id);
  const bool from_file = array->mem_type == MPOOL_TYPE_SHM || array->mem_type == MPOOL_TYPE_PMEM;
  bool published;
  if (array->mem_type == MPOOL_TYPE_SHM)
    published = get_shm_block(chunk_size, array->ctx_name, tbl_id, block_num, addr) != 0;
  else if (array->mem_type == MPOOL_TYPE_PMEM)
    published = get_pmem_block(chunk_size, array->ctx_name, tbl_id, block_num, addr) != 0;
  else
    published = publish_heap_block(chunk_size, addr);
  if (published) {
    TSLB_PROBE_BLOCK_CREATED(array, block_num, chunk_size, load_entry(static_cast<void **>(addr)));
    add32(arr_hdr_of(array), &DynArrHdr_t::n_alloc, static_cast<uint32_t>(count));
  }
  // A failed heap allocation was reported above.
  if (from_file && load_entry(static_cast<void **>(addr)) == nullptr)
    fprintf(stderr, "Unexpected data_addr NULL, count: %d, block_num: %d\n", count, block_num);
}

// ---- Lookup -------------------------------------------------------------------------------------------------------

__attribute__((noinline, cold)) static void *make_table(void **entry) {
  get_dyn_array_of_pointers(TSLB_ENTRIES_PER_TABLE, entry);
  return load_entry(entry);
}

__attribute__((noinline, cold)) static PtrTbl_t *make_root(DynArrHandle_t *array) {
  get_dyn_array_of_pointers(TSLB_ENTRIES_PER_TABLE, &array->ir_base);
  return __atomic_load_n(&array->ir_base, __ATOMIC_ACQUIRE);
}

__attribute__((noinline, cold)) static void *make_block(DynArrHandle_t *array, uint32_t beyond, uint64_t slot_bytes,
                                                        void **entry) {
  get_dyn_data_array(array, static_cast<uint32_t>(slot_bytes), TSLB_SLOTS_PER_BLOCK,
                     static_cast<int32_t>(tslb_stored_block_num(beyond)), entry);
  return load_entry(entry);
}

__attribute__((noinline, cold)) static void *report_beyond_levels(const DynArrHandle_t *array, uint32_t beyond) {
  const uint32_t n_direct = n_direct_of(array, arr_hdr_of(array));
  // The id UINT32_MAX gets no message. Issuing it wraps n_used to 0, so a lookup treats it as an id that was not issued.
  if (beyond + n_direct == UINT32_MAX) return nullptr;
  fprintf(stderr, "ID %d is not correct, n_direct:%d\n", static_cast<int>(beyond + n_direct),
          static_cast<int>(n_direct));
  return nullptr;
}

static inline void *record_in(void *block, uint32_t beyond, uint64_t slot_bytes, uint64_t shift) {
  return static_cast<char *>(block) + beyond % TSLB_SLOTS_PER_BLOCK * slot_bytes + shift;
}

// Finds a record whose tables or block may be missing, or whose id is too large for all levels. Each entry is read
// again after it was created: another thread may have published its own memory.
__attribute__((noinline, cold)) static void *make_record_beyond(DynArrHandle_t *array, uint32_t beyond,
                                                                uint64_t slot_bytes, uint64_t shift) {
  PtrTbl_t *root = __atomic_load_n(&array->ir_base, __ATOMIC_ACQUIRE);
  if (root == nullptr && (root = make_root(array)) == nullptr) return nullptr;
  const unsigned level = tslb_stored_level_of(beyond);
  if (level > TSLB_LEVELS) return report_beyond_levels(array, beyond);

  const uint32_t actual_id = beyond - tslb_stored_first_of_level(level);
  void **entry = reinterpret_cast<void **>(root) + level - 1;
  for (unsigned digit = 4 * level; digit != 0; digit -= 4) {
    void *table = load_entry(entry);
    if (table == nullptr && (table = make_table(entry)) == nullptr) return nullptr;
    entry = static_cast<void **>(table) + (actual_id >> digit) % TSLB_ENTRIES_PER_TABLE;
  }
  void *block = load_entry(entry);
  if (block == nullptr) block = make_block(array, beyond, slot_bytes, entry);
  return block != nullptr ? record_in(block, beyond, slot_bytes, shift) : nullptr;
}

// Returns the data block that is STEPS tables below `table`; null if a table or the block is missing. A recursion, so
// that every shift is a constant; see docs/performance.md, "Lookup".
template <unsigned STEPS>
static inline void *descend_from(void *table, uint32_t actual_id) {
  if constexpr (STEPS == 0) {
    return table;
  } else {
    if (table == nullptr) return nullptr;
    void **const entry = static_cast<void **>(table) + (actual_id >> (4 * STEPS)) % TSLB_ENTRIES_PER_TABLE;
    return descend_from<STEPS - 1>(load_entry(entry), actual_id);
  }
}

template <unsigned LEVEL>
static inline void *descend(PtrTbl_t *root, uint32_t beyond) {
  void *const table = load_entry(reinterpret_cast<void **>(root) + LEVEL - 1);
  return descend_from<LEVEL>(table, beyond - tslb_stored_first_of_level(LEVEL));
}

// Lower levels first, found by comparisons; see docs/performance.md, "Lookup".
static inline void *find_block(PtrTbl_t *root, uint32_t beyond) {
  if (__builtin_expect(beyond < tslb_stored_first_of_level(3), 1)) {
    if (__builtin_expect(beyond < tslb_stored_first_of_level(2), 1)) return descend<1>(root, beyond);
    return descend<2>(root, beyond);
  }
  if (beyond < tslb_stored_first_of_level(4)) return descend<3>(root, beyond);
  if (beyond < tslb_stored_first_of_level(5)) return descend<4>(root, beyond);
  if (beyond < tslb_stored_first_of_level(6)) return descend<5>(root, beyond);
  return beyond < tslb_stored_first_of_level(TSLB_LEVELS + 1) ? descend<6>(root, beyond) : nullptr;
}

void *dynarr_record_beyond(DynArrHandle_t *array, uint32_t beyond, uint64_t slot_bytes, uint64_t shift) {
  PtrTbl_t *const root = __atomic_load_n(&array->ir_base, __ATOMIC_ACQUIRE);
  void *const block = __builtin_expect(root != nullptr, 1) ? find_block(root, beyond) : nullptr;
  if (__builtin_expect(block == nullptr, 0)) return make_record_beyond(array, beyond, slot_bytes, shift);
  return record_in(block, beyond, slot_bytes, shift);
}

void *get_dyn_arr_record_position_ex(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t daflag) {
  return lookup(array, id, daflag);
}

void *get_dyn_arr_record_position(DynamicArray_t array, uint32_t id) {
  return lookup(array, id, 0);
}

// ---- New ids ------------------------------------------------------------------------------------------------------

int32_t dynarr_refuse_id(uint32_t n_alloc) {
  // The id stays issued: taking it back would race with threads that were issued later ids.
  fprintf(stderr, "Can not allocate more space as array is full. Total allocated space = %hu\n",
          static_cast<unsigned short>(n_alloc));
  return -1;
}

int32_t get_dyn_arr_new_record_id_ex(DynamicArray_t array, void **ptr, uint8_t daflag) {
  return new_record_id(array, ptr, daflag);
}

int32_t get_dyn_arr_new_record_id(DynamicArray_t array) {
  void *record;
  return get_dyn_arr_new_record_id_ex(array, &record, 0);
}
