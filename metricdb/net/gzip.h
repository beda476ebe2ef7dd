// Decompresses request bodies.
#pragma once

#include <zlib.h>

#include <string_view>

#include "net/bytes.h"

namespace metricdb {

class Gunzip {
 public:
  enum class Outcome {
    good,
    broken,    // not gzip, damaged, or incomplete
    too_long,  // the decompressed text exceeds the limit
    no_room    // the pool has no memory
  };

  Gunzip();
  ~Gunzip();
  Gunzip(const Gunzip &) = delete;
  Gunzip &operator=(const Gunzip &) = delete;

  // Appends the decompressed text, of one member or several, to `to`. The content of `to` is undefined unless good.
  Outcome inflate_into(ByteBuffer &to, std::string_view text, size_t max_bytes);

 private:
  z_stream stream_{};
};

}  // namespace metricdb
