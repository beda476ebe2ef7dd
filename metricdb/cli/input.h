// An input of the load: a file, or standard input named `-`.
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

  // As messages call it: the path, or `stdin`.
  const std::string &name() const { return name_; }

  // The whole content, read now unless it is still held. Throws InputError.
  std::string_view text();

  // Lets go of the content. What will be needed again stays if it cannot be read twice: a pipe's.
  void release(bool needed_again);

 private:
  std::string path_;
  std::string name_;
  bool readable_again_ = false;
  std::optional<std::string> text_;
};

}  // namespace metricdb
