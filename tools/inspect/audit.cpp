// Nodes of all slots, and the two lists that they form.
#include <cstddef>

#include "analysis_internal.h"

namespace inspect {

void analysis_t::read_nodes() {
  for (uint64_t idx = 0; idx < geometry().n_present; ++idx) {
    report_.slots.push_back(read_node(static_cast<uint32_t>(idx)));
    count_status(static_cast<uint32_t>(idx));
  }
}

// A slot that was cut has no node behind its record; who loads it puts it on no inactive list.
slot_t analysis_t::read_node(uint32_t idx) {
  const geometry_t &g = geometry();
  location_t at = slot_at(idx);
  const node_fw fw = read_value<node_fw>(at);
  const bool is_cut = cut_bytes_ != 0 && idx + 1 == g.n_used;
  if (!has_inactive_list() || is_cut) return {fw.status, fw.next, TSLB_DA_NIL_IDX};
  at.offset += g.shift + g.record_bytes;
  return {fw.status, fw.next, read_value<node_bw>(at).prev};
}

void analysis_t::count_status(uint32_t idx) {
  statuses_t &counts = report_.statuses;
  const uint32_t status = report_.slots[idx].status;
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
      fault(slot_at(idx), "status {} of slot {} is none that a slot can have", status, idx);
  }
}

void analysis_t::audit_lists() {
  audit_list("free list", offsetof(DynArrLLI_t, free_head), offsetof(DynArrLLI_t, free_tail),
             offsetof(DynArrLLI_t, n_free), true);
  if (has_inactive_list())
    audit_list("inactive list", offsetof(DynArrLLI_t, inact_head), offsetof(DynArrLLI_t, inact_tail),
               offsetof(DynArrLLI_t, n_inact), false);
  else if (lli_.inact_head != TSLB_DA_NIL_IDX || lli_.inact_tail != TSLB_DA_NIL_IDX || lli_.n_inact != 0)
    fault({0, lli_at() + offsetof(DynArrLLI_t, inact_head)}, "an inactive list where lltype 0x{:02x} has none",
          lli_.lltype);
  audit_strays();
}

// Each slot is met once at most: its mark ends a walk that comes round.
void analysis_t::audit_list(const char *name, size_t head_offset, size_t tail_offset, size_t count_offset,
                            bool is_free_list) {
  const auto root_at = [this](size_t offset) { return location_t{0, lli_at() + offset}; };
  const auto root = [&](size_t offset) { return read_value<uint32_t>(root_at(offset)); };
  list_t list = {name, root(head_offset), root(tail_offset), root(count_offset), 0, TSLB_DA_NIL_IDX, false};
  location_t link_at = root_at(head_offset);
  uint32_t idx = list.head;
  for (; idx != TSLB_DA_NIL_IDX; idx = report_.slots[idx].next) {
    if (idx >= geometry().n_used) {
      fault(link_at, "the {} names slot {} of {}", name, idx, geometry().n_used);
      break;
    }
    if (idx >= report_.slots.size()) {
      fault(link_at, "the {} goes on in slot {}, which is not there", name, idx);
      break;
    }
    slot_t &slot = report_.slots[idx];
    bool &on_list = is_free_list ? slot.on_free_list : slot.on_inactive_list;
    if (on_list) {
      fault(link_at, "the {} comes back to slot {}", name, idx);
      break;
    }
    on_list = true;
    audit_member(list, idx, list.last, is_free_list);
    list.last = idx;
    ++list.length;
    link_at = slot_at(idx);
    link_at.offset += offsetof(node_fw, next);
  }
  list.is_complete = idx == TSLB_DA_NIL_IDX;
  if (list.count > geometry().n_used)
    fault(root_at(count_offset), "the {} counts {} slots of {}", name, list.count, geometry().n_used);
  else if (list.is_complete && list.length != list.count)
    fault(root_at(count_offset), "the {} counts {} slots and has {}", name, list.count, list.length);
  if (list.is_complete && list.last != list.tail)
    fault(root_at(tail_offset), "tail {} of the {}, which ends with {}", list.tail, name, list.last);
  report_.lists.push_back(list);
}

void analysis_t::audit_member(const list_t &list, uint32_t idx, uint32_t before, bool is_free_list) {
  const slot_t &slot = report_.slots[idx];
  const uint32_t wanted = is_free_list ? TSLB_DA_SLOT_FREE : TSLB_DA_SLOT_INACTIVE;
  location_t at = slot_at(idx);
  if (slot.status != wanted) fault(at, "status {} on the {}, slot {}", slot.status, list.name, idx);
  if (is_free_list || slot.prev == before) return;
  at.offset += geometry().shift + geometry().record_bytes;
  fault(at, "prev {} of slot {} on the {}, where {} comes before it", slot.prev, idx, list.name, before);
}

// A slot that claims to be on a list and is not would pull the list apart when it leaves.
void analysis_t::audit_strays() {
  for (uint32_t idx = 0; idx < report_.slots.size(); ++idx) {
    slot_t &slot = report_.slots[idx];
    const bool is_stray_free = slot.status == TSLB_DA_SLOT_FREE && !slot.on_free_list;
    const bool is_stray_inactive = slot.status == TSLB_DA_SLOT_INACTIVE && !slot.on_inactive_list;
    slot.is_stray = is_stray_free || is_stray_inactive;
    location_t at = slot_at(idx);
    if (slot.is_stray)
      fault(at, "slot {} says that it is {} and is not on that list", idx, is_stray_free ? "free" : "inactive");
    if (slot.status != TSLB_DA_SLOT_ACTIVE || slot.next == TSLB_DA_NIL_IDX) continue;
    at.offset += offsetof(node_fw, next);
    remark(at, "active slot {} has a link to {}", idx, slot.next);
  }
}

}  // namespace inspect
