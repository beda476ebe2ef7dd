// Looks into a stored array. Where the loaders refuse at the first fault, this reports it and goes on as far as the bytes
// go. The rules are the same: tslb_stored.h.
#ifndef TSLB_INSPECT_ANALYSIS_H
#define TSLB_INSPECT_ANALYSIS_H

#include <cstdint>
#include <memory>
#include <optional>

#include "report.h"
#include "store.h"

namespace inspect {

struct options_t {
  uint8_t kind = 2;                // how the user header is read: ARRAY_LOAD_* of array_loader.h, by its size
  std::optional<uint32_t> record;  // id of a record to bring along
};

struct analysed_t {
  report_t report;
  std::unique_ptr<slot_rows_t> rows;  // as long as the store lives
};

// Takes time in step with the bytes that are there, whatever the headers claim, and of memory up to 9 bytes and 2 bits for
// each slot with nodes. Throws unreadable_t if a file cannot be read; whatever it holds is in the report.
analysed_t analyse(store_t *store, const options_t &options);

}  // namespace inspect

#endif
