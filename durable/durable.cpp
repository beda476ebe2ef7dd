// The C interface: arguments are checked, and exceptions become tslb_error_t.
#include <tslb/durable.h>

#include <fmt/format.h>
#include <tslb/tslb_stored.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "store.h"

using namespace tslb_durable;

namespace {

constexpr uint32_t KNOWN_FLAGS = TSLB_STORE_CREATE | TSLB_STORE_IN_ANY | TSLB_STORE_READ_ONLY | TSLB_STORE_SALVAGE |
                                 TSLB_STORE_SHADOW | TSLB_STORE_NO_FORK | TSLB_STORE_BULK | TSLB_STORE_DETACH;

constexpr uint32_t MAX_JOURNAL_LEVEL = 10;  // no compression

void set_error(tslb_error_t *error, tslb_durable_code_t code, std::string_view text, const std::string &file = {},
               uint64_t byte = 0, int errnum = 0) {
  if (error == nullptr) return;
  error->code = code;
  error->errnum = errnum;
  error->byte = byte;
  copy_text(file, error->file, sizeof error->file);
  copy_text(text, error->text, sizeof error->text);
}

// Runs a function. Returns its result, or `failed` after filling `error`.
template <class Result, class Function>
Result guarded(tslb_error_t *error, Result failed, Function function) {
  try {
    return function();
  } catch (const StoreError &caught) {
    set_error(error, caught.code(), caught.what(), caught.file(), caught.byte(), caught.errnum());
  } catch (const std::bad_alloc &) {
    set_error(error, TSLB_DURABLE_NO_MEMORY, "memory was refused");
  } catch (const std::exception &caught) {
    set_error(error, TSLB_DURABLE_IO, caught.what());  // a thread could not be started
  }
  return failed;
}

// The same for a function of a store, which a child process does not have.
template <class Result, class Function>
Result guarded_in(const tslb_store_t *store, tslb_error_t *error, Result failed, Function function) {
  if (!store->is_of_parent()) return guarded(error, failed, function);
  set_error(error, TSLB_DURABLE_INVALID, "the store was opened by the parent process");
  return failed;
}

[[noreturn]] void refuse_argument(const std::string &why) {
  throw StoreError(TSLB_DURABLE_INVALID, why);
}

// Adds bytes of a record. An invalid range becomes the fault of the batch.
void add_range(tslb_batch_t *batch, uint32_t array, uint32_t idx, uint64_t offset, uint64_t bytes) noexcept {
  const tslb_store_t &store = *batch->store;
  if (array >= store.n_arrays())
    set_reason(batch->fault, "a range of array {}, but {} are declared", array, store.n_arrays());
  else if (const uint32_t n_used = tslb_da_get_size(store.array(array)); idx >= n_used)
    set_reason(batch->fault, "array \"{}\": record {} was named, but the array has {}", store.decl(array).name, idx,
               n_used);
  else if (offset + bytes > store.geometry(array).record_bytes)
    set_reason(batch->fault, "array \"{}\": {} bytes at byte {} of record {} are not in the array",
               store.decl(array).name, bytes, offset, idx);
  else if (bytes != 0)
    batch->add({array, idx, static_cast<uint32_t>(offset) + store.geometry(array).shift, static_cast<uint32_t>(bytes)});
}

bool has_compat(const tslb_store_t &store, uint32_t array) {
  return store.decl(array).has_compat;
}

bool is_pool_of(const tslb_store_t &store, uint32_t array) {
  return array < store.n_arrays() && is_pool(store.decl(array).kind);
}

void set_fault_no_pool(tslb_batch_t *batch, uint32_t array) noexcept {
  set_reason(batch->fault, "array {} is not a pool", array);
}

tslb_chunk_place_t place_of(const tslb_store_t &store, uint32_t array, const maddr_t &address) {
  uint32_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  return store.decl(array).kind == TSLB_POOL_BIT_VECTOR ? tslb_stored_decode_bitvector(bits)
                                                        : tslb_stored_decode_bigbuffer(bits);
}

uint32_t compat_bytes(const tslb_store_t &store, uint32_t array) {
  return has_compat(store, array) ? TSLB_COMPAT_BYTES : 0;
}

// Checks the length of a chunk.
void expect_length(const tslb_store_t &store, uint32_t array, uint32_t bytes) {
  if (!is_pool_of(store, array)) refuse_argument(fmt::format("array {} is not a pool", array));
  const ArrayDecl &decl = store.decl(array);
  const uint64_t total = uint64_t{bytes} + compat_bytes(store, array);
  const uint64_t slot_bytes = decl.record_bytes - TSLB_MEM_SLOT_HDR_BYTES;
  const uint64_t header_bytes = total - bytes;
  uint64_t max_total = decl.has_compat ? std::min(slot_bytes, TSLB_COMPAT_LEN_MAX + header_bytes) : slot_bytes;
  if (decl.kind == TSLB_POOL_BIT_VECTOR) max_total -= max_total % TSLB_BV_UNIT_BYTES;
  if (bytes == 0 || total > max_total)
    refuse_argument(fmt::format("pool \"{}\": a chunk has 1 to {} bytes in this pool, not {}{}", decl.name,
                                max_total - header_bytes, bytes,
                                total > slot_bytes ? fmt::format(": {} bytes in slots of {}", total, slot_bytes) : ""));
  if (decl.kind == TSLB_POOL_BIT_VECTOR && total % TSLB_BV_UNIT_BYTES != 0)
    refuse_argument(
        fmt::format("pool \"{}\": a chunk of {} bytes is not a multiple of {}", decl.name, total, TSLB_BV_UNIT_BYTES));
}

void expect_payload_size(size_t size) {
  if (size > MAX_PAYLOAD_BYTES)
    refuse_argument(fmt::format("a payload of {} bytes, but the maximum is {}", size, MAX_PAYLOAD_BYTES));
}

[[noreturn]] void refuse_full(const tslb_store_t &store, uint32_t array, uint32_t bytes) {
  const tslb_pool_room_t room = store.room(array)->room();
  throw StoreError(TSLB_DURABLE_FULL,
                   fmt::format("pool \"{}\": no room for {} bytes; free {}, inactive {}, fresh {}, current {}",
                               store.decl(array).name, bytes, room.free, room.inactive, room.fresh, room.current));
}

}  // namespace

