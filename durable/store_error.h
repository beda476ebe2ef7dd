// The exception with which the sources of the durable store report failures. The C interface turns it into a
// tslb_error_t.
#pragma once

#include <fmt/format.h>
#include <tslb/durable.h>

#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace tslb_durable {

class StoreError : public std::exception {
 public:
  // what  one line; includes the file and the byte.
  explicit StoreError(tslb_durable_code_t code, std::string what, std::string file = {}, uint64_t byte = 0,
                      int errnum = 0) noexcept
      : what_(std::move(what)), code_(code), errnum_(errnum), byte_(byte), file_(std::move(file)) {}

  const char *what() const noexcept override { return what_.c_str(); }
  tslb_durable_code_t code() const { return code_; }
  int errnum() const { return errnum_; }
  uint64_t byte() const { return byte_; }
  const std::string &file() const { return file_; }

 private:
  std::string what_;
  tslb_durable_code_t code_;
  int errnum_;
  uint64_t byte_;
  std::string file_;
};

// A text that a std::string keeps without an allocation.
inline constexpr const char *NO_MEMORY = "no memory";

// Returns why a step failed. The text is valid as long as the exception.
inline std::string_view reason_of(const std::exception &error) noexcept {
  return dynamic_cast<const std::bad_alloc *>(&error) != nullptr ? NO_MEMORY : error.what();
}

// Sets a reason to a formatted text, or to NO_MEMORY if the text cannot be allocated. What has failed must be noted also if
// memory is short.
template <class... Arguments>
void set_reason(std::string &reason, fmt::format_string<Arguments...> format, Arguments &&...arguments) noexcept {
  try {
    reason = fmt::format(format, std::forward<Arguments>(arguments)...);
  } catch (const std::bad_alloc &) {
    reason = NO_MEMORY;
  }
}

// Throws std::bad_alloc if a function of recovery/ failed because memory was refused. Its text is the only sign of this, and
// the array must not be reported as damaged then.
inline void expect_memory(std::string_view why) {
  if (why.find("no memory for ") != why.npos) throw std::bad_alloc();
}

// Copies a text to an array of `size` bytes, cut to fit.
void copy_text(std::string_view text, char *to, size_t size);

// Returns "path: what", with TSLB_DURABLE_DAMAGED.
StoreError damaged(const std::string &path, const std::string &what);
// Returns "path: byte 12: what", with TSLB_DURABLE_DAMAGED.
StoreError damaged_at(const std::string &path, uint64_t byte, const std::string &what);

}  // namespace tslb_durable
