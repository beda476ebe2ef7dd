// Checks of an array that is being read or stands in memory.
#ifndef ARRAY_CHECK_INTERNAL_H
#define ARRAY_CHECK_INTERNAL_H

#include <stdarg.h>
#include <stddef.h>

#include <tslb/array_check.h>
#include <tslb/tslb_dynarr.h>
#include "array_rules.h"

// The one line that says why something was refused.
class refusal_t {
 public:
  refusal_t(char *text, size_t size) : text_(text), size_(size) {
    if (size_ != 0) text_[0] = '\0';
  }
  void add(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void add_values(const char *format, va_list values);

 private:
  char *text_;
  size_t size_;
  size_t used_ = 0;
};

// Where positions of an array's flat image lie, for the refusal.
class image_places_t {
 public:
  // As in "byte 92".
  virtual void tell_place(uint64_t pos, refusal_t *refusal) const = 0;

 protected:
  ~image_places_t() = default;
};

// Those of an array in memory.
class memory_places_t final : public image_places_t {
 public:
  void tell_place(uint64_t pos, refusal_t *refusal) const override;
};

// Checks an image with the rules, and refuses it at the first fault.
class image_check_t final : private rule_sink_t, private slot_source_t {
 public:
  image_check_t(const image_places_t *places, refusal_t *refusal) : places_(places), refusal_(refusal), rules_(this) {}

  // The first part of the headers, which says where the others stand.
  bool start_is_sound(const DynHdr_t &hdr) { return rules_.check_start(hdr); }
  // All of them.
  bool headers_are_sound(const char *headers, uint64_t max_block_bytes) {
    return rules_.check_headers(headers, max_block_bytes);
  }
  // Compares the records' layout with the options of the loaders; after the headers.
  bool records_are_expected(int16_t rec_version, uint32_t record_size);
  // kind ARRAY_LOAD_*; after the headers.
  bool pool_is_sound(uint8_t kind, char mem_type) { return rules_.check_pool(kind, mem_type == MPOOL_TYPE_DRAM_TMP); }
  // Of an array with these headers, whose slots all have memory: nodes, lists, counters of memory slots.
  bool slots_are_sound(DynArrHandle_t *array);
  // The chunks of all memory slots; after the slots.
  bool chunks_are_sound();

  // False, and the refusal written.
  bool refuse_at(uint64_t pos, const char *format, ...) __attribute__((format(printf, 3, 4)));

  const DynHdr_t &hdr() const { return rules_.hdr(); }
  const image_shape_t &shape() const { return rules_.shape(); }
  uint32_t record_size() const { return static_cast<uint32_t>(shape().record_bytes); }
  // Of the current slot of a sound pool, from its start, what the cursor has reached; 0 if it is not the last one.
  uint64_t last_slot_bytes() const { return rules_.last_slot_bytes(); }
  uint64_t arr_hdr_at() const { return rules_.arr_hdr_at(); }

 private:
  bool violated(tslb_rule_t rule, uint64_t pos, const uint64_t *values) override;
  void no_memory(uint32_t n_slots) override;
  nodes_t nodes_of(uint32_t idx) override;
  counters_t counters_of(uint32_t idx) override;
  char *payload_of(uint32_t idx) const { return static_cast<char *>(tslb_da_get_ptr(array_, idx)); }

  const image_places_t *const places_;
  refusal_t *const refusal_;
  array_rules_t rules_;
  DynArrHandle_t *array_ = nullptr;  // while its slots are looked at
};

#endif