// ---- Stores --------------------------------------------------------------------------------------------------------

tslb_store_t *tslb_store_open(const char *folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                              const tslb_store_options_t *options, tslb_error_t *error) {
  return guarded(error, static_cast<tslb_store_t *>(nullptr), [&] {
    if (folder == nullptr || folder[0] == '\0') refuse_argument("no folder");
    if (arrays == nullptr || n_arrays == 0) refuse_argument("no arrays are declared");
    const tslb_store_options_t defaults = {};
    const tslb_store_options_t &chosen = options != nullptr ? *options : defaults;
    if ((chosen.flags & ~KNOWN_FLAGS) != 0) refuse_argument(fmt::format("unknown flags {:#x}", chosen.flags));
    if (const int sync = raw_value(chosen.sync); sync < TSLB_SYNC_GROUP || sync > TSLB_SYNC_NONE)
      refuse_argument(fmt::format("unknown sync {}", sync));
    if (chosen.journal_level > MAX_JOURNAL_LEVEL)
      refuse_argument(fmt::format("journal_level {}, but the maximum is {}", chosen.journal_level, MAX_JOURNAL_LEVEL));
    if (chosen.log != nullptr && chosen.log->append == nullptr) refuse_argument("a log without append");
    return new tslb_store_t(folder, checked_decls(arrays, n_arrays), chosen);
  });
}

