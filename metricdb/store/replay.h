// Applies a journal to the arrays of its generation.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "journal/journal_reader.h"
#include "store/store.h"

namespace metricdb {

// The content of a journal does not fit the arrays.
class ReplayFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Brings arrays, configuration and state of a generation to the last commit of the journal at `path`. Returns nothing
// if there is no such file. A damaged journal is applied up to the fault. With `salvage` the arrays are valid then, and
// without it they are not. The arrays are checked as wholes (array_check.h), but not the data of the store in them.
//
// Throws ReplayFailed or FileError. The arrays are invalid then.
std::optional<ScanResult> replay_journal(const std::string &path, uint64_t generation, bool salvage,
                                         const StoreArrays &arrays, StoreConfig &config, StoreState &state);

}  // namespace metricdb
