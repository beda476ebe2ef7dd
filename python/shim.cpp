// The shared object of the Python package. Its functions have parameters of simple types, so that cffi can call them;
// what they do is done by the loaders and the durable store, which it contains.
#include <malloc.h>
#include <sys/stat.h>
#include <tslb/array_loader.h>
#include <tslb/block_files.h>
#include <tslb/durable.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include "checksum.h"

#pragma GCC visibility push(default)
extern "C" {
#include "_interface.h"
}
#pragma GCC visibility pop

namespace {

static_assert(sizeof(tslb_py_error) == sizeof(tslb_error_t));
static_assert(offsetof(tslb_py_error, byte) == offsetof(tslb_error_t, byte));
static_assert(offsetof(tslb_py_error, file) == offsetof(tslb_error_t, file));
static_assert(offsetof(tslb_py_error, text) == offsetof(tslb_error_t, text));

tslb_error_t *c_error(tslb_py_error *error) {
  return reinterpret_cast<tslb_error_t *>(error);
}

DynamicArray_t array_of(void *array) {
  return static_cast<DynamicArray_t>(array);
}
tslb_store_t *store_of(void *store) {
  return static_cast<tslb_store_t *>(store);
}
tslb_batch_t *batch_of(void *batch) {
  return static_cast<tslb_batch_t *>(batch);
}

void set_error(tslb_py_error *error, int code, int errnum, const char *file, const char *text) {
  *error = {};
  error->code = code;
  error->errnum = errnum;
  snprintf(error->file, sizeof(error->file), "%s", file);
  snprintf(error->text, sizeof(error->text), "%s", text);
  if (const char *const at = strstr(text, "byte "); at != nullptr) error->byte = strtoull(at + 5, nullptr, 10);
}

array_load_options_t load_options(const char *name, int32_t tbl_id, int rebuilds_lists) {
  array_load_options_t options = {};
  options.ctx_name = name;
  options.tbl_id = tbl_id;
  options.mem_type = MPOOL_TYPE_SHM_TMP;  // process memory, never a ring
  options.kind = static_cast<uint8_t>(ARRAY_LOAD_POOL_BY_SIZE | (rebuilds_lists != 0 ? ARRAY_LOAD_REBUILDS_LISTS : 0));
  options.rec_version = ARRAY_LOAD_ANY_VERSION;
  return options;
}

bool is_pool(DynamicArray_t array) {
  return static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array))->hdr_size == TSLB_POOL_HDR_BYTES;
}
const DynMemHdr_t &pool_header(DynamicArray_t array) {
  return *static_cast<const DynMemHdr_t *>(tslb_da_get_usrhdr(array));
}

tslb_array_decl_t c_decl(const tslb_py_decl &decl) {
  tslb_array_decl_t made = {};
  made.name = decl.name;
  made.kind = static_cast<tslb_array_kind_t>(decl.kind);
  made.tbl_id = decl.tbl_id;
  made.record_bytes = decl.record_bytes;
  made.n_direct = decl.n_direct;
  made.daflag = decl.daflag;
  made.rec_version = decl.rec_version;
  made.has_compat = decl.has_compat;
  made.max_slots = decl.max_slots;
  made.description = decl.description[0] != '\0' ? decl.description : nullptr;
  return made;
}

// Returns why an open file is no stream; nullptr if it can be one.
const char *fault_of_stream(int fd, int *errnum) {
  struct stat status;
  if (fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
    *errnum = EISDIR;
    return "is a folder; open_store opens a durable store";
  }
  constexpr std::string_view ZSTD_MAGIC = "\x28\xB5\x2F\xFD";
  char first[ZSTD_MAGIC.size()];
  if (pread(fd, first, sizeof(first), 0) != sizeof(first) || std::string_view(first, sizeof(first)) != ZSTD_MAGIC)
    return nullptr;
  return "is compressed; zstd -d makes a stream of it";
}

}  // namespace

void *tslb_py_load_stream(int fd, const char *path, int rebuilds_lists, tslb_py_error *error) {
  int errnum = 0;
  if (const char *const fault = fault_of_stream(fd, &errnum); fault != nullptr) {
    set_error(error, TSLB_DURABLE_IO, errnum, path, fault);
    return nullptr;
  }
  char why[512];
  const array_load_options_t options = load_options(nullptr, 0, rebuilds_lists);
  const DynamicArray_t array = array_load_stream(fd, &options, why, sizeof(why));
  if (array == nullptr) set_error(error, TSLB_DURABLE_DAMAGED, 0, path, why);
  return array;
}