int32_t tslb_store_describe(const char *folder, tslb_stored_array_t *arrays, uint32_t capacity, tslb_error_t *error) {
  return guarded(error, int32_t{-1}, [&] {
    if (folder == nullptr || folder[0] == '\0') refuse_argument("no folder");
    const Manifest manifest = read_newest_manifest(folder);
    for (uint32_t i = 0; i < std::min<size_t>(capacity, manifest.arrays.size()); ++i) {
      const StoredArrayEntry &entry = manifest.arrays[i];
      tslb_stored_array_t &array = arrays[i];
      copy_text(entry.name, array.name, sizeof array.name);
      array.kind = entry.kind;
      array.tbl_id = entry.tbl_id;
      array.record_bytes = entry.record_bytes - (is_pool(entry.kind) ? TSLB_MEM_SLOT_HDR_BYTES : 0);
      array.n_direct = entry.n_direct;
      array.n_slots = entry.n_slots;
      array.daflag = entry.daflag;
      array.rec_version = entry.rec_version;
      array.has_compat = entry.has_compat ? 1 : 0;
      copy_text(entry.description, array.description, sizeof array.description);
    }
    return static_cast<int32_t>(manifest.arrays.size());
  });
}

int tslb_store_close(tslb_store_t *store, tslb_error_t *error) {
  if (store == nullptr) return 0;
  return guarded_in(store, error, -1, [&] {
    store->expect_no_batch_of_this_thread();
    const std::unique_ptr<tslb_store_t> released(store);
    store->close();
    return 0;
  });
}

DynamicArray_t tslb_store_array(tslb_store_t *store, uint32_t idx) {
  return store->array(idx);
}

void tslb_store_get_info(tslb_store_t *store, tslb_store_info_t *info) {
  *info = store->is_of_parent() ? tslb_store_info_t{} : store->info();
}

const void *tslb_store_payload(tslb_store_t *store, size_t *size) {
  static const char NOTHING = 0;  // the address of a payload of no bytes
  const std::vector<uint8_t> *const payload = store->payload();
  *size = payload != nullptr ? payload->size() : 0;
  if (payload == nullptr) return nullptr;
  return payload->empty() ? static_cast<const void *>(&NOTHING) : payload->data();
}

int tslb_store_set_payload(tslb_store_t *store, const void *bytes, size_t size, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    expect_payload_size(size);
    const auto *const first = static_cast<const uint8_t *>(bytes);
    store->set_payload_of_import({first, first + size});
    return 0;
  });
}

// ---- Batches -------------------------------------------------------------------------------------------------------

tslb_batch_t *tslb_batch_begin(tslb_store_t *store, tslb_error_t *error) {
  return guarded_in(store, error, static_cast<tslb_batch_t *>(nullptr), [&] { return store->begin(); });
}

// With the nodes, which the library does not report for some operations (tslb_da_get_newptr_inll, tslb_da_make_ready).
void tslb_batch_log_record(tslb_batch_t *batch, uint32_t array, uint32_t idx) {
  const tslb_store_t &store = *batch->store;
  if (array < store.n_arrays() && idx < tslb_da_get_size(store.array(array)))
    batch->add({array, idx, 0, store.geometry(array).slot_bytes});
  else
    add_range(batch, array, idx, 0, 0);  // sets the fault
}

void tslb_batch_log_bytes(tslb_batch_t *batch, uint32_t array, uint32_t idx, uint32_t offset, uint32_t bytes) {
  add_range(batch, array, idx, offset, bytes);
}

void tslb_batch_log_chunk(tslb_batch_t *batch, uint32_t array, maddr_t address, uint32_t offset, uint32_t bytes) {
  const tslb_store_t &store = *batch->store;
  if (!is_pool_of(store, array)) return set_fault_no_pool(batch, array);
  const tslb_chunk_place_t place = place_of(store, array, address);
  const uint64_t at = uint64_t{TSLB_MEM_SLOT_HDR_BYTES} + place.byte_off + compat_bytes(store, array);
  add_range(batch, array, place.slot_idx, at + offset, bytes);
}

