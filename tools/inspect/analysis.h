// Analyses a stored array. The loaders refuse an array at the first fault. The analysis reports each fault and
// continues to the end of the bytes. Both use the rules in tslb_stored.h.
#ifndef TSLB_INSPECT_ANALYSIS_H
#define TSLB_INSPECT_ANALYSIS_H

#include <cstdint>
#include <memory>
#include <optional>

#include "report.h"
#include "store.h"

namespace inspect {

struct options_t {
  uint8_t kind = 2;                // ARRAY_LOAD_* of array_loader.h; the default is ARRAY_LOAD_POOL_BY_SIZE
  std::optional<uint32_t> record;  // id of a record to copy into the report
  bool for_page = false;           // with more cells, and the first records in use
};

struct analysis_result_t {
  report_t report;
  std::unique_ptr<slot_rows_t> rows;  // valid while the store exists
};

// Time is linear in the stored bytes, whatever the headers claim. Memory is up to 9 bytes and 2 bits per slot with
// nodes. Throws unreadable_t if a file cannot be read. Wrong contents are findings in the report.
analysis_result_t analyse(store_t *store, const options_t &options);

}  // namespace inspect

#endif
