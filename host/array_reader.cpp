// The reading that all sources share, front to back: headers and what they contradict, a new array of that geometry,
// slot after slot into its place, and then a walk over both lists.
#include "array_reader.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "tslb_dynarr.h"
#include "tslb_dynmem.h"

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

ssize_t read_fully(int fd, void *to, size_t bytes) {
  size_t filled = 0;
  while (filled < bytes) {
    const ssize_t got = ::read(fd, static_cast<char *>(to) + filled, bytes - filled);
    if (got == 0) break;
    if (got > 0)
      filled += static_cast<size_t>(got);
    else if (errno != EINTR)
      return -1;
  }
  return static_cast<ssize_t>(filled);
}

namespace {

constexpr uint8_t LIB_VERSION = 2;
constexpr uint32_t SLOTS_PER_BLOCK = 16;
constexpr uint64_t IDS_BEYOND_DIRECT = 286331136;  // 16^2 + 16^3 + ... + 16^7: what six levels of tables hold
constexpr uint32_t NO_SLOT = TSLB_DA_NIL_IDX;
constexpr uint32_t RING_SLOTS = 254;  // of a bit-vector pool of MPOOL_TYPE_DRAM_TMP

struct array_release_t {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
struct free_t {
  void operator()(char *bytes) const { free(bytes); }
};

class reader_t {
 public:
  reader_t(image_source_t *source, const array_load_options_t *options, refusal_t *refusal)
      : source_(source), options_(options), refusal_(refusal) {}

  DynamicArray_t load() {
    const bool loaded = options_are_sound() && read_headers() && headers_are_sound() && pool_is_sound() &&
                        source_->expect(shape_, refusal_) && create() && fill() && lists_are_sound();
    return loaded ? array_.release() : nullptr;
  }

 private:
  using array_t = std::unique_ptr<DynArrHandle_t, array_release_t>;

  // One of the two lists: its roots and where each stands in the image, and what is true of its members.
  struct list_t {
    const char *name;
    uint32_t head, tail, count;
    uint64_t head_at, tail_at, count_at;
    uint32_t status;
    bool has_prev;
  };

  bool options_are_sound();
  bool read_headers();
  bool headers_are_sound();
  bool sizes_are_sound();
  bool pool_is_sound();
  bool cursor_is_sound(uint64_t cursor, uint32_t mslot_sz);
  bool create();
  bool fill();
  bool fill_slot(uint32_t idx, char *slot);
  void mend_cut_slot(char *slot);
  bool lists_are_sound();
  bool list_is_sound(const list_t &list);
  bool member_is_sound(const list_t &list, uint32_t idx, uint32_t before);
  bool all_are_listed(const list_t &free_list, const list_t &inactive_list);

  bool take(void *to, size_t bytes, const char *what);
  bool refuse_at(uint64_t pos, const char *format, ...) __attribute__((format(printf, 3, 4)));
  uint64_t lli_at() const { return sizeof(DynHdr_t) + hdr_.hdr_size; }
  uint64_t arr_hdr_at() const { return lli_at() + hdr_.lli_sz; }
  uint64_t slot_at(uint32_t idx) const { return shape_.header_bytes + idx * shape_.slot_bytes; }
  const node_fw *fw_of(uint32_t idx) const {
    return reinterpret_cast<const node_fw *>(payload_of(idx) - sizeof(node_fw));
  }
  const node_bw *bw_of(uint32_t idx) const {
    return reinterpret_cast<const node_bw *>(payload_of(idx) + arr_hdr_.record_size);
  }
  char *payload_of(uint32_t idx) const { return static_cast<char *>(tslb_da_get_ptr(array_.get(), idx)); }

