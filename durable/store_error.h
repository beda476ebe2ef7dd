// The exception with which the sources of the durable store report failures. The C interface turns it into a
// tslb_error_t.
#pragma once

#include <tslb/durable.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tslb_durable {

class StoreError : public std::runtime_error {
 public:
  // what  one line; includes the file and the byte.
  explicit StoreError(tslb_durable_code_t code, const std::string &what, std::string file = {}, uint64_t byte = 0,
                      int errnum = 0)
      : std::runtime_error(what), code_(code), errnum_(errnum), byte_(byte), file_(std::move(file)) {}

  tslb_durable_code_t code() const { return code_; }
  int errnum() const { return errnum_; }
  uint64_t byte() const { return byte_; }
  const std::string &file() const { return file_; }

 private:
  tslb_durable_code_t code_;
  int errnum_;
  uint64_t byte_;
  std::string file_;
};

// Copies a text to an array of `size` bytes, cut to fit.
void copy_text(std::string_view text, char *to, size_t size);

// Returns "path: what", with TSLB_DURABLE_DAMAGED.
StoreError damaged(const std::string &path, const std::string &what);
// Returns "path: byte 12: what", with TSLB_DURABLE_DAMAGED.
StoreError damaged_at(const std::string &path, uint64_t byte, const std::string &what);

}  // namespace tslb_durable
