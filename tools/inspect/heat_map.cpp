#include "heat_map.h"

#include <fmt/format.h>

#include <algorithm>

#include <tslb/tslb_stored.h>

namespace inspect {
namespace {

use_t use_of(const report_t &report, uint64_t idx) {
  if (!report.has_nodes) return USE_ACTIVE;
  switch (report.slots[idx].status) {
    case TSLB_DA_SLOT_ACTIVE:
      return USE_ACTIVE;
    case TSLB_DA_SLOT_FREE:
      return USE_FREE;
    case TSLB_DA_SLOT_INACTIVE:
      return USE_INACTIVE;
    default:
      return USE_OTHER;
  }
}

// Of [from, to), what lies in the cell.
uint64_t overlap(const cell_t &cell, uint64_t from, uint64_t to) {
  const uint64_t begin = std::max(cell.first, from), end = std::min(cell.first + cell.slots, to);
  return begin < end ? end - begin : 0;
}

double live_share(const pool_t &pool, const cell_t &cell) {
  double live = 0, room = 0;
  const uint64_t end = std::min<uint64_t>(cell.first + cell.slots, pool.slots.size());
  for (uint64_t idx = cell.first; idx < end; ++idx) {
    const pool_slot_t &slot = pool.slots[idx];
    if (slot.state == pool_slot_state_t::FREE || slot.state == pool_slot_state_t::UNSET) continue;
    live += slot.used > slot.deleted ? slot.used - slot.deleted : 0;
    room += static_cast<double>(pool.slot_capacity);
  }
  return room > 0 ? std::min(live / room, 1.0) : -1;
}

// Only slots that are there are met one by one: headers can claim any number of others.
cell_t cell_of(const report_t &report, uint64_t first, uint64_t slots) {
  const geometry_t &g = *report.geometry;
  const uint64_t n_used = std::min(g.n_used, g.capacity);
  cell_t cell = {first, slots, {}, false, -1};
  cell.counts[USE_ABSENT] = overlap(cell, g.n_present, n_used);
  cell.counts[USE_UNISSUED] = overlap(cell, n_used, UINT64_MAX);
  const uint64_t n_present = overlap(cell, 0, g.n_present);
  if (!report.has_nodes) cell.counts[USE_ACTIVE] = n_present;
  for (uint64_t idx = first; report.has_nodes && idx < first + n_present; ++idx) {
    ++cell.counts[use_of(report, idx)];
    cell.has_stray |= report.slots[idx].is_stray;
  }
  if (report.pool) cell.live = live_share(*report.pool, cell);
  return cell;
}

}  // namespace

heat_map_t heat_map_of(const report_t &report) {
  heat_map_t map = {1, {}};
  if (!report.geometry) return map;
  const uint64_t total = report.geometry->n_direct + report.geometry->data_blocks * TSLB_SLOTS_PER_BLOCK;
  while (total > map.slots_per_cell * MAX_CELLS) map.slots_per_cell *= 2;
  for (uint64_t first = 0; first < total; first += map.slots_per_cell)
    map.cells.push_back(cell_of(report, first, std::min(map.slots_per_cell, total - first)));
  return map;
}

const char *use_text(use_t use) {
  static const char *const texts[] = {"active", "free", "inactive", "other", "missing", "not issued"};
  return texts[use];
}

std::string cell_text(const cell_t &cell) {
  std::string text;
  for (size_t use = 0; use < N_USES; ++use) {
    if (cell.counts[use] == 0) continue;
    if (!text.empty()) text += ", ";
    if (cell.slots > 1) text += fmt::format("{} ", cell.counts[use]);
    text += use_text(static_cast<use_t>(use));
  }
  if (cell.has_stray) text += ", claims a list in vain";
  if (cell.live >= 0) text += fmt::format(", {:.0f} % of its bytes alive", cell.live * 100);
  if (cell.slots == 1) return fmt::format("slot {}: {}", cell.first, text);
  return fmt::format("slots {} to {}: {}", cell.first, cell.first + cell.slots - 1, text);
}

}  // namespace inspect
