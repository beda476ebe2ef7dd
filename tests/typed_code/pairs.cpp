// Pairs of functions: c_NAME calls the C functions, typed_NAME does the same through the typed layer. compare.py checks
// that both are the same instructions.
#include <tslb/durable.hpp>

struct reading_t {
  uint32_t gatekeeper;
  float celsius;
  uint32_t place[2];
};
using slots_t = tslb::slot_view<reading_t, tslb::lists::with_inactive>;
using records_t = tslb::record_view<reading_t>;
using bits_t = tslb::pool_view<tslb::kind::bit_vector>;
using wide_t = tslb::pool_view<tslb::kind::wide, tslb::headers::none>;

extern "C" {

float *c_take(dynarr_t *array, uint32_t *idx) {
  uint32_t taken;
  auto *const record = static_cast<reading_t *>(tslb_da_get_newptr(array, &taken));
  *idx = taken;
  return record != nullptr ? &record->celsius : nullptr;
}
float *typed_take(slots_t array, uint32_t *idx) {
  const auto taken = array.take();
  *idx = taken.idx;
  return taken ? &taken->celsius : nullptr;
}

float c_find(dynarr_t *array, uint32_t idx) {
  return static_cast<reading_t *>(tslb_da_get_ptr(array, idx))->celsius;
}
float typed_find(slots_t array, uint32_t idx) {
  return array[idx].celsius;
}

int c_free(dynarr_t *array, uint32_t idx) {
  return tslb_da_free_idx(array, idx) == 1;
}
int typed_free(slots_t array, uint32_t idx) {
  return array.free(idx) == tslb::change::refused;
}

int c_is_active(dynarr_t *array, uint32_t idx) {
  return tslb_da_slot_status(array, idx) == TSLB_DA_SLOT_ACTIVE;
}
int typed_is_active(slots_t array, uint32_t idx) {
  return array.status(idx) == tslb::slot_status::active;
}

float *c_record(DynamicArray_t array, uint32_t *id) {
  void *record;
  *id = static_cast<uint32_t>(get_dyn_arr_new_record_id_ex(array, &record, 0));
  return &static_cast<reading_t *>(record)->celsius;
}
float *typed_record(records_t array, uint32_t *id) {
  const auto added = array.add();
  *id = added.idx;
  return &added->celsius;
}

void *c_chunk(dynmem_t *pool, maddr_t *address) {
  maddr_t taken;
  void *const chunk = tslb_dynmem_get_mchunk(pool, &taken, 40, srcaddr_t{});
  if (chunk == nullptr) return nullptr;
  *address = taken;
  return static_cast<char *>(chunk) + TSLB_COMPAT_BYTES;
}
void *typed_chunk(bits_t pool, bits_t::ref *address) {
  const auto taken = pool.take(40);
  if (!taken) return nullptr;
  *address = taken.ref;
  return taken.data.data();
}

void *c_resolve(dynmem_t *pool, const maddr_t *address) {
  return tslb_dynmem_get_maddr2ptr(pool, *address);
}
void *typed_resolve(bits_t pool, const bits_t::ref *address) {
  return pool.find(*address);
}

void *c_resolve_64(dynmem_t *pool, const maddr64_t *address) {
  return tslb_dynmem_get_maddr2ptr64(pool, *address);
}
void *typed_resolve_64(wide_t pool, const wide_t::ref *address) {
  return pool.find(*address);
}

void c_erase(dynmem_t *pool, const maddr_t *address) {
  tslb_dynmem_del_mchunk(pool, *address);
}
void typed_erase(bits_t pool, const bits_t::ref *address) {
  pool.erase(*address);
}

void c_log_member(tslb_batch_t *batch, uint32_t idx) {
  tslb_batch_log_bytes(batch, 3, idx, offsetof(reading_t, celsius), sizeof(float));
}
void typed_log_member(tslb_batch_t *open, uint32_t idx) {
  // Its destructor is not part of the comparison.
  union holder {
    explicit holder(tslb_batch_t *native) : batch(native) {}
    ~holder() {}
    tslb::batch batch;
  } held(open);
  held.batch.log(tslb::array_key<slots_t>{3}, idx, &reading_t::celsius);
}
}
