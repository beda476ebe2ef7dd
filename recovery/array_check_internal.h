// Checks of an array in memory, and of an image while a loader reads it.
#ifndef ARRAY_CHECK_INTERNAL_H
#define ARRAY_CHECK_INTERNAL_H

#include <stdarg.h>
#include <stddef.h>

#include <tslb/array_check.h>
#include <tslb/tslb_dynarr.h>
#include "array_rules.h"

// Builds the line that reports why an array or a record was refused.
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

// Describes positions of the flat image in a refusal.
class image_places_t {
 public:
  // Appends a place such as "byte 92".
  virtual void add_place(uint64_t pos, refusal_t *refusal) const = 0;

 protected:
  ~image_places_t() = default;
};

// Positions of an array in memory.
class memory_places_t final : public image_places_t {
 public:
  void add_place(uint64_t pos, refusal_t *refusal) const override;
};

// Checks an image against the rules. The first fault ends the check and becomes the refusal.
class image_check_t final : private rule_sink_t, private slot_source_t {
 public:
  image_check_t(const image_places_t *places, refusal_t *refusal) : places_(places), refusal_(refusal), rules_(this) {}

  // Checks DynHdr_t, which gives the positions of the other headers.
  bool start_is_sound(const DynHdr_t &hdr) { return rules_.check_start(hdr); }
  // Checks all headers.
  bool headers_are_sound(const char *headers, uint64_t max_block_bytes) {
    return rules_.check_headers(headers, max_block_bytes);
  }
  // Compares the layout of the records with the options of the loaders. Call it after headers_are_sound.
  bool records_are_expected(int16_t rec_version, uint32_t record_size);
  // Checks a pool's header. kind is ARRAY_LOAD_*. Call it after headers_are_sound.
  bool pool_is_sound(uint8_t kind, char mem_type) { return rules_.check_pool(kind, mem_type == MPOOL_TYPE_DRAM_TMP); }
  // Checks nodes, lists and counters of memory slots. Every slot of `array` has memory.
  bool slots_are_sound(DynArrHandle_t *array);
  // Checks the chunks of all memory slots. Call it after slots_are_sound.
  bool chunks_are_sound();

  // Writes the refusal. Returns false.
  bool refuse_at(uint64_t pos, const char *format, ...) __attribute__((format(printf, 3, 4)));

  const DynHdr_t &hdr() const { return rules_.hdr(); }
  const image_shape_t &shape() const { return rules_.shape(); }
  uint32_t record_size() const { return static_cast<uint32_t>(shape().record_bytes); }
  // Bytes from the start of a pool's last slot to the cursor. 0 if the last slot is not the current one.
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
  DynArrHandle_t *array_ = nullptr;  // set while its slots are checked
};

#endif
