// An input of `load`: a file, or `-` for standard input.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace metricdb {

class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Input {
 public:
  explicit Input(std::string path);

  // The name for messages: the path, or `stdin`.
  const std::string &name() const { return name_; }

  // Returns the whole content; reads it unless it is in memory. Throws InputError.
  std::string_view text();

  // Frees the content. The content of a pipe, which cannot be read twice, stays if it is needed again.
  void release(bool needed_again);

 private:
  std::string path_;
  std::string name_;
  bool readable_again_ = false;
  std::optional<std::string> text_;
};

}  // namespace metricdb
