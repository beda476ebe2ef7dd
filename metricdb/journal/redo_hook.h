// The redo hook of this program: the library's records go to the journal that is switched on, and nowhere else.
#pragma once

#include "journal/journal.h"

namespace metricdb {

// Switches a journal on while it lives. Nothing is logged when none is on, as while a journal is replayed.
// Scopes nest. No thread changes arrays while one begins or ends.
class RedoTo {
 public:
  explicit RedoTo(Journal &journal);
  ~RedoTo();
  RedoTo(const RedoTo &) = delete;
  RedoTo &operator=(const RedoTo &) = delete;

 private:
  Journal *const before_;
};

}  // namespace metricdb
