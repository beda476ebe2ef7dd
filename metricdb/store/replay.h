// Brings what a journal holds into the arrays of the generation that it follows.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "journal/journal_format.h"
#include "store/store.h"

namespace metricdb {

// What a journal holds does not go with the arrays that it follows.
class ReplayFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Replayed {
  bool has_journal = false;  // a file was there; without one all else is as it stands here
  JournalPlace place;        // where a writer goes on in it
  uint64_t n_batches = 0;
  uint64_t n_records = 0;
  uint64_t bytes_cut = 0;
  bool is_damaged = false;  // not just torn: with `salvage` only
  std::string what;         // one line about a tail that does not count; empty if there is none
};

// Arrays, configuration and state are of a generation with the number given, and come out as they were at the last
// commit. Configuration and state are those that the last commit mark tells. The arrays are checked as a whole
// afterwards (array_check.h); what they hold is the store's to judge.
//
// salvage  a journal that is damaged is used up to the damage, and `what` says what is lost.
// Throws JournalDamaged, ReplayFailed or FileError, and the arrays are of no use then.
Replayed replay_journal(const std::string &path, uint64_t generation, bool salvage, const StoreArrays &arrays,
                        StoreConfig &config, StoreState &state);

}  // namespace metricdb