void *tslb_py_load_block_files(const char *base_path, const char *name, int32_t tbl_id, int rebuilds_lists,
                               tslb_py_error *error) {
  if (const int found = block_files_exist(base_path, name, tbl_id); found <= 0) {
    const int errnum = found == 0 ? ENOENT : errno;
    set_error(error, TSLB_DURABLE_IO, errnum, base_path, strerror(errnum));
    return nullptr;
  }
  char why[512];
  const array_load_options_t options = load_options(name, tbl_id, rebuilds_lists);
  const DynamicArray_t array = array_load_block_files(base_path, &options, why, sizeof(why));
  if (array != nullptr) return array;
  // The line begins with the path of the file.
  const char *const end = strstr(why, ".darr: ");
  char file[512] = "";
  if (end != nullptr) snprintf(file, sizeof(file), "%.*s", static_cast<int>(end + 5 - why), why);
  set_error(error, TSLB_DURABLE_DAMAGED, 0, file, end != nullptr ? end + 7 : why);
  return nullptr;
}

uint32_t tslb_py_crc32c(const void *bytes, size_t n_bytes, uint32_t previous) {
  return tslb_durable::crc32c(bytes, n_bytes, previous);
}

void tslb_py_release(void *array) {
  destroy_dyn_arr(array_of(array));
#ifdef __GLIBC__
  // Blocks of 16 slots are small, and the allocator keeps their pages.
  malloc_trim(0);
#endif
}

void tslb_py_describe(void *handle, tslb_py_array *described) {
  const DynamicArray_t array = array_of(handle);
  tslb_py_array &out = *described;
  out = {};
  snprintf(out.name, sizeof(out.name), "%s", array->ctx_name);
  out.tbl_id = static_cast<int32_t>(array->tbl_id);
  out.daflag = array->daflag;
  out.rec_version = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array))->rec_version;
  out.is_pool = is_pool(array);
  out.n_used = tslb_da_get_size(array);
  out.n_direct = array->n_direct;
  out.record_bytes = tslb_da_get_record_size(array);
  out.header_bytes = static_cast<uint32_t>(tslb_dynmem_get_hdrsz(array));
  out.record_at = tslb_stored_shift(array->daflag);
  out.slot_bytes = tslb_stored_slot_bytes(out.record_bytes, array->daflag);
  out.free_head = out.inactive_head = TSLB_DA_NIL_IDX;
  if (array->daflag != 0) {
    const auto *const roots = static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array));
    out.free_head = roots->free_head;
    out.n_free = roots->n_free;
    if ((array->daflag & TSLB_DA_DAFLAG_INLL) != 0) {
      out.inactive_head = roots->inact_head;
      out.n_inactive = roots->n_inact;
    }
  }
  if (out.is_pool != 0) {
    const DynMemHdr_t &hdr = pool_header(array);
    out.is_bit_vector = (hdr.flag & MPOOL_FLAG_BV) != 0;
    out.has_compat = (hdr.flag & MPOOL_FLAG_COMPAT) != 0;
    out.cursor_slot = tslb_stored_cursor_slot(hdr.cur_slot_addr);
    out.cursor_byte = tslb_stored_cursor_off(hdr.cur_slot_addr);
    out.mslot_bytes = hdr.mslot_sz;
    out.pool_bytes = hdr.total_msz;
    out.reserved_bytes = hdr.total_mused;
    out.overhead_bytes = hdr.total_mwast;
    out.available_bytes = static_cast<int64_t>(hdr.total_mavail);
  }
}

void *tslb_py_block0(void *array) {
  return array_of(array)->arr_base;
}

char *tslb_py_record(void *array, uint32_t idx) {
  return static_cast<char *>(tslb_da_get_ptr(array_of(array), idx));
}