void tslb_batch_log_chunk64(tslb_batch_t *batch, uint32_t array, maddr64_t address, uint32_t offset, uint32_t bytes) {
  const tslb_store_t &store = *batch->store;
  if (!is_pool_of(store, array)) return set_fault_no_pool(batch, array);
  const uint64_t at = uint64_t{TSLB_MEM_SLOT_HDR_BYTES} + address.mchunk_idx + compat_bytes(store, array);
  add_range(batch, array, address.mslot_idx, at + offset, bytes);
}

void *tslb_batch_take_chunk(tslb_batch_t *batch, uint32_t array, uint32_t bytes, srcaddr_t referrer, maddr_t *address,
                            tslb_error_t *error) {
  return guarded_in(batch->store, error, static_cast<void *>(nullptr), [&] {
    const tslb_store_t &store = *batch->store;
    expect_length(store, array, bytes);
    char *const chunk = static_cast<char *>(store.room(array)->take(bytes, referrer, address));
    if (chunk == nullptr) refuse_full(store, array, bytes);
    const tslb_chunk_place_t place = place_of(store, array, *address);
    // The counters of the slot follow from any range in it.
    add_range(batch, array, place.slot_idx, uint64_t{TSLB_MEM_SLOT_HDR_BYTES} + place.byte_off,
              has_compat(store, array) ? TSLB_COMPAT_BYTES : 1);
    return static_cast<void *>(chunk + compat_bytes(store, array));
  });
}

void *tslb_batch_take_chunk64(tslb_batch_t *batch, uint32_t array, uint32_t bytes, srcaddr64_t referrer,
                              maddr64_t *address, tslb_error_t *error) {
  return guarded_in(batch->store, error, static_cast<void *>(nullptr), [&] {
    const tslb_store_t &store = *batch->store;
    expect_length(store, array, bytes);
    if (store.decl(array).kind != TSLB_POOL_BIG_BUFFER || store.decl(array).max_slots != 0)
      refuse_argument(fmt::format("pool \"{}\": 64-bit addresses need a big-buffer pool without max_slots",
                                  store.decl(array).name));
    char *const chunk =
        static_cast<char *>(tslb_dynmem_get_mchunk64(store.array(array), address, static_cast<int>(bytes), referrer));
    if (chunk == nullptr) refuse_full(store, array, bytes);
    add_range(batch, array, address->mslot_idx, uint64_t{TSLB_MEM_SLOT_HDR_BYTES} + address->mchunk_idx,
              has_compat(store, array) ? TSLB_COMPAT_BYTES : 1);
    return static_cast<void *>(chunk + compat_bytes(store, array));
  });
}

void tslb_batch_delete_chunk(tslb_batch_t *batch, uint32_t array, maddr_t address) {
  const tslb_store_t &store = *batch->store;
  if (!is_pool_of(store, array)) return set_fault_no_pool(batch, array);
  if (!has_compat(store, array)) return;  // as the library does
  tslb_dynmem_del_mchunk(store.array(array), address);
  const tslb_chunk_place_t place = place_of(store, array, address);
  add_range(batch, array, place.slot_idx, uint64_t{TSLB_MEM_SLOT_HDR_BYTES} + place.byte_off, TSLB_COMPAT_BYTES);
}

uint32_t tslb_batch_sweep(tslb_batch_t *batch, uint32_t array) {
  const tslb_store_t &store = *batch->store;
  if (!is_pool_of(store, array)) {
    set_fault_no_pool(batch, array);
    return 0;
  }
  const uint64_t free_before = store.room(array)->room().free;
  size_t total = 0, used = 0, deleted = 0;
  tslb_dynmem_update_free_list(store.array(array), &total, &used, &deleted);
  const uint64_t free_after = store.room(array)->room().free;
  const uint64_t slot_bytes = store.decl(array).record_bytes - TSLB_MEM_SLOT_HDR_BYTES;
  return free_after > free_before ? static_cast<uint32_t>((free_after - free_before) / slot_bytes) : 0;
}

