// What the loaders share: the source they differ in, and the reading, filling and checking they have in common.
#ifndef ARRAY_READER_H
#define ARRAY_READER_H

#include <stdarg.h>
#include <sys/types.h>

#include "array_loader.h"

// Sizes that follow from an array's headers, in bytes and slots.
struct image_shape_t {
  uint64_t header_bytes;  // ahead of slot 0
  uint64_t slot_bytes;    // nodes included
  uint32_t shift;         // of the record in its slot
  uint32_t n_direct;
  uint32_t n_used;
  uint8_t daflag;
};

// The one line that tells why a load was refused.
class refusal_t {
 public:
  refusal_t(char *text, size_t size) : text_(text), size_(size) {
    if (size_ != 0) text_[0] = '\0';
  }
  void add(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void add_values(const char *format, va_list values);

 private:
  char *text_;
  size_t size_;
  size_t used_ = 0;
};

// The flat image of one array, front to back.
class image_source_t {
 public:
  // Fills `to`. Fewer bytes than asked for only where the image ends; -1 after the refusal was told.
  virtual ssize_t read(void *to, size_t bytes, refusal_t *refusal) = 0;
  // The headers were read and are sound, and slots come next. False after the refusal was told.
  virtual bool expect(const image_shape_t &shape, refusal_t *refusal) = 0;
  // Nothing follows what was read. -1 as in read.
  virtual int ends_here(refusal_t *refusal) = 0;
  // A pool's last slot can end with the bytes that its cursor has reached.
  virtual bool may_be_cut() const = 0;
  // Where a position of the flat image lies, for the refusal: "byte 92".
  virtual void tell_place(uint64_t pos, refusal_t *refusal) const = 0;

 protected:
  ~image_source_t() = default;
};

// read(2) until `bytes` are there or the descriptor ends; -1 with errno set.
ssize_t read_fully(int fd, void *to, size_t bytes);

// A new array with the content of the source; null after the refusal was told.
DynamicArray_t load_image(image_source_t *source, const array_load_options_t *options, refusal_t *refusal);

#endif