void tslb_py_flatten(void *handle, uint32_t n_slots, void *image) {
  tslb_py_array array;
  tslb_py_describe(handle, &array);
  auto *to = static_cast<char *>(image);
  const uint32_t n_direct = std::min(n_slots, array.n_direct);
  memcpy(to, array_of(handle)->arr_base, array.header_bytes + array.slot_bytes * n_direct);
  memcpy(to + array.header_bytes - sizeof(DynArrHdr_t) + offsetof(DynArrHdr_t, n_used), &n_slots, sizeof(n_slots));
  for (uint32_t idx = n_direct; idx < n_slots; idx += TSLB_SLOTS_PER_BLOCK) {
    const uint64_t bytes = array.slot_bytes * std::min(TSLB_SLOTS_PER_BLOCK, n_slots - idx);
    const void *const record = tslb_da_get_ptr(array_of(handle), idx);
    char *const slot = to + tslb_stored_slot_at(array.header_bytes, array.slot_bytes, idx);
    if (record == nullptr)
      memset(slot, 0, bytes);
    else
      memcpy(slot, static_cast<const char *>(record) - array.record_at, bytes);
  }
}

void tslb_py_place(const tslb_py_array *pool, uint64_t address, int wide, uint32_t *slot, uint32_t *byte) {
  const auto word = static_cast<uint32_t>(address);
  tslb_chunk_place_t place = {word, static_cast<uint32_t>(address >> 32)};
  if (wide == 0)
    place = pool->is_bit_vector != 0 ? tslb_stored_decode_bitvector(word) : tslb_stored_decode_bigbuffer(word);
  *slot = place.slot_idx;
  *byte = place.byte_off + TSLB_MEM_SLOT_HDR_BYTES;
  if (pool->has_compat != 0) *byte += TSLB_COMPAT_BYTES;
}

int32_t tslb_py_store_describe(const char *folder, tslb_py_decl *arrays, uint32_t capacity, tslb_py_error *error) {
  try {
    std::vector<tslb_stored_array_t> stored(capacity);
    const int32_t n_arrays = tslb_store_describe(folder, stored.data(), capacity, c_error(error));
    for (uint32_t i = 0; n_arrays > 0 && i < std::min(capacity, static_cast<uint32_t>(n_arrays)); ++i) {
      tslb_py_decl &decl = arrays[i];
      decl = {};
      snprintf(decl.name, sizeof(decl.name), "%s", stored[i].name);
      snprintf(decl.description, sizeof(decl.description), "%s", stored[i].description);
      decl.kind = stored[i].kind;
      decl.tbl_id = stored[i].tbl_id;
      decl.record_bytes = stored[i].record_bytes;
      decl.n_direct = stored[i].n_direct;
      decl.daflag = stored[i].daflag;
      decl.rec_version = stored[i].rec_version;
      decl.has_compat = stored[i].has_compat;
    }
    return n_arrays;
  } catch (const std::bad_alloc &) {
    set_error(error, TSLB_DURABLE_NO_MEMORY, ENOMEM, folder, "no memory");
    return -1;
  }
}

void *tslb_py_store_open(const char *folder, const tslb_py_decl *arrays, uint32_t n_arrays, int writes, int creates,
                         int shadow, tslb_py_error *error) {
  try {
    std::vector<tslb_array_decl_t> decls;
    for (uint32_t i = 0; i < n_arrays; ++i) decls.push_back(c_decl(arrays[i]));
    tslb_store_options_t options = {};
    options.flags = (writes != 0 ? 0 : TSLB_STORE_READ_ONLY) | (creates != 0 ? TSLB_STORE_CREATE : 0) |
                    (shadow != 0 ? TSLB_STORE_SHADOW : 0);
    return tslb_store_open(folder, decls.data(), n_arrays, &options, c_error(error));
  } catch (const std::bad_alloc &) {
    set_error(error, TSLB_DURABLE_NO_MEMORY, ENOMEM, folder, "no memory");
    return nullptr;
  }
}

int tslb_py_store_close(void *store, tslb_py_error *error) {
  return tslb_store_close(store_of(store), c_error(error));
}
void *tslb_py_store_array(void *store, uint32_t index) {
  return tslb_store_array(store_of(store), index);
}
int tslb_py_store_restore(void *store, tslb_py_error *error) {
  return tslb_store_restore(store_of(store), c_error(error));
}
int tslb_py_store_snapshot(void *store, tslb_py_error *error) {
  return tslb_store_snapshot(store_of(store), c_error(error));
}
int tslb_py_store_backup(void *store, const char *folder, tslb_py_error *error) {
  return tslb_store_backup(store_of(store), folder, c_error(error));
}
const void *tslb_py_store_payload(void *store, size_t *bytes) {
  return tslb_store_payload(store_of(store), bytes);
}
void tslb_py_store_warning(void *store, char *text, size_t capacity) {
  tslb_store_info_t info;
  tslb_store_get_info(store_of(store), &info);
  snprintf(text, capacity, "%s", info.warning);
}

