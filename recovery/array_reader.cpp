// Loads an image from any source: reads and checks the headers, creates an array of that geometry, fills its slots in
// order, and checks slots and lists.
#include "array_reader.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include <tslb/array_check.h>
#include <tslb/array_rebuild.h>
#include <tslb/tslb_dynarr.h>

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

struct array_release_t {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
struct free_t {
  void operator()(char *bytes) const { free(bytes); }
};

class reader_t {
 public:
  reader_t(image_source_t *source, const array_load_options_t *options, refusal_t *refusal)
      : source_(source), options_(options), refusal_(refusal), check_(source, refusal) {}

  DynamicArray_t load() {
    const bool loaded =
        options_are_sound() && read_headers() && check_.headers_are_sound(headers_.get(), options_->max_block_bytes) &&
        check_.records_are_expected(options_->rec_version, options_->record_size) &&
        check_.pool_is_sound(kind(), options_->mem_type) && source_->expect(check_.shape(), refusal_) && create() &&
        fill() && (rebuilds_lists() ? lists_are_rebuilt() : check_.slots_are_sound(array_.get()));
    return loaded ? array_.release() : nullptr;
  }

 private:
  using array_t = std::unique_ptr<DynArrHandle_t, array_release_t>;

  uint8_t kind() const { return static_cast<uint8_t>(options_->kind & ~ARRAY_LOAD_REBUILDS_LISTS); }
  bool rebuilds_lists() const { return (options_->kind & ARRAY_LOAD_REBUILDS_LISTS) != 0; }
  bool options_are_sound();
  bool read_headers();
  uint32_t direct_slots() const;
  bool create();
  bool fill();
  bool fill_slot(uint32_t idx, char *slot);
  void complete_cut_slot(char *slot);
  void forget_lists();
  bool lists_are_rebuilt();
  bool read_part(void *to, size_t bytes, const char *what);

