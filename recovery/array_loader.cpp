// Snapshot streams as a source of array images.
#include <tslb/array_loader.h>

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "array_reader.h"

namespace {

// Reads ahead: slots can be a few bytes, and a system call for each would cost more than all else.
class stream_t final : public image_source_t {
 public:
  explicit stream_t(int fd) : fd_(fd) {}

  ssize_t read(void *to, size_t bytes, refusal_t *refusal) override {
    size_t filled = take_buffered(to, bytes);
    while (filled < bytes && !ended_) {
      const size_t missing = bytes - filled;
      char *const rest = static_cast<char *>(to) + filled;
      if (missing >= sizeof(buffer_)) {
        const ssize_t got = read_fully(fd_, rest, missing);
        if (got < 0) return fail(refusal);
        ended_ = static_cast<size_t>(got) < missing;
        told_ += static_cast<size_t>(got);
        filled += static_cast<size_t>(got);
      } else {
        if (!refill()) return fail(refusal);
        filled += take_buffered(rest, missing);
      }
    }
    return static_cast<ssize_t>(filled);
  }

  bool expect(const image_shape_t &, refusal_t *) override { return true; }

  int ends_here(refusal_t *refusal) override {
    if (begin_ == end_ && !ended_ && !refill()) return static_cast<int>(fail(refusal));
    return begin_ == end_ ? 1 : 0;
  }

  bool may_be_cut() const override { return true; }

  void tell_place(uint64_t pos, refusal_t *refusal) const override {
    refusal->add("byte %llu", static_cast<unsigned long long>(pos));
  }

 private:
  size_t take_buffered(void *to, size_t bytes) {
    const size_t taken = std::min(bytes, end_ - begin_);
    memcpy(to, buffer_ + begin_, taken);
    begin_ += taken;
    told_ += taken;
    return taken;
  }

  bool refill() {
    const ssize_t got = read_fully(fd_, buffer_, sizeof(buffer_));
    if (got < 0) return false;
    begin_ = 0;
    end_ = static_cast<size_t>(got);
    ended_ = end_ < sizeof(buffer_);
    return true;
  }

  ssize_t fail(refusal_t *refusal) const {
    const int err = errno;
    tell_place(told_, refusal);
    refusal->add(": the stream cannot be read on: %s", strerror(err));
    return -1;
  }

  int fd_;
  bool ended_ = false;
  size_t begin_ = 0, end_ = 0;  // what is read ahead
  uint64_t told_ = 0;           // bytes handed on
  char buffer_[16384];
};

}  // namespace

DynamicArray_t array_load_stream(int fd, const array_load_options_t *options, char *error, size_t error_size) {
  refusal_t refusal(error, error_size);
  stream_t stream(fd);
  return load_image(&stream, options, &refusal);
}
