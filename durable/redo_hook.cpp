// The host's redo symbols: each record of the library becomes a range of the calling thread's batch.
#include <tslb/tslb_rd_api.h>

#include <algorithm>
#include <cstddef>
#include <shared_mutex>
#include <vector>

#include "store.h"

RedoHandler_t *g_redo_handle = nullptr;

namespace tslb_durable {
namespace {

struct Registry {
  std::shared_mutex mutex;
  std::vector<tslb_store_t *> stores;
};

Registry &registry() {
  static Registry *const all = new Registry;  // never destroyed: stores can end after static objects
  return *all;
}

thread_local std::vector<tslb_batch_t *> open_batches;
thread_local bool applies_group = false;

// The library passes the name that is in the handle.
const DynArrHandle_t *handle_of(const char *ctx_name) {
  return reinterpret_cast<const DynArrHandle_t *>(ctx_name - offsetof(DynArrHandle_t, ctx_name));
}

void report_outside_change(const DynArrHandle_t *array) {
  if (applies_group) return;
  std::shared_lock lock(registry().mutex, std::defer_lock);
  if (forks_of_process() == 0)
    lock.lock();
  else if (!lock.try_lock())
    return;  // a thread of the parent process had it at the fork
  for (tslb_store_t *const store : registry().stores)
    if (store->declaration_of(array) < store->n_arrays()) store->changed_outside_of_batch(array);
}

// Adds what an operation on a slot's lists changed. The library reports the forward node alone. It does not report the
// back node of a freed slot, the gatekeeper word, and that it cleared the payload of a slot that was used before.
void add_node(tslb_batch_t &batch, uint32_t declaration, uint32_t idx, const void *node) {
  const LoggedArray &array = batch.store->logged(declaration);
  const Geometry &geometry = array.geometry();
  // The library reports a freed slot after it has released the lock, so another thread can be taking it. Its own record
  // then names the rest.
  const uint32_t status = __atomic_load_n(static_cast<const uint32_t *>(node), __ATOMIC_RELAXED);
  if (status == TSLB_DA_SLOT_ACTIVE && idx < array.n_logged())
    return batch.add({declaration, idx, 0, geometry.slot_bytes});
  batch.add({declaration, idx, 0, geometry.shift + static_cast<uint32_t>(sizeof(uint32_t))});
  const uint32_t back_at = geometry.shift + geometry.record_bytes;
  if (back_at < geometry.slot_bytes) batch.add({declaration, idx, back_at, geometry.slot_bytes - back_at});
}

// The headers of all arrays are compared at the end of each group, so records of headers and growth need no range.
void add_record(tslb_batch_t &batch, uint32_t declaration, char rec_type, uint64_t position, const void *data,
                uint32_t bytes) {
  const Geometry &geometry = batch.store->geometry(declaration);
  if (rec_type == TSLB_REDO_GROWTH || position < geometry.header_bytes || bytes == 0) return;
  const auto idx = static_cast<uint32_t>((position - geometry.header_bytes) / geometry.slot_bytes);
  const auto offset = static_cast<uint32_t>((position - geometry.header_bytes) % geometry.slot_bytes);
  if (offset == 0 && bytes == TSLB_NODE_BYTES && geometry.shift != 0)
    add_node(batch, declaration, idx, data);
  else
    batch.add({declaration, idx, offset, bytes});
}

}  // namespace

void register_store(tslb_store_t *store) {
  const std::unique_lock lock(registry().mutex);
  registry().stores.push_back(store);
  // The library only compares the handle with null, and never reads the structure. It does so without a lock, perhaps for
  // another store on another thread, so the handle is written only for the first store.
  if (g_redo_handle == nullptr) g_redo_handle = reinterpret_cast<RedoHandler_t *>(&registry());
}

void unregister_store(tslb_store_t *store) {
  const std::unique_lock lock(registry().mutex);
  std::erase(registry().stores, store);
  if (registry().stores.empty()) g_redo_handle = nullptr;
}

AppliesGroup::AppliesGroup() {
  applies_group = true;
}

AppliesGroup::~AppliesGroup() {
  applies_group = false;
}

void add_open_batch(tslb_batch_t *batch) {
  open_batches.push_back(batch);
}

void remove_open_batch(const tslb_batch_t *batch) {
  std::erase(open_batches, batch);
}

tslb_batch_t *open_batch_of(const tslb_store_t *store) {
  const auto found = std::find_if(open_batches.begin(), open_batches.end(),
                                  [store](const tslb_batch_t *batch) { return batch->store == store; });
  return found == open_batches.end() ? nullptr : *found;
}

}  // namespace tslb_durable

int tslb_redo_log_ex(uint64_t, char rec_type, char *ctx_name, uint32_t, uint64_t data_off, uint32_t, void *data_ptr,
                     unsigned int data_sz) {
  using namespace tslb_durable;
  const DynArrHandle_t *const array = handle_of(ctx_name);
  for (tslb_batch_t *const batch : open_batches) {
    const uint32_t declaration = batch->store->declaration_of(array);
    if (declaration == batch->store->n_arrays()) continue;
    add_record(*batch, declaration, rec_type, data_off, data_ptr, data_sz);
    return 0;
  }
  report_outside_change(array);
  return 0;
}
