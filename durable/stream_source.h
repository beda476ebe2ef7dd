// A stored stream as a descriptor from which it is loaded.
#pragma once

#include <future>
#include <optional>

#include "files.h"

namespace tslb_durable {

class StreamSource {
 public:
  // The file is not moved or closed before this object is destroyed. Throws StoreError.
  StreamSource(const File &file, bool is_compressed);
  ~StreamSource();
  StreamSource(const StreamSource &) = delete;

  // Ends the stream after its loading, also if that failed. Throws if it was cut for want of memory.
  void finish();

  // The stream, from its first byte. Bytes that are no zstd frame end it.
  int fd() const { return reader_ ? reader_->fd() : file_.fd(); }

 private:
  const File &file_;
  std::optional<File> reader_;
  std::future<void> decompression_;
};

}  // namespace tslb_durable
