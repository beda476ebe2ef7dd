// Whole lines from a file or a pipe, as they come.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace metricdb {

class LineSource {
 public:
  static constexpr size_t LONGEST_LINE = 64 << 10;

  // `-` is standard input. Throws InputError, as `next` does.
  explicit LineSource(const std::string &path);
  ~LineSource();
  LineSource(const LineSource &) = delete;
  LineSource &operator=(const LineSource &) = delete;

  // As messages call it: the path, or `stdin`.
  const std::string &name() const { return name_; }
  // Of a regular file; 0 of anything else.
  uint64_t total_bytes() const { return total_bytes_; }

  // The next text of whole lines, at most `most_lines`: as many as there are without waiting for more, but one at
  // least. Empty at the end. It holds until the next call. A line longer than LONGEST_LINE is left out, and counted.
  std::string_view next(uint64_t most_lines);

  uint64_t bytes_taken() const { return bytes_taken_; }
  uint64_t n_too_long() const { return n_too_long_; }

 private:
  bool take_line();
  bool read_more();
  bool waits_for_more() const;

  std::string name_;
  int fd_;
  uint64_t total_bytes_ = 0;
  std::string buffer_;
  size_t end_ = 0;  // of the whole lines at hand
  bool at_end_ = false;
  bool skips_ = false;  // the rest of a line that was too long
  uint64_t bytes_taken_ = 0;
  uint64_t n_too_long_ = 0;
};

}  // namespace metricdb
