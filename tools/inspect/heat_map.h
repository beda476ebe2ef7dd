// The slots of an array as a bounded number of cells, for pictures.
#ifndef TSLB_INSPECT_HEAT_MAP_H
#define TSLB_INSPECT_HEAT_MAP_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "report.h"

namespace inspect {

// What a slot is in the picture. ABSENT: its bytes are missing. UNISSUED: memory without an id yet.
enum use_t { USE_ACTIVE, USE_FREE, USE_INACTIVE, USE_OTHER, USE_ABSENT, USE_UNISSUED, N_USES };

constexpr size_t CELL_COLUMNS = 32;
constexpr size_t MAX_CELLS = CELL_COLUMNS * 20;

struct cell_t {
  uint64_t first, slots;
  std::array<uint64_t, N_USES> counts;
  bool has_stray;
  double live;  // of a pool: share of its slots' bytes in chunks that are not deleted; below 0 if no slot has any
};

struct heat_map_t {
  uint64_t slots_per_cell;  // a power of 2
  std::vector<cell_t> cells;
};

heat_map_t heat_map_of(const report_t &report);

const char *use_text(use_t use);
// "slot 3: free", "slots 64 to 127: 30 active, 34 free".
std::string cell_text(const cell_t &cell);

}  // namespace inspect

#endif