int tslb_batch_set_payload(tslb_batch_t *batch, const void *bytes, size_t size, tslb_error_t *error) {
  return guarded_in(batch->store, error, -1, [&] {
    expect_payload_size(size);
    batch->payload.assign(static_cast<const char *>(bytes), size);
    batch->has_payload = true;
    return 0;
  });
}

uint64_t tslb_batch_end(tslb_batch_t *batch) {
  return batch->store->is_of_parent() ? 0 : batch->store->end_without_wait(batch);
}

uint64_t tslb_batch_refuse(tslb_batch_t *batch, const char *why) {
  if (batch->store->is_of_parent()) return 0;
  set_reason(batch->fault, "a batch was given up: {}", why);
  return tslb_batch_end(batch);
}

int tslb_batch_commit(tslb_batch_t *batch, tslb_error_t *error) {
  tslb_store_t *const store = batch->store;
  return guarded_in(store, error, -1, [&] {
    store->commit(batch);
    return 0;
  });
}

// ---- Tickets -------------------------------------------------------------------------------------------------------

int tslb_store_wait(tslb_store_t *store, uint64_t ticket, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    store->wait(ticket);
    return 0;
  });
}

int tslb_store_check(tslb_store_t *store, uint64_t ticket, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] { return store->check(ticket) ? 0 : 1; });
}

int tslb_store_reserve(tslb_store_t *store, uint64_t bytes, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    store->reserve(bytes);
    return 0;
  });
}

uint64_t tslb_store_settled(tslb_store_t *store) {
  return store->is_of_parent() ? 0 : store->settled();
}

int tslb_store_event_fd(tslb_store_t *store) {
  return store->event_fd();
}

int tslb_store_restore(tslb_store_t *store, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    store->restore();
    return 0;
  });
}

// ---- Generations ---------------------------------------------------------------------------------------------------

int tslb_store_snapshot(tslb_store_t *store, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    store->snapshot();
    return 0;
  });
}

int tslb_store_backup(tslb_store_t *store, const char *folder, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    if (folder == nullptr || folder[0] == '\0') refuse_argument("no folder");
    store->backup(folder);
    return 0;
  });
}

// ---- Stores with a log ---------------------------------------------------------------------------------------------

tslb_log_position_t tslb_store_position(tslb_store_t *store) {
  return store->is_of_parent() ? tslb_log_position_t{} : store->position();
}

uint32_t tslb_store_layout(tslb_store_t *store) {
  return store->layout();
}

int tslb_store_apply(tslb_store_t *store, const tslb_group_t *group, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    store->apply({static_cast<const char *>(group->body), group->bytes}, group->position, group->n_batches);
    return 0;
  });
}

int tslb_store_adopt(tslb_store_t *store, const char *folder, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    if (folder == nullptr || folder[0] == '\0') refuse_argument("no folder");
    store->adopt_copy(folder);
    return 0;
  });
}

int tslb_store_promote(tslb_store_t *store, const tslb_log_position_t *position, tslb_error_t *error) {
  return guarded_in(store, error, -1, [&] {
    store->promote(*position);
    return 0;
  });
}

void tslb_store_begin_reading(tslb_store_t *store) {
  store->begin_reading();
}

void tslb_store_end_reading(tslb_store_t *store) {
  store->end_reading();
}

// ---- Pools ---------------------------------------------------------------------------------------------------------

int tslb_store_pool_room(tslb_store_t *store, uint32_t array, tslb_pool_room_t *room) {
  if (!is_pool_of(*store, array) || store->room(array) == nullptr) return -1;
  *room = store->room(array)->room();
  return 0;
}
