// What the loaders share: the source they differ in, and the reading, filling and checking they have in common.
#ifndef ARRAY_READER_H
#define ARRAY_READER_H

#include <sys/types.h>

#include <tslb/array_loader.h>
#include "array_check_internal.h"

// Where slots of a new array lie: in block 0 and data blocks as the image says; or all that are in use in block 0; or all
// in data blocks, so that memory is made as they are read. The last two do not make the memory of a direct area that the
// image claims and does not use, and their arrays have an n_direct of their own.
enum class slot_places_t { AS_STORED, IN_BLOCK0, IN_DATA_BLOCKS };

// The flat image of one array, front to back.
class image_source_t : public image_places_t {
 public:
  // Fills `to`. Fewer bytes than asked for only where the image ends; -1 after the refusal was told.
  virtual ssize_t read(void *to, size_t bytes, refusal_t *refusal) = 0;
  // The headers were read and are sound, and slots come next. False after the refusal was told.
  virtual bool expect(const image_shape_t &shape, refusal_t *refusal) = 0;
  // Nothing follows what was read. -1 as in read.
  virtual int ends_here(refusal_t *refusal) = 0;
  // A pool's last slot can end with the bytes that its cursor has reached.
  virtual bool may_be_cut() const = 0;
  // After expect.
  virtual slot_places_t places() const { return slot_places_t::AS_STORED; }

 protected:
  ~image_source_t() = default;
};

// read(2) until `bytes` are there or the descriptor ends; -1 with errno set.
ssize_t read_fully(int fd, void *to, size_t bytes);

// Returns a new array with the content of the source, or null after the refusal was written.
DynamicArray_t load_image(image_source_t *source, const array_load_options_t *options, refusal_t *refusal);

// The same of a stream, for conversions. Slots lie in block 0 if the bytes for them are there for certain, in data blocks
// otherwise. Pages of them that are zero take no memory. Receives the stream's own n_direct.
DynamicArray_t load_stream_for_conversion(int fd, const array_load_options_t *options, refusal_t *refusal,
                                          uint32_t *n_direct);

#endif