  image_source_t *const source_;
  const array_load_options_t *const options_;
  refusal_t *const refusal_;
  uint64_t pos_ = 0;
  std::unique_ptr<char, free_t> headers_;  // as they were written
  DynHdr_t hdr_ = {};
  DynArrLLI_t lli_ = {};
  struct {
    uint32_t n_alloc, n_used, n_direct, record_size;
  } arr_hdr_ = {};
  image_shape_t shape_ = {};
  uint64_t cut_slot_bytes_ = 0;  // what is there of a pool's last slot if it was cut; 0 if it cannot have been
  array_t array_;
};

bool reader_t::refuse_at(uint64_t pos, const char *format, ...) {
  source_->tell_place(pos, refusal_);
  refusal_->add(": ");
  va_list values;
  va_start(values, format);
  refusal_->add_values(format, values);
  va_end(values);
  return false;
}

bool reader_t::take(void *to, size_t bytes, const char *what) {
  const ssize_t got = source_->read(to, bytes, refusal_);
  if (got < 0) return false;
  pos_ += static_cast<uint64_t>(got);
  if (static_cast<size_t>(got) == bytes) return true;
  return refuse_at(pos_, "ends %zd bytes into %s of %zu", got, what, bytes);
}

bool reader_t::options_are_sound() {
  if (options_->mem_type == MPOOL_TYPE_SHM || options_->mem_type == MPOOL_TYPE_PMEM) {
    refusal_->add("option mem_type %d is not in process memory", options_->mem_type);
    return false;
  }
  if (options_->kind > ARRAY_LOAD_POOL_BY_SIZE) {
    refusal_->add("option kind %u is not known", options_->kind);
    return false;
  }
  return true;
}

// ---- Headers -------------------------------------------------------------------------------------------------------

bool reader_t::read_headers() {
  if (!take(&hdr_, sizeof(hdr_), "DynHdr_t")) return false;
  // Ahead of all else: with another version or size the rest does not stand where we look.
  if (hdr_.lib_version != LIB_VERSION)
    return refuse_at(offsetof(DynHdr_t, lib_version), "lib_version %u, which is not %u", hdr_.lib_version, LIB_VERSION);
  if (hdr_.lli_sz != 0 && hdr_.lli_sz != sizeof(DynArrLLI_t))
    return refuse_at(offsetof(DynHdr_t, lli_sz), "lli_sz %u, which is neither 0 nor 60", hdr_.lli_sz);

  shape_.header_bytes = sizeof(DynHdr_t) + hdr_.hdr_size + hdr_.lli_sz + sizeof(DynArrHdr_t);
  headers_.reset(static_cast<char *>(malloc(shape_.header_bytes)));
  if (headers_ == nullptr) return refuse_at(pos_, "no memory for the headers");
  memcpy(headers_.get(), &hdr_, sizeof(hdr_));
  if (!take(headers_.get() + sizeof(hdr_), shape_.header_bytes - sizeof(hdr_), "headers")) return false;
  if (hdr_.lli_sz != 0) memcpy(&lli_, headers_.get() + lli_at(), sizeof(lli_));
  static_assert(sizeof(arr_hdr_) == sizeof(DynArrHdr_t), "its fields, without the tail");
  memcpy(&arr_hdr_, headers_.get() + arr_hdr_at(), sizeof(arr_hdr_));
  return true;
}

bool reader_t::headers_are_sound() {
  constexpr uint8_t LIST_FLAGS = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;
  if (hdr_.lli_sz != 0 && (lli_.lltype & LIST_FLAGS) == 0)
    return refuse_at(lli_at() + offsetof(DynArrLLI_t, lltype), "lltype 0x%02x has no list, lli_sz says there is one",
                     lli_.lltype);
  shape_.daflag = lli_.lltype;
  shape_.shift = hdr_.lli_sz != 0 ? sizeof(node_fw) : 0;
  const uint64_t node_bytes = shape_.shift + ((shape_.daflag & TSLB_DA_DAFLAG_INLL) != 0 ? sizeof(node_bw) : 0);
  shape_.slot_bytes = arr_hdr_.record_size + node_bytes;
  shape_.n_direct = arr_hdr_.n_direct;
  shape_.n_used = arr_hdr_.n_used;
  return sizes_are_sound();
}

// What creation would refuse, and what would let a few bytes claim much memory.
bool reader_t::sizes_are_sound() {
  const uint64_t n_used_at = arr_hdr_at() + offsetof(DynArrHdr_t, n_used);
  const uint64_t record_size_at = arr_hdr_at() + offsetof(DynArrHdr_t, record_size);
  if (shape_.n_direct > INT_MAX)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, n_direct), "n_direct %u is beyond what an array can have",
                     shape_.n_direct);
  if (shape_.n_used > shape_.n_direct + IDS_BEYOND_DIRECT)
    return refuse_at(n_used_at, "n_used %u is beyond what an array with n_direct %u can have", shape_.n_used,
                     shape_.n_direct);
  // No number of bytes could vouch for the number of such slots.
  if (shape_.slot_bytes == 0 && shape_.n_used != 0)
    return refuse_at(record_size_at, "record_size 0 with %u slots in use", shape_.n_used);

