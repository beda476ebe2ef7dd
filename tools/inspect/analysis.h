// Looks into a stored array. Where the loaders refuse at the first contradiction, this tells it and goes on as far as
// the bytes go.
#ifndef TSLB_INSPECT_ANALYSIS_H
#define TSLB_INSPECT_ANALYSIS_H

#include <cstdint>
#include <optional>

#include "report.h"
#include "store.h"

namespace inspect {

struct options_t {
  uint8_t kind = 2;                // how the user header is read: ARRAY_LOAD_* of array_loader.h, by its size
  std::optional<uint32_t> record;  // id of a record to bring along
};

// Takes memory in step with the bytes that are there, whatever the headers claim, and time likewise. Throws
// unreadable_t if a file cannot be read; whatever it holds is told in the report.
report_t analyse(store_t *store, const options_t &options);

}  // namespace inspect

#endif
