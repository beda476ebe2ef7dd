// Reads the image of an array from a source, fills a new array and checks it. The loaders differ in the source only.
#ifndef ARRAY_READER_H
#define ARRAY_READER_H

#include <sys/types.h>

#include <tslb/array_loader.h>
#include "array_check_internal.h"

// Placement of the slots of a new array.
//   AS_STORED       block 0 and data blocks, with the image's n_direct.
//   IN_BLOCK0       all used slots in block 0.
//   IN_DATA_BLOCKS  all used slots in data blocks, which are allocated while slots are read.
// With IN_BLOCK0 and IN_DATA_BLOCKS the array's n_direct differs from the image's, and an unused direct area takes no
// memory.
enum class slot_places_t { AS_STORED, IN_BLOCK0, IN_DATA_BLOCKS };

// The flat image of one array, read from its start to its end.
class image_source_t : public image_places_t {
 public:
  // Fills `to`. Returns the bytes read, fewer than `bytes` only at the end of the image. -1: the refusal is written.
  virtual ssize_t read(void *to, size_t bytes, refusal_t *refusal) = 0;
  // Called once, after the headers were checked and before the slots are read. False: the refusal is written.
  virtual bool expect(const image_shape_t &shape, refusal_t *refusal) = 0;
  // Returns 1 if the image ends here, 0 if bytes follow. -1: the refusal is written.
  virtual int ends_here(refusal_t *refusal) = 0;
  // Whether a pool's last slot may end at the cursor.
  virtual bool may_be_cut() const = 0;
  // Valid after expect.
  virtual slot_places_t places() const { return slot_places_t::AS_STORED; }

 protected:
  ~image_source_t() = default;
};

// Repeats read(2) until `bytes` were read or the descriptor ends. Returns the bytes read, or -1 with errno set.
ssize_t read_fully(int fd, void *to, size_t bytes);

// Returns a new array with the content of the source. Null: the refusal is written.
DynamicArray_t load_image(image_source_t *source, const array_load_options_t *options, refusal_t *refusal);

// Loads a stream for a conversion. Slots are placed in block 0 if the file is known to contain them, else in data
// blocks. Pages of zeroes take no memory.
//
// n_direct  receives n_direct of the stream; the array's differs.
DynamicArray_t load_stream_for_conversion(int fd, const array_load_options_t *options, refusal_t *refusal,
                                          uint32_t *n_direct);

#endif