  const uint64_t limit = options_->max_block_bytes != 0 ? options_->max_block_bytes : UINT64_MAX;
  // No overflow: a slot takes less than 2^33 bytes, and n_direct is below 2^31.
  const uint64_t block0_bytes = shape_.header_bytes + shape_.slot_bytes * shape_.n_direct;
  const uint64_t block_bytes = shape_.slot_bytes * SLOTS_PER_BLOCK;
  if (block_bytes > UINT32_MAX)
    return refuse_at(record_size_at, "record_size %u is beyond what an array can have", arr_hdr_.record_size);
  if (block0_bytes > INT_MAX || block0_bytes > limit)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, n_direct),
                     "n_direct %u with slots of %llu bytes takes more than block 0 may", shape_.n_direct,
                     static_cast<unsigned long long>(shape_.slot_bytes));
  if (shape_.n_used > shape_.n_direct && block_bytes > limit)
    return refuse_at(record_size_at, "record_size %u makes a block of 16 slots larger than it may be",
                     arr_hdr_.record_size);
  return true;
}

bool reader_t::pool_is_sound() {
  const bool fits = hdr_.hdr_size == sizeof(DynMemHdr_t);
  if (options_->kind == ARRAY_LOAD_ANY || (options_->kind == ARRAY_LOAD_POOL_BY_SIZE && !fits)) return true;
  if (!fits) return refuse_at(offsetof(DynHdr_t, hdr_size), "hdr_size %u, a pool has 56", hdr_.hdr_size);

  DynMemHdr_t pool;
  memcpy(&pool, headers_.get() + sizeof(DynHdr_t), sizeof(pool));
  const uint64_t mslot_sz_at = sizeof(DynHdr_t) + offsetof(DynMemHdr_t, mslot_sz);
  if (uint64_t{pool.mslot_sz} + sizeof(MemSlot_t) != arr_hdr_.record_size)
    return refuse_at(mslot_sz_at, "mslot_sz %u does not go with record_size %u", pool.mslot_sz, arr_hdr_.record_size);
  // Every creator rounds up: the counters in a slot are aligned.
  if (pool.mslot_sz % sizeof(uint32_t) != 0)
    return refuse_at(mslot_sz_at, "mslot_sz %u is no multiple of 4", pool.mslot_sz);
  if (options_->mem_type == MPOOL_TYPE_DRAM_TMP && (pool.flag & MPOOL_FLAG_BV) != 0 && shape_.n_used > RING_SLOTS)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, n_used), "n_used %u, and a ring has %u slots", shape_.n_used,
                     RING_SLOTS);
  return cursor_is_sound(pool.cur_slot_addr, pool.mslot_sz);
}

