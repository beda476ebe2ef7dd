// Makes the lists of an array from the statuses of its slots.
#include <tslb/array_rebuild.h>

#include <stdlib.h>

#include <algorithm>
#include <memory>

#include <tslb/tslb_dynarr.h>

namespace {

struct free_t {
  void operator()(uint32_t *indices) const { free(indices); }
};

class rebuild_t {
 public:
  explicit rebuild_t(DynArrHandle_t *array)
      : array_(array),
        n_used_(tslb_da_get_size(array)),
        has_inactive_list_((array->daflag & TSLB_DA_DAFLAG_INLL) != 0),
        lists_(static_cast<DynArrLLI_t *>(tslb_da_get_lli(array))) {}

  bool run() {
    inactive_.reset(static_cast<uint32_t *>(malloc((size_t{n_used_} + 1) * sizeof(uint32_t))));
    if (inactive_ == nullptr) return false;
    for (uint32_t idx = 0; idx < n_used_; ++idx)
      if (tslb_da_get_ptr(array_, idx) == nullptr) return false;
    lists_->free_head = lists_->free_tail = lists_->inact_head = lists_->inact_tail = TSLB_DA_NIL_IDX;
    lists_->n_free = lists_->n_inact = 0;
    for (uint32_t idx = 0; idx < n_used_; ++idx) take_slot(idx);
    std::sort(inactive_.get(), inactive_.get() + n_inactive_, [this](uint32_t a, uint32_t b) {
      const uint32_t time_a = back(a)->ts, time_b = back(b)->ts;
      return time_a != time_b ? time_a < time_b : a < b;
    });
    for (uint32_t i = 0; i < n_inactive_; ++i) append_inactive(inactive_.get()[i]);
    return true;
  }

 private:
  node_fw *forward(uint32_t idx) const {
    return reinterpret_cast<node_fw *>(static_cast<char *>(tslb_da_get_ptr(array_, idx)) - sizeof(node_fw));
  }
  node_bw *back(uint32_t idx) const {
    return reinterpret_cast<node_bw *>(static_cast<char *>(tslb_da_get_ptr(array_, idx)) +
                                       tslb_da_get_record_size(array_));
  }

  void take_slot(uint32_t idx) {
    node_fw *const node = forward(idx);
    node->next = TSLB_DA_NIL_IDX;
    if (has_inactive_list_) back(idx)->prev = TSLB_DA_NIL_IDX;
    if (node->status == TSLB_DA_SLOT_FREE)
      append_free(idx);
    else if (node->status == TSLB_DA_SLOT_INACTIVE && has_inactive_list_)
      inactive_.get()[n_inactive_++] = idx;
  }

  void append_free(uint32_t idx) {
    if (lists_->free_tail == TSLB_DA_NIL_IDX)
      lists_->free_head = idx;
    else
      forward(lists_->free_tail)->next = idx;
    lists_->free_tail = idx;
    ++lists_->n_free;
  }

  void append_inactive(uint32_t idx) {
    if (lists_->inact_tail == TSLB_DA_NIL_IDX) {
      lists_->inact_head = idx;
    } else {
      forward(lists_->inact_tail)->next = idx;
      back(idx)->prev = lists_->inact_tail;
    }
    lists_->inact_tail = idx;
    ++lists_->n_inact;
  }

  DynArrHandle_t *const array_;
  const uint32_t n_used_;
  const bool has_inactive_list_;
  DynArrLLI_t *const lists_;
  std::unique_ptr<uint32_t, free_t> inactive_;
  uint32_t n_inactive_ = 0;
};

}  // namespace

int array_rebuild_lists(DynamicArray_t array) {
  if ((array->daflag & (TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL)) == 0) return 0;
  return rebuild_t(array).run() ? 0 : -1;
}
