#include "heat_map.h"

#include <fmt/format.h>

#include <algorithm>

#include <tslb/tslb_stored.h>

namespace inspect {
namespace {

use_t use_of(uint32_t status) {
  switch (status) {
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

// Number of slots of [from, to) in the cell.
uint64_t overlap(const cell_t &cell, uint64_t from, uint64_t to) {
  const uint64_t begin = std::max(cell.first, from), end = std::min(cell.first + cell.slots, to);
  return begin < end ? end - begin : 0;
}

cell_t empty_cell(const report_t &report, uint64_t first, uint64_t slots) {
  const geometry_t &g = *report.geometry;
  const uint64_t n_used = std::min(g.n_used, g.capacity);
  cell_t cell = {first, slots, {}, false, 0, 0, 0};
  cell.counts[USE_ABSENT] = overlap(cell, g.n_present, n_used);
  cell.counts[USE_UNISSUED] = overlap(cell, n_used, UINT64_MAX);
  if (!report.has_nodes) cell.counts[USE_ACTIVE] = overlap(cell, 0, g.n_present);
  return cell;
}

}  // namespace

heat_map_t empty_map_of(const report_t &report, size_t max_cells) {
  heat_map_t map;
  const uint64_t total = report.geometry->n_direct + report.geometry->data_blocks * TSLB_SLOTS_PER_BLOCK;
  while (total > map.slots_per_cell * max_cells) map.slots_per_cell *= 2;
  for (uint64_t first = 0; first < total; first += map.slots_per_cell)
    map.cells.push_back(empty_cell(report, first, std::min(map.slots_per_cell, total - first)));
  return map;
}

heat_map_t merged_map(const heat_map_t &map, size_t max_cells) {
  heat_map_t merged = {map.slots_per_cell, {}};
  size_t together = 1;  // cells that become one
  while (map.cells.size() > together * max_cells) together *= 2;
  merged.slots_per_cell *= together;
  for (size_t i = 0; i < map.cells.size(); ++i) {
    const cell_t &cell = map.cells[i];
    if (i % together == 0) merged.cells.push_back({cell.first, 0, {}, false, 0, 0, 0});
    cell_t &sum = merged.cells.back();
    sum.slots += cell.slots;
    for (size_t use = 0; use < N_USES; ++use) sum.counts[use] += cell.counts[use];
    sum.has_stray |= cell.has_stray;
    sum.live += cell.live;
    sum.used += cell.used;
    sum.room += cell.room;
  }
  return merged;
}

void count_slot(uint32_t idx, uint32_t status, bool is_stray, heat_map_t *map) {
  cell_t &cell = map->cells[idx / map->slots_per_cell];
  ++cell.counts[use_of(status)];
  cell.has_stray |= is_stray;
}

void count_pool_slot(uint32_t idx, const pool_slot_t &slot, uint64_t capacity, heat_map_t *map) {
  if (slot.state == pool_slot_state_t::FREE || slot.state == pool_slot_state_t::UNSET) return;
  cell_t &cell = map->cells[idx / map->slots_per_cell];
  cell.live += slot.used > slot.deleted ? slot.used - slot.deleted : 0;
  cell.used += slot.used;
  cell.room += capacity;
}

double live_share(const cell_t &cell) {
  if (cell.room == 0) return -1;
  return std::min(static_cast<double>(cell.live) / static_cast<double>(cell.room), 1.0);
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
  if (cell.has_stray) text += ", not on the list of its status";
  const double live = live_share(cell);
  if (live >= 0) text += fmt::format(", {:.0f} % of its bytes live", live * 100);
  if (cell.slots == 1) return fmt::format("slot {}: {}", cell.first, text);
  return fmt::format("slots {} to {}: {}", cell.first, cell.first + cell.slots - 1, text);
}

}  // namespace inspect