bool reader_t::cursor_is_sound(uint64_t cursor, uint32_t mslot_sz) {
  MemSlotAddr_t at;
  memcpy(&at, &cursor, sizeof(at));
  const uint64_t cursor_at = sizeof(DynHdr_t) + offsetof(DynMemHdr_t, cur_slot_addr);
  if (at.mslot_idx != NO_SLOT && at.mslot_idx >= shape_.n_used)
    return refuse_at(cursor_at, "cur_slot_addr names slot %u of %u", at.mslot_idx, shape_.n_used);
  if (at.byte_off > mslot_sz)
    return refuse_at(cursor_at + offsetof(MemSlotAddr_t, byte_off), "cur_slot_addr stands at byte %u of a slot of %u",
                     at.byte_off, mslot_sz);
  if (at.mslot_idx != NO_SLOT && at.mslot_idx == shape_.n_used - 1 && source_->may_be_cut())
    cut_slot_bytes_ = uint64_t{at.byte_off} + shape_.shift + sizeof(MemSlot_t);
  return true;
}

// ---- Slots ---------------------------------------------------------------------------------------------------------

bool reader_t::create() {
  array_.reset(get_default_dyn_array_ex_ex(hdr_.hdr_size, static_cast<int32_t>(arr_hdr_.record_size),
                                           static_cast<int32_t>(arr_hdr_.n_direct), options_->mem_type,
                                           options_->tbl_id, options_->ctx_name, shape_.daflag, hdr_.rec_version));
  if (array_ == nullptr) return refuse_at(pos_, "no memory for block 0");
  // All that stands ahead of DynArrHdr_t, whose counts are the new array's own.
  memcpy(array_->arr_base, headers_.get(), arr_hdr_at());
  return true;
}

bool reader_t::fill() {
  for (uint32_t idx = 0; idx < shape_.n_used; ++idx) {
    void *payload;
    get_dyn_arr_new_record_id_ex(array_.get(), &payload, shape_.daflag);
    if (payload == nullptr) return refuse_at(pos_, "no memory for slot %u", idx);
    if (!fill_slot(idx, static_cast<char *>(payload) - shape_.shift)) return false;
  }
  const int ends = source_->ends_here(refusal_);
  if (ends == 0) return refuse_at(pos_, "more bytes behind the last slot");
  return ends > 0;
}

bool reader_t::fill_slot(uint32_t idx, char *slot) {
  const ssize_t got = source_->read(slot, shape_.slot_bytes, refusal_);
  if (got < 0) return false;
  pos_ += static_cast<uint64_t>(got);
  if (static_cast<uint64_t>(got) == shape_.slot_bytes) return true;
  if (cut_slot_bytes_ == 0 || idx != shape_.n_used - 1 || static_cast<uint64_t>(got) != cut_slot_bytes_)
    return refuse_at(pos_, "ends %zd bytes into slot %u of %llu bytes", got, idx,
                     static_cast<unsigned long long>(shape_.slot_bytes));
  mend_cut_slot(slot);
  return true;
}

// What was cut off is zero already, being new; but the back node's zero would name slot 0.
void reader_t::mend_cut_slot(char *slot) {
  if ((shape_.daflag & TSLB_DA_DAFLAG_INLL) == 0) return;
  const node_bw none = {TSLB_DA_NIL_IDX, 0};
  memcpy(slot + shape_.slot_bytes - sizeof(none), &none, sizeof(none));
}

// ---- Lists ---------------------------------------------------------------------------------------------------------

