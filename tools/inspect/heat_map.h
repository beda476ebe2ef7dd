// How the slots of an array are gathered in cells.
#ifndef TSLB_INSPECT_HEAT_MAP_H
#define TSLB_INSPECT_HEAT_MAP_H

#include <cstdint>
#include <string>

#include "report.h"

namespace inspect {

// Cells for all slots that the geometry has, with those counted that need not be looked at: absent, not issued, and of an
// array without nodes the present ones.
heat_map_t empty_map_of(const report_t &report);

// A present slot with nodes, and one of a pool.
void count_slot(uint32_t idx, uint32_t status, bool is_stray, heat_map_t *map);
void count_pool_slot(uint32_t idx, const pool_slot_t &slot, uint64_t capacity, heat_map_t *map);

const char *use_text(use_t use);
// Share of a cell's bytes that are in live chunks, below 0 if it has none.
double live_share(const cell_t &cell);
// "slot 3: free", "slots 64 to 127: 30 active, 34 free".
std::string cell_text(const cell_t &cell);

}  // namespace inspect

#endif
