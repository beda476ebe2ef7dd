// The redo hook of this program. It writes the library's redo records to the current journal.
#pragma once

#include "journal/journal.h"

namespace metricdb {

// Makes a journal the current one during its lifetime. Without a current journal nothing is logged, for example during
// the replay of a journal. Scopes can be nested. No thread may change arrays while a scope begins or ends.
class RedoScope {
 public:
  explicit RedoScope(Journal &journal);
  ~RedoScope();
  RedoScope(const RedoScope &) = delete;
  RedoScope &operator=(const RedoScope &) = delete;

 private:
  Journal *const previous_;
};

}  // namespace metricdb
