// Reads the nodes of all slots for the rules, and counts statuses and lists.
#include <algorithm>
#include <cstddef>

#include "analysis_internal.h"
#include "heat_map.h"

namespace inspect {

void analysis_t::read_nodes() {
  kinds_.reserve(n_present_);
  next_.reserve(n_present_);
  if (rules_.has_inactive_list()) prev_.reserve(n_present_);
  for (uint64_t idx = 0; idx < n_present_; ++idx) read_node(static_cast<uint32_t>(idx));
}

// A cut slot has no node_bw. The loaders set its prev to none.
void analysis_t::read_node(uint32_t idx) {
  const geometry_t &g = geometry();
  location_t at = slot_at(idx);
  const node_fw fw = read_value<node_fw>(at);
  count_status(fw.status);
  const uint8_t other = fw.status == TSLB_DA_SLOT_NOT_READY ? KIND_NOT_READY : KIND_OTHER;
  kinds_.push_back(fw.status <= TSLB_DA_SLOT_INACTIVE ? static_cast<uint8_t>(fw.status) : other);
  next_.push_back(fw.next);
  if (!rules_.has_inactive_list()) return;
  const bool is_cut = cut_bytes_ != 0 && idx + 1 == g.n_used;
  at.offset += g.shift + g.record_bytes;
  prev_.push_back(is_cut ? TSLB_DA_NIL_IDX : read_value<node_bw>(at).prev);
}

void analysis_t::count_status(uint32_t status) {
  statuses_t &counts = report_.statuses;
  switch (status) {
    case TSLB_DA_SLOT_UNSET:
      ++counts.n_unset;
      break;
    case TSLB_DA_SLOT_FREE:
      ++counts.n_free;
      break;
    case TSLB_DA_SLOT_ACTIVE:
      ++counts.n_active;
      break;
    case TSLB_DA_SLOT_INACTIVE:
      ++counts.n_inactive;
      break;
    case TSLB_DA_SLOT_NOT_READY:
      ++counts.n_not_ready;
      break;
    default:
      ++counts.n_other;
  }
}

uint32_t analysis_t::status_of(uint32_t idx) {
  const uint8_t kind = kinds_[idx];
  if (kind == KIND_OTHER) return read_value<node_fw>(slot_at(idx)).status;
  return kind == KIND_NOT_READY ? TSLB_DA_SLOT_NOT_READY : kind;
}

slot_source_t::nodes_t analysis_t::nodes_of(uint32_t idx) {
  return {status_of(idx), next_[idx], prev_.empty() ? TSLB_DA_NIL_IDX : prev_[idx]};
}

void analysis_t::count_cells() {
  report_.page_map = empty_map_of(report_, options_.for_page ? MAX_PAGE_CELLS : MAX_CELLS);
  for (uint32_t idx = 0; idx < n_node_slots(); ++idx) {
    const uint32_t status = status_of(idx);
    count_slot(idx, status, rules_.is_stray(idx, status), &report_.page_map);
  }
}

void analysis_t::add_list(const char *name, int list) {
  const list_walk_t &walk = rules_.walk_of(list);
  report_.lists.push_back({name, walk.head, walk.tail, walk.count, walk.length, walk.last, walk.is_complete});
}

}  // namespace inspect
