#include "net/gzip.h"

#include <algorithm>
#include <new>

namespace metricdb {
namespace {

constexpr int GZIP_ONLY = 16;  // added to the window size: accept only the gzip format
constexpr int LARGEST_WINDOW = 15;

}  // namespace

Gunzip::Gunzip() {
  if (inflateInit2(&stream_, LARGEST_WINDOW + GZIP_ONLY) != Z_OK) throw std::bad_alloc();
}

Gunzip::~Gunzip() {
  inflateEnd(&stream_);
}

Gunzip::Outcome Gunzip::inflate_into(ByteBuffer &to, std::string_view text, size_t max_bytes) {
  inflateReset(&stream_);
  // The interface of zlib lacks const.
  stream_.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
  stream_.avail_in = static_cast<uInt>(text.size());
  for (;;) {
    // With one byte more than allowed, a text that ends at the limit is distinguished from a longer one.
    if (to.size() > max_bytes) return Outcome::too_long;
    if (!to.make_room(std::max(to.size(), BlockPool::MIN_BYTES))) return Outcome::no_room;
    const size_t room = std::min(to.room(), max_bytes + 1 - to.size());
    stream_.next_out = reinterpret_cast<Bytef *>(to.tail());
    stream_.avail_out = static_cast<uInt>(room);
    const int result = inflate(&stream_, Z_NO_FLUSH);
    to.append_room(room - stream_.avail_out);
    if (result == Z_STREAM_END) {
      if (stream_.avail_in == 0) return to.size() > max_bytes ? Outcome::too_long : Outcome::good;
      inflateReset(&stream_);
    } else if (result != Z_OK) {
      return Outcome::broken;
    }
  }
}

}  // namespace metricdb
