// array_check and pool_check, and the refusals of the loaders.
#include <tslb/array_check.h>

#include <stdio.h>
#include <string.h>

#include <tslb/array_loader.h>
#include <tslb/tslb_dynmem.h>
#include "array_check_internal.h"

void refusal_t::add_values(const char *format, va_list values) {
  if (used_ >= size_) return;
  const int len = vsnprintf(text_ + used_, size_ - used_, format, values);
  if (len > 0) used_ += static_cast<size_t>(len);
}

void refusal_t::add(const char *format, ...) {
  va_list values;
  va_start(values, format);
  add_values(format, values);
  va_end(values);
}

void memory_places_t::add_place(uint64_t pos, refusal_t *refusal) const {
  refusal->add("byte %llu", static_cast<unsigned long long>(pos));
}

bool image_check_t::refuse_at(uint64_t pos, const char *format, ...) {
  places_->add_place(pos, refusal_);
  refusal_->add(": ");
  va_list values;
  va_start(values, format);
  refusal_->add_values(format, values);
  va_end(values);
  return false;
}

// ---- Rules ---------------------------------------------------------------------------------------------------------

// Ignores remarks: the array is usable.
bool image_check_t::violated(tslb_rule_t rule, uint64_t pos, const uint64_t *values) {
  if (!rule_is_fault(rule)) return true;
  char text[256];
  write_rule(rule, values, text, sizeof(text));
  return refuse_at(pos, "%s", text);
}

void image_check_t::no_memory(uint32_t n_slots) {
  refusal_->add("no memory for the marks of %u slots", n_slots);
}

slot_source_t::nodes_t image_check_t::nodes_of(uint32_t idx) {
  const char *const payload = payload_of(idx);
  node_fw fw;
  memcpy(&fw, payload - sizeof(fw), sizeof(fw));
  if (!rules_.has_inactive_list()) return {fw.status, fw.next, TSLB_DA_NIL_IDX};
  node_bw bw;
  memcpy(&bw, payload + record_size(), sizeof(bw));
  return {fw.status, fw.next, bw.prev};
}

slot_source_t::counters_t image_check_t::counters_of(uint32_t idx) {
  counters_t counters;
  static_assert(sizeof(counters) == sizeof(MemSlot_t));
  memcpy(&counters, payload_of(idx), sizeof(counters));
  return counters;
}

bool image_check_t::records_are_expected(int16_t rec_version, uint32_t record_size) {
  if (rec_version != ARRAY_LOAD_ANY_VERSION && hdr().rec_version != rec_version)
    return refuse_at(offsetof(DynHdr_t, rec_version), "rec_version %u, expected %d", hdr().rec_version, rec_version);
  if (record_size != ARRAY_LOAD_ANY_SIZE && shape().record_bytes != record_size)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, record_size), "record_size %u, expected %u",
                     this->record_size(), record_size);
  return true;
}

bool image_check_t::slots_are_sound(DynArrHandle_t *array) {
  array_ = array;
  return rules_.check_nodes(this, shape().n_used) && rules_.check_counters(this, shape().n_used);
}

bool image_check_t::chunks_are_sound() {
  for (uint32_t idx = 0; idx < shape().n_used; ++idx)
    if (!rules_.check_chunks(this, idx, payload_of(idx))) return false;
  return true;
}

// ---- In memory -----------------------------------------------------------------------------------------------------

// The library uses the handle's copies, the checks use the stored headers. They must agree.
static bool handle_agrees(const DynArrHandle_t *array, const image_check_t &check, refusal_t *refusal) {
  const image_shape_t &shape = check.shape();
  if (array->daflag == shape.daflag && array->n_direct == shape.n_direct) return true;
  refusal->add("the headers have lltype 0x%02x and n_direct %u, but the handle has 0x%02x and %u", shape.daflag,
               shape.n_direct, array->daflag, array->n_direct);
  return false;
}

static bool all_have_memory(DynArrHandle_t *array, uint32_t n_used, refusal_t *refusal) {
  for (uint32_t idx = 0; idx < n_used; ++idx) {
    if (tslb_da_get_ptr(array, idx) != nullptr) continue;
    refusal->add("no memory for slot %u", idx);
    return false;
  }
  return true;
}

static int check_array(DynamicArray_t array, uint8_t kind, bool with_chunks, char *error, size_t error_size) {
  refusal_t refusal(error, error_size);
  const memory_places_t places;
  image_check_t check(&places, &refusal);
  const char *const headers = static_cast<const char *>(array->arr_base);
  DynHdr_t hdr;
  memcpy(&hdr, headers, sizeof(hdr));
  const bool is_sound = check.start_is_sound(hdr) && check.headers_are_sound(headers, 0) &&
                        handle_agrees(array, check, &refusal) && check.pool_is_sound(kind, array->mem_type) &&
                        all_have_memory(array, check.shape().n_used, &refusal) && check.slots_are_sound(array) &&
                        (!with_chunks || check.chunks_are_sound());
  return is_sound ? 0 : -1;
}

int array_check(DynamicArray_t array, uint8_t kind, char *error, size_t error_size) {
  return check_array(array, kind, false, error, error_size);
}

int pool_check(DynamicArray_t pool, char *error, size_t error_size) {
  return check_array(pool, ARRAY_LOAD_POOL, true, error, error_size);
}
