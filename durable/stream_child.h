// The child process that writes the streams of a generation from the frozen image of its parent.
#pragma once

#include <sys/types.h>

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "store_files.h"

namespace tslb_durable {

// The result for one array.
struct StreamResult {
  int error;  // 0, or an error number
  StoredFile file;
};

class StreamChild {
 public:
  // Makes the pipe to the parent. Throws StoreError.
  explicit StreamChild(const std::string &folder);
  // Ends the child, if it has not ended.
  ~StreamChild();
  StreamChild(const StreamChild &) = delete;
  StreamChild &operator=(const StreamChild &) = delete;

  // Forks. The child calls `write`, which fills `results`, sends them and ends; it does not keep `lock_fd`. Returns 0 or the
  // error of the fork. `write` neither allocates memory nor takes locks.
  int start(std::vector<StreamResult> &results, int lock_fd, const std::function<void()> &write);

  // Waits for the results. Returns false if the child ended without them.
  bool receive(std::vector<StreamResult> &results);

 private:
  explicit StreamChild(const std::array<int, 2> &ends);

  File from_child_;
  std::optional<File> to_parent_;
  pid_t child_ = -1;
};

}  // namespace tslb_durable