void *tslb_py_begin(void *store, tslb_py_error *error) {
  return tslb_batch_begin(store_of(store), c_error(error));
}
int tslb_py_commit(void *batch, tslb_py_error *error) {
  return tslb_batch_commit(batch_of(batch), c_error(error));
}
void tslb_py_refuse(void *batch, const char *why) {
  tslb_batch_refuse(batch_of(batch), why);
}

uint32_t tslb_py_take(void *array, int has_lists) {
  uint32_t idx = TSLB_DA_NIL_IDX;
  if (has_lists == 0) return static_cast<uint32_t>(get_dyn_arr_new_record_id(array_of(array)));
  return tslb_da_get_newptr(array_of(array), &idx) != nullptr ? idx : TSLB_DA_NIL_IDX;
}

int tslb_py_write(void *batch, uint32_t index, void *array, uint32_t idx, uint32_t offset, const void *bytes,
                  uint32_t n_bytes) {
  auto *const record = static_cast<char *>(tslb_da_get_ptr(array_of(array), idx));
  if (record == nullptr) return -1;
  memcpy(record + offset, bytes, n_bytes);
  tslb_batch_log_bytes(batch_of(batch), index, idx, offset, n_bytes);
  return 0;
}

uint32_t tslb_py_add_many(void *batch, uint32_t index, void *array, int has_lists, uint32_t offset, const void *records,
                          uint32_t record_bytes, uint32_t n_records, uint32_t *indices) {
  const auto *record = static_cast<const char *>(records);
  for (uint32_t i = 0; i < n_records; ++i, record += record_bytes) {
    indices[i] = tslb_py_take(array, has_lists);
    if (indices[i] == TSLB_DA_NIL_IDX ||
        tslb_py_write(batch, index, array, indices[i], offset, record + offset, record_bytes - offset) != 0)
      return i;
  }
  return n_records;
}

int tslb_py_change(void *array, uint32_t idx, int what, int64_t time) {
  switch (what) {
    case 0:
      return tslb_da_free_idx(array_of(array), idx);
    case 1:
      return tslb_da_inactivate_idx(array_of(array), idx, time);
    default:
      return tslb_da_activate_idx(array_of(array), idx);
  }
}

uint32_t tslb_py_status(void *array, uint32_t idx) {
  return tslb_da_slot_status(array_of(array), idx);
}

int tslb_py_put_chunk(void *batch, uint32_t index, int wide, const void *bytes, uint32_t n_bytes,
                      const uint32_t referrer[3], uint64_t *address, tslb_py_error *error) {
  tslb_batch_t *const open = batch_of(batch);
  void *data;
  if (wide != 0) {
    maddr64_t taken;
    data =
        tslb_batch_take_chunk64(open, index, n_bytes, {referrer[0], referrer[1], referrer[2]}, &taken, c_error(error));
    if (data != nullptr) {
      *address = taken.mslot_idx | uint64_t{taken.mchunk_idx} << 32;
      memcpy(data, bytes, n_bytes);
      tslb_batch_log_chunk64(open, index, taken, 0, n_bytes);
    }
  } else {
    maddr_t taken;
    data =
        tslb_batch_take_chunk(open, index, n_bytes, {referrer[0], referrer[1], static_cast<short>(referrer[2]), {0, 0}},
                              &taken, c_error(error));
    if (data != nullptr) {
      uint32_t word;
      memcpy(&word, &taken, sizeof(word));
      *address = word;
      memcpy(data, bytes, n_bytes);
      tslb_batch_log_chunk(open, index, taken, 0, n_bytes);
    }
  }
  return data != nullptr ? 0 : -1;
}

void tslb_py_delete_chunk(void *batch, uint32_t index, uint32_t address) {
  maddr_t chunk;
  memcpy(&chunk, &address, sizeof(chunk));
  tslb_batch_delete_chunk(batch_of(batch), index, chunk);
}
uint32_t tslb_py_sweep(void *batch, uint32_t index) {
  return tslb_batch_sweep(batch_of(batch), index);
}
int tslb_py_set_payload(void *batch, const void *bytes, size_t n_bytes, tslb_py_error *error) {
  return tslb_batch_set_payload(batch_of(batch), bytes, n_bytes, c_error(error));
}
