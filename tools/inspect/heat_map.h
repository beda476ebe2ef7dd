// Assigns the slots of an array to cells.
#ifndef TSLB_INSPECT_HEAT_MAP_H
#define TSLB_INSPECT_HEAT_MAP_H

#include <cstdint>
#include <string>

#include "report.h"

namespace inspect {

// Returns up to `max_cells` cells for all slots of the geometry. Counts the slots that are absent or not issued, and all
// present slots of an array without nodes.
heat_map_t empty_map_of(const report_t &report, size_t max_cells);

// Returns the same slots in up to `max_cells` cells.
heat_map_t merged_map(const heat_map_t &map, size_t max_cells);

// Count a present slot with nodes, and a slot of a pool.
void count_slot(uint32_t idx, uint32_t status, bool is_stray, heat_map_t *map);
void count_pool_slot(uint32_t idx, const pool_slot_t &slot, uint64_t capacity, heat_map_t *map);

const char *use_text(use_t use);
// Share of a cell's chunk bytes that are in live chunks. Negative if no slot of the cell can have chunks.
double live_share(const cell_t &cell);
// "slot 3: free", "slots 64 to 127: 30 active, 34 free".
std::string cell_text(const cell_t &cell);

}  // namespace inspect

#endif
