// Bodies that arrive compressed.
#pragma once

#include <zlib.h>

#include <string_view>

#include "net/bytes.h"

namespace metricdb {

class Gunzip {
 public:
  enum class Outcome {
    good,
    broken,    // not gzip, damaged, or cut off
    too_long,  // more than the bound comes out
    no_room    // the pool has no memory for it
  };

  Gunzip();
  ~Gunzip();
  Gunzip(const Gunzip &) = delete;
  Gunzip &operator=(const Gunzip &) = delete;

  // Appends what the text holds, one member or several, to `to`. Unless good, what stands there means nothing.
  Outcome inflate_into(ByteBuffer &to, std::string_view text, size_t most_bytes);

 private:
  z_stream stream_{};
};

}  // namespace metricdb
