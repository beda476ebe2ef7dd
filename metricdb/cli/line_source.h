// Reads whole lines from a file or a pipe as they arrive.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "codec/line_scanner.h"

namespace metricdb {

class LineSource {
 public:
  static constexpr size_t MAX_LINE_BYTES = 64 << 10;

  // `-` is standard input. Throws InputError, as `next` does.
  explicit LineSource(const std::string &path);
  ~LineSource();
  LineSource(const LineSource &) = delete;
  LineSource &operator=(const LineSource &) = delete;

  // The name for messages: the path, or `stdin`.
  const std::string &name() const { return name_; }
  // Size of a regular file; otherwise 0.
  uint64_t total_bytes() const { return total_bytes_; }

  // Returns the next whole lines, at most `max_lines`: at least one, and more if they are available without waiting.
  // Empty at the end. Valid until the next call. A line longer than MAX_LINE_BYTES is skipped and counted.
  std::string_view next(uint64_t max_lines);

  uint64_t bytes_read() const { return bytes_read_; }
  uint64_t n_too_long() const { return n_too_long_; }

 private:
  enum class Found { line, too_long, nothing };

  Found find_line();
  bool read_more();
  bool waits_for_more() const;

  std::string name_;
  int fd_;
  uint64_t total_bytes_ = 0;
  std::string buffer_;
  size_t end_ = 0;      // of the current lines
  size_t scanned_ = 0;  // by the scanner
  LineScanner scanner_;
  bool at_end_ = false;
  bool skips_ = false;  // skipping the rest of a line that was too long
  uint64_t bytes_read_ = 0;
  uint64_t n_too_long_ = 0;
};

}  // namespace metricdb
