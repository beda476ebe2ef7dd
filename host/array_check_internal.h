// What is checked of an array, whether it is being read or stands in memory: its headers, a pool's header, its lists.
#ifndef ARRAY_CHECK_INTERNAL_H
#define ARRAY_CHECK_INTERNAL_H

#include <stdarg.h>
#include <stddef.h>

#include "array_check.h"
#include "tslb_dynarr.h"

constexpr uint32_t NO_SLOT = TSLB_DA_NIL_IDX;
constexpr uint32_t SLOTS_PER_BLOCK = 16;
constexpr uint64_t IDS_BEYOND_DIRECT = 286331136;  // 16^2 + 16^3 + ... + 16^7: what six levels of tables hold

// The one line that tells why something was refused.
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

// Sizes that follow from an array's headers, in bytes and slots.
struct image_shape_t {
  uint64_t header_bytes;  // ahead of slot 0
  uint64_t slot_bytes;    // nodes included
  uint32_t shift;         // of the record in its slot
  uint32_t n_direct;
  uint32_t n_used;
  uint8_t daflag;
};

class image_check_t {
 public:
  image_check_t(const image_places_t *places, refusal_t *refusal) : places_(places), refusal_(refusal) {}

  // The first part of the headers, which says where the others stand.
  bool start_is_sound(const DynHdr_t &hdr);
  // All of them. They are read here, and used until the end of the checks.
  bool headers_are_sound(const char *headers, uint64_t max_block_bytes);
  // Compares the records' layout with the options of the loaders; after the headers.
  bool records_are_expected(int16_t rec_version, uint32_t record_size);
  // kind ARRAY_LOAD_*; after the headers.
  bool pool_is_sound(uint8_t kind, char mem_type);
  // Of an array with these headers, whose slots all have memory.
  bool lists_are_sound(DynArrHandle_t *array);

  // False, and the refusal told.
  bool refuse_at(uint64_t pos, const char *format, ...) __attribute__((format(printf, 3, 4)));

  const DynHdr_t &hdr() const { return hdr_; }
  const image_shape_t &shape() const { return shape_; }
  uint32_t record_size() const { return arr_hdr_.record_size; }
  // Of the current slot of a sound pool, from its start, what the cursor has reached; 0 if it is not the last one.
  uint64_t last_slot_bytes() const { return last_slot_bytes_; }
  uint64_t lli_at() const { return sizeof(DynHdr_t) + hdr_.hdr_size; }
  uint64_t arr_hdr_at() const { return lli_at() + hdr_.lli_sz; }

 private:
  // One of the two lists: its roots and where each stands in the image, and what is true of its members.
  struct list_t {
    const char *name;
    uint32_t head, tail, count;
    uint64_t head_at, tail_at, count_at;
    uint32_t status;
    bool has_prev;
  };

  bool sizes_are_sound(uint64_t max_block_bytes);
  bool cursor_is_sound(uint64_t cursor, uint32_t mslot_sz);
  bool list_is_sound(const list_t &list);
  bool member_is_sound(const list_t &list, uint32_t idx, uint32_t before);
  bool all_are_listed(const list_t &free_list, const list_t &inactive_list);

  uint64_t slot_at(uint32_t idx) const { return shape_.header_bytes + idx * shape_.slot_bytes; }
  const node_fw *fw_of(uint32_t idx) const {
    return reinterpret_cast<const node_fw *>(payload_of(idx) - sizeof(node_fw));
  }
  const node_bw *bw_of(uint32_t idx) const {
    return reinterpret_cast<const node_bw *>(payload_of(idx) + arr_hdr_.record_size);
  }
  char *payload_of(uint32_t idx) const { return static_cast<char *>(tslb_da_get_ptr(array_, idx)); }

  const image_places_t *const places_;
  refusal_t *const refusal_;
  const char *headers_ = nullptr;
  DynHdr_t hdr_ = {};
  DynArrLLI_t lli_ = {};
  struct {
    uint32_t n_alloc, n_used, n_direct, record_size;
  } arr_hdr_ = {};
  image_shape_t shape_ = {};
  uint64_t last_slot_bytes_ = 0;
  DynArrHandle_t *array_ = nullptr;  // while its lists are looked at
};

#endif
