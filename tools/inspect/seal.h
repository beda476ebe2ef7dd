// Sidecars of stored arrays: sealing, and verifying.
#ifndef TSLB_INSPECT_SEAL_H
#define TSLB_INSPECT_SEAL_H

#include <cstdint>
#include <optional>
#include <string>

#include "report.h"
#include "sidecar.h"
#include "store.h"

namespace inspect {

// What the files do not say. Values that are not set are taken from an existing sidecar of the same files.
struct seal_options_t {
  std::optional<layout_t> layout;
  std::optional<clock_settings_t> clock;
  std::optional<int32_t> table;        // for a stream
  std::optional<std::string> context;  // for a stream
  bool is_wide = false;                // addresses of a pool's chunks are maddr64_t
  bool replaces = false;               // also a sidecar of other contents, or a damaged one
};

// The array cannot be sealed. The text begins with a path.
struct refused_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Path of an array's sidecar: "STREAM.tslb", or "TBL.darr.tslb" in the folder of block file 0.
std::string sidecar_path(const store_t &store);

// Compares the files with the sidecar, if there is one, and sets report->seal. Takes the layout from it if the report
// has none. If the sidecar cannot be read, report->unread_sidecar is set instead. Throws unreadable_t if a file of the
// array cannot be read.
void verify_seal(store_t *store, report_t *report);

// Writes the sidecar of a sound array and returns its path. The file appears as a whole or not at all, and is synced.
// Throws refused_t, and unreadable_t if a file cannot be read or written.
std::string seal(store_t *store, const report_t &report, const seal_options_t &options);

}  // namespace inspect

#endif
