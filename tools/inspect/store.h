// Where the bytes of one stored array come from: a snapshot stream, or the files of its blocks.
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

// A file that cannot be read, as opposed to one whose content is wrong. The text begins with its path.
struct unreadable_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class store_t {
 public:
  virtual ~store_t() = default;

  // What a user calls the array.
  virtual std::string name() const = 0;
  virtual bool is_stream() const = 0;
  // In ascending order of their blocks. Block 0 is there.
  virtual const std::vector<stored_file_t> &files() const = 0;
  // Of the file of a block, whether or not there is one.
  virtual std::string file_name(uint32_t block_num) const = 0;
  // Fewer bytes than asked for only where the file ends. Throws unreadable_t.
  virtual size_t read(const stored_file_t &file, uint64_t offset, void *to, size_t bytes) = 0;

  // Null if there is none.
  const stored_file_t *file_of(uint32_t block_num) const;
};

// "DIR/TBL.BLOCK.darr" names a set of block files, of which it can be any one that stands beside file 0. Any other name
// is that of a stream.
//
// Result  opened for reading. Throws unreadable_t.
std::unique_ptr<store_t> open_store(const std::string &path);

// The same text for all files of one set, and for a stream its path.
std::string store_key(const std::string &path);

}  // namespace inspect

#endif
