// Access to the bytes of one stored array: a snapshot stream, or a set of block files.
#ifndef TSLB_INSPECT_STORE_H
#define TSLB_INSPECT_STORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "report.h"

namespace inspect {

// A file cannot be read. Wrong contents are findings instead. The text begins with the path.
struct unreadable_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class store_t {
 public:
  virtual ~store_t() = default;

  // Name of the array in the output: the path of the stream or of file 0.
  virtual std::string name() const = 0;
  virtual bool is_stream() const = 0;
  // Sorted by block number. Block 0 is always present.
  virtual const std::vector<stored_file_t> &files() const = 0;
  // Path of the file of a block, even if the file does not exist.
  virtual std::string file_name(uint32_t block_num) const = 0;
  // Returns the bytes read, fewer than `bytes` only at the end of the file. Throws unreadable_t.
  virtual size_t read(const stored_file_t &file, uint64_t offset, void *to, size_t bytes) = 0;

  // Null if the block has no file.
  const stored_file_t *file_of(uint32_t block_num) const;
};

// Opens an array for reading. "DIR/TBL.BLOCK.darr" means a set of block files; the path can be any file of the set in
// the folder of file 0. Any other name is a stream. Throws unreadable_t.
std::unique_ptr<store_t> open_store(const std::string &path);

// Returns the path of file 0 for each file of a set, and the path itself for a stream.
std::string store_key(const std::string &path);

}  // namespace inspect

#endif