  image_source_t *const source_;
  const array_load_options_t *const options_;
  refusal_t *const refusal_;
  image_check_t check_;
  uint64_t pos_ = 0;
  std::unique_ptr<char, free_t> headers_;  // the stored bytes
  array_t array_;
};

bool reader_t::read_part(void *to, size_t bytes, const char *what) {
  const ssize_t got = source_->read(to, bytes, refusal_);
  if (got < 0) return false;
  pos_ += static_cast<uint64_t>(got);
  if (static_cast<size_t>(got) == bytes) return true;
  return check_.refuse_at(pos_, "ends %zd bytes into %s of %zu", got, what, bytes);
}

bool reader_t::options_are_sound() {
  if (options_->mem_type == MPOOL_TYPE_SHM || options_->mem_type == MPOOL_TYPE_PMEM) {
    refusal_->add("option mem_type %d is not in process memory", options_->mem_type);
    return false;
  }
  if (kind() > ARRAY_LOAD_POOL_BY_SIZE) {
    refusal_->add("option kind %u is unknown", options_->kind);
    return false;
  }
  if (options_->rec_version < ARRAY_LOAD_ANY_VERSION || options_->rec_version > UINT8_MAX) {
    refusal_->add("option rec_version %d is out of range", options_->rec_version);
    return false;
  }
  return true;
}

// ---- Headers -------------------------------------------------------------------------------------------------------

bool reader_t::read_headers() {
  DynHdr_t hdr = {};  // a source can compare the bytes before it writes them
  if (!read_part(&hdr, sizeof(hdr), "DynHdr_t") || !check_.start_is_sound(hdr)) return false;
  const uint64_t header_bytes = check_.shape().header_bytes;
  headers_.reset(static_cast<char *>(calloc(1, header_bytes)));
  if (headers_ == nullptr) return check_.refuse_at(pos_, "no memory for the headers");
  memcpy(headers_.get(), &hdr, sizeof(hdr));
  if (!read_part(headers_.get() + sizeof(hdr), header_bytes - sizeof(hdr), "headers")) return false;
  if (rebuilds_lists() && hdr.lli_sz == sizeof(DynArrLLI_t)) forget_lists();
  return true;
}

// Empties the stored lists, whose roots and counters the checks of the headers would refuse.
void reader_t::forget_lists() {
  char *const roots = headers_.get() + sizeof(DynHdr_t) + check_.hdr().hdr_size;
  DynArrLLI_t lists;
  memcpy(&lists, roots, sizeof(lists));
  lists.free_head = lists.free_tail = lists.inact_head = lists.inact_tail = TSLB_DA_NIL_IDX;
  lists.n_free = lists.n_inact = 0;
  memcpy(roots, &lists, sizeof(lists));
}

// The rules are checked from the start, because the headers have changed.
bool reader_t::lists_are_rebuilt() {
  if (array_rebuild_lists(array_.get()) != 0) return check_.refuse_at(pos_, "no memory for the lists");
  char why[256];
  if (array_check(array_.get(), kind(), why, sizeof(why)) == 0) return true;
  refusal_->add("%s", why);
  return false;
}

// ---- Slots ---------------------------------------------------------------------------------------------------------

uint32_t reader_t::direct_slots() const {
  switch (source_->places()) {
    case slot_places_t::IN_BLOCK0:
      return check_.shape().n_used;
    case slot_places_t::IN_DATA_BLOCKS:
      return 0;
    default:
      return check_.shape().n_direct;
  }
}

bool reader_t::create() {
  array_.reset(get_default_dyn_array_ex_ex(check_.hdr().hdr_size, static_cast<int32_t>(check_.record_size()),
                                           static_cast<int32_t>(direct_slots()), options_->mem_type, options_->tbl_id,
                                           options_->ctx_name, check_.shape().daflag, check_.hdr().rec_version));
  if (array_ == nullptr) return check_.refuse_at(pos_, "no memory for block 0");
  // Copies the headers before DynArrHdr_t. The counts in DynArrHdr_t are the new array's own.
  memcpy(array_->arr_base, headers_.get(), check_.arr_hdr_at());
  return true;
}

bool reader_t::fill() {
  for (uint32_t idx = 0; idx < check_.shape().n_used; ++idx) {
    void *payload;
    get_dyn_arr_new_record_id_ex(array_.get(), &payload, check_.shape().daflag);
    if (payload == nullptr) return check_.refuse_at(pos_, "no memory for slot %u", idx);
    if (!fill_slot(idx, static_cast<char *>(payload) - check_.shape().shift)) return false;
  }
  const int ends = source_->ends_here(refusal_);
  if (ends == 0) return check_.refuse_at(pos_, "more bytes after the last slot");
  return ends > 0;
}

bool reader_t::fill_slot(uint32_t idx, char *slot) {
  const ssize_t got = source_->read(slot, check_.shape().slot_bytes, refusal_);
  if (got < 0) return false;
  pos_ += static_cast<uint64_t>(got);
  if (static_cast<uint64_t>(got) == check_.shape().slot_bytes) return true;
  // The last slot of a pool can be cut at the cursor.
  const uint64_t cut_bytes = source_->may_be_cut() ? check_.last_slot_bytes() : 0;
  if (cut_bytes == 0 || idx != check_.shape().n_used - 1 || static_cast<uint64_t>(got) != cut_bytes)
    return check_.refuse_at(pos_, "ends %zd bytes into slot %u of %llu bytes", got, idx,
                            static_cast<unsigned long long>(check_.shape().slot_bytes));
  complete_cut_slot(slot);
  return true;
}

// The missing bytes are zero, because the array is new. A zero in the back node would name slot 0, so it is set to
// none.
void reader_t::complete_cut_slot(char *slot) {
  if ((check_.shape().daflag & TSLB_DA_DAFLAG_INLL) == 0) return;
  const node_bw none = {TSLB_DA_NIL_IDX, 0};
  memcpy(slot + check_.shape().slot_bytes - sizeof(none), &none, sizeof(none));
}

}  // namespace

DynamicArray_t load_image(image_source_t *source, const array_load_options_t *options, refusal_t *refusal) {
  return reader_t(source, options, refusal).load();
}
