// Walks both lists of a slot array that no other thread uses, and reports inconsistencies.
#ifndef TSLB_TESTS_LIST_AUDIT_H
#define TSLB_TESTS_LIST_AUDIT_H

#include "array_support.h"

using indices_t = std::vector<uint32_t>;

struct lists_t {
  indices_t free, inactive;  // from head to tail
};

inline uint32_t status_at(DynArrHandle_t *array, uint32_t idx) {
  return forward_node(tslb_da_get_ptr(array, idx)).status;
}

// Follows the forward links. A walk that leaves the array or does not end is cut and reported.
inline indices_t walk_forward(DynArrHandle_t *array, uint32_t head) {
  indices_t members;
  for (uint32_t idx = head; idx != TSLB_DA_NIL_IDX;) {
    void *const slot = tslb_da_get_ptr(array, idx);
    if (slot == nullptr || members.size() > tslb_da_get_size(array)) {
      ADD_FAILURE() << "a list " << (slot == nullptr ? "leaves the array at " : "has a cycle at ") << idx;
      break;
    }
    members.push_back(idx);
    idx = forward_node(slot).next;
  }
  return members;
}

// Checks that every member has its list's status, that ends and counts match the links, that back links mirror forward
// links, that every free or inactive slot is on its list, and that no other slot has a link.
inline lists_t audit_lists(DynArrHandle_t *array) {
  const DynArrLLI_t &lli = list_roots(array);
  const bool has_inactive = (array->daflag & TSLB_DA_DAFLAG_INLL) != 0;
  lists_t lists = {walk_forward(array, lli.free_head), walk_forward(array, lli.inact_head)};

  const auto expect_root = [](const char *name, const indices_t &members, uint32_t tail, uint32_t count) {
    EXPECT_EQ(count, members.size()) << name << " count";
    EXPECT_EQ(tail, members.empty() ? TSLB_DA_NIL_IDX : members.back()) << name << " tail";
  };
  expect_root("free", lists.free, lli.free_tail, lli.n_free);
  expect_root("inactive", lists.inactive, lli.inact_tail, lli.n_inact);
  EXPECT_EQ(array->spinlock, 0);

  uint32_t before = TSLB_DA_NIL_IDX;
  for (const uint32_t idx : lists.inactive) {
    EXPECT_EQ(backward_node(array, tslb_da_get_ptr(array, idx)).prev, before) << "back link of " << idx;
    EXPECT_EQ(status_at(array, idx), TSLB_DA_SLOT_INACTIVE) << idx << " is on the inactive list";
    before = idx;
  }
  for (const uint32_t idx : lists.free)
    EXPECT_EQ(status_at(array, idx), TSLB_DA_SLOT_FREE) << idx << " is on the free list";

  size_t n_free = 0, n_inactive = 0;
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx) {
    void *const slot = tslb_da_get_ptr(array, idx);
    const uint32_t status = forward_node(slot).status;
    n_free += status == TSLB_DA_SLOT_FREE ? 1 : 0;
    n_inactive += status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
    if (status == TSLB_DA_SLOT_ACTIVE) {
      EXPECT_EQ(forward_node(slot).next, TSLB_DA_NIL_IDX) << "link of active slot " << idx;
    }
    if (has_inactive && status != TSLB_DA_SLOT_INACTIVE && status != TSLB_DA_SLOT_UNSET) {
      EXPECT_EQ(backward_node(array, slot).prev, TSLB_DA_NIL_IDX) << "back link of " << idx;
    }
  }
  EXPECT_EQ(n_free, lists.free.size()) << "free slots on no list, or on it twice";
  EXPECT_EQ(n_inactive, lists.inactive.size()) << "inactive slots on no list, or on it twice";
  return lists;
}

#endif
