// Loads snapshot streams.
#include <tslb/array_loader.h>

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "array_reader.h"

namespace {

constexpr size_t PAGE_BYTES = 4096;

bool are_zero(const char *bytes, size_t count) {
  return count == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, count - 1) == 0);
}

// Zeroes are not written: untouched pages of new memory are zero and occupy no physical memory. Most of a
// free slot of a pool is zero.
void copy_but_zeroes(char *to, const char *from, size_t bytes) {
  for (size_t part; bytes != 0; to += part, from += part, bytes -= part) {
    part = std::min(bytes, PAGE_BYTES - reinterpret_cast<uintptr_t>(to) % PAGE_BYTES);
    if (!are_zero(from, part) || !are_zero(to, part)) memcpy(to, from, part);
  }
}

// Buffers its reads. Slots can be a few bytes, and one system call per slot would dominate the run time; long slots have
// pages of zeroes, which a read would touch.
class stream_t : public image_source_t {
 public:
  explicit stream_t(int fd) : fd_(fd) {}

  ssize_t read(void *to, size_t bytes, refusal_t *refusal) override {
    size_t filled = take_buffered(to, bytes);
    while (filled < bytes && !ended_) {
      if (!refill()) return fail(refusal);
      filled += take_buffered(static_cast<char *>(to) + filled, bytes - filled);
    }
    return static_cast<ssize_t>(filled);
  }

  bool expect(const image_shape_t &, refusal_t *) override { return true; }

  int ends_here(refusal_t *refusal) override {
    if (begin_ == end_ && !ended_ && !refill()) return static_cast<int>(fail(refusal));
    return begin_ == end_ ? 1 : 0;
  }

  bool may_be_cut() const override { return true; }

  void add_place(uint64_t pos, refusal_t *refusal) const override {
    refusal->add("byte %llu", static_cast<unsigned long long>(pos));
  }

 private:
  size_t take_buffered(void *to, size_t bytes) {
    const size_t taken = std::min(bytes, end_ - begin_);
    copy_but_zeroes(static_cast<char *>(to), buffer_ + begin_, taken);
    begin_ += taken;
    n_consumed_ += taken;
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
    add_place(n_consumed_, refusal);
    refusal->add(": the stream cannot be read: %s", strerror(err));
    return -1;
  }

  int fd_;
  bool ended_ = false;
  size_t begin_ = 0, end_ = 0;  // unread part of buffer_
  uint64_t n_consumed_ = 0;     // bytes that read has returned
  char buffer_[65536];
};

// The stream of an array that is converted and written again.
class converted_stream_t final : public stream_t {
 public:
  explicit converted_stream_t(int fd) : stream_t(fd), bytes_(bytes_left(fd)) {}

  bool expect(const image_shape_t &shape, refusal_t *) override {
    n_direct_ = shape.n_direct;
    // A pool's last slot can be cut, so its bytes need not all be there.
    const uint64_t whole_slots = shape.n_used != 0 ? shape.n_used - 1 : 0;
    const uint64_t image_bytes = shape.header_bytes + shape.slot_bytes * shape.n_used;
    const bool is_there = bytes_ >= shape.header_bytes + shape.slot_bytes * whole_slots;
    places_ = is_there && image_bytes <= INT_MAX ? slot_places_t::IN_BLOCK0 : slot_places_t::IN_DATA_BLOCKS;
    return true;
  }
  slot_places_t places() const override { return places_; }
  uint32_t n_direct() const { return n_direct_; }

 private:
  // Bytes of a regular file after the current position. 0 for other descriptors, whose length is unknown.
  static uint64_t bytes_left(int fd) {
    struct stat about;
    if (fstat(fd, &about) != 0 || !S_ISREG(about.st_mode)) return 0;
    const off_t at = lseek(fd, 0, SEEK_CUR);
    return at >= 0 && at < about.st_size ? static_cast<uint64_t>(about.st_size - at) : 0;
  }

  const uint64_t bytes_;
  slot_places_t places_ = slot_places_t::IN_DATA_BLOCKS;
  uint32_t n_direct_ = 0;
};

}  // namespace

DynamicArray_t load_stream_for_conversion(int fd, const array_load_options_t *options, refusal_t *refusal,
                                          uint32_t *n_direct) {
  converted_stream_t stream(fd);
  const DynamicArray_t array = load_image(&stream, options, refusal);
  *n_direct = stream.n_direct();
  return array;
}

DynamicArray_t array_load_stream(int fd, const array_load_options_t *options, char *error, size_t error_size) {
  refusal_t refusal(error, error_size);
  stream_t stream(fd);
  return load_image(&stream, options, &refusal);
}