bool reader_t::lists_are_sound() {
  if (hdr_.lli_sz == 0) return true;
  const auto at = [this](size_t offset) { return lli_at() + offset; };
  const list_t free_list = {"the free list",
                            lli_.free_head,
                            lli_.free_tail,
                            lli_.n_free,
                            at(offsetof(DynArrLLI_t, free_head)),
                            at(offsetof(DynArrLLI_t, free_tail)),
                            at(offsetof(DynArrLLI_t, n_free)),
                            TSLB_DA_SLOT_FREE,
                            false};
  const list_t inactive_list = {"the inactive list",
                                lli_.inact_head,
                                lli_.inact_tail,
                                lli_.n_inact,
                                at(offsetof(DynArrLLI_t, inact_head)),
                                at(offsetof(DynArrLLI_t, inact_tail)),
                                at(offsetof(DynArrLLI_t, n_inact)),
                                TSLB_DA_SLOT_INACTIVE,
                                true};
  const bool has_inactive = (shape_.daflag & TSLB_DA_DAFLAG_INLL) != 0;
  if (!has_inactive && (lli_.inact_head != NO_SLOT || lli_.inact_tail != NO_SLOT || lli_.n_inact != 0))
    return refuse_at(inactive_list.head_at, "an inactive list where lltype 0x%02x has none", lli_.lltype);
  return list_is_sound(free_list) && (!has_inactive || list_is_sound(inactive_list)) &&
         all_are_listed(free_list, inactive_list);
}

// The count bounds the walk, and n_used the count: links that run in a ring end it too.
bool reader_t::list_is_sound(const list_t &list) {
  if (list.count > shape_.n_used)
    return refuse_at(list.count_at, "%s counts %u slots of %u", list.name, list.count, shape_.n_used);
  uint64_t link_at = list.head_at;
  uint32_t before = NO_SLOT, n_members = 0;
  for (uint32_t idx = list.head; idx != NO_SLOT; idx = fw_of(idx)->next) {
    if (idx >= shape_.n_used) return refuse_at(link_at, "%s names slot %u of %u", list.name, idx, shape_.n_used);
    if (n_members == list.count)
      return refuse_at(list.count_at, "%s counts %u slots and goes on behind them", list.name, list.count);
    if (!member_is_sound(list, idx, before)) return false;
    link_at = slot_at(idx) + offsetof(node_fw, next);
    before = idx;
    ++n_members;
  }
  if (n_members != list.count)
    return refuse_at(list.count_at, "%s counts %u slots and has %u", list.name, list.count, n_members);
  if (before != list.tail)
    return refuse_at(list.tail_at, "tail %u of %s, which ends with %u", list.tail, list.name, before);
  return true;
}

bool reader_t::member_is_sound(const list_t &list, uint32_t idx, uint32_t before) {
  const uint32_t status = fw_of(idx)->status;
  if (status != list.status) return refuse_at(slot_at(idx), "status %u on %s, slot %u", status, list.name, idx);
  if (!list.has_prev) return true;
  const uint32_t prev = bw_of(idx)->prev;
  if (prev != before)
    return refuse_at(slot_at(idx) + shape_.shift + arr_hdr_.record_size,
                     "prev %u of slot %u on %s, where %u comes before it", prev, idx, list.name, before);
  return true;
}

// A slot that claims to be on a list and is not would pull the list apart when it leaves. Members are distinct, so
// counting is enough.
bool reader_t::all_are_listed(const list_t &free_list, const list_t &inactive_list) {
  uint32_t n_free = 0, n_inactive = 0;
  for (uint32_t idx = 0; idx < shape_.n_used; ++idx) {
    const uint32_t status = fw_of(idx)->status;
    n_free += status == TSLB_DA_SLOT_FREE ? 1 : 0;
    n_inactive += status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
  }
  if (n_free != free_list.count)
    return refuse_at(free_list.count_at, "%u slots say that they are free, n_free counts %u", n_free, free_list.count);
  if (n_inactive != inactive_list.count)
    return refuse_at(inactive_list.count_at, "%u slots say that they are inactive, n_inact counts %u", n_inactive,
                     inactive_list.count);
  return true;
}

}  // namespace

DynamicArray_t load_image(image_source_t *source, const array_load_options_t *options, refusal_t *refusal) {
  return reader_t(source, options, refusal).load();
}
