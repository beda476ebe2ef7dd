#include "stream_source.h"

#include <sys/socket.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <cerrno>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "store_error.h"

namespace tslb_durable {
namespace {

// Not a pipe: a write to one that nobody reads would end the process.
bool send_all(int fd, const char *bytes, size_t n_bytes) {
  while (n_bytes != 0) {
    const ssize_t n_sent = send(fd, bytes, n_bytes, MSG_NOSIGNAL);
    if (n_sent < 0 && errno == EINTR) continue;
    if (n_sent < 0) return false;
    bytes += n_sent;
    n_bytes -= static_cast<size_t>(n_sent);
  }
  return true;
}

// Ends at the first byte that cannot be decompressed or that nobody wants: the reader finds the end of the stream there.
void decompress(const File &file, const File &to) {
  const std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx *)> context(ZSTD_createDCtx(), ZSTD_freeDCtx);
  if (!context) throw std::bad_alloc();
  std::vector<char> compressed(ZSTD_DStreamInSize()), bytes(ZSTD_DStreamOutSize());
  uint64_t at = 0;
  while (const size_t n_read = file.read_at(at, compressed.data(), compressed.size())) {
    at += n_read;
    ZSTD_inBuffer in = {compressed.data(), n_read, 0};
    for (bool is_full = true; in.pos < in.size || is_full;) {
      ZSTD_outBuffer out = {bytes.data(), bytes.size(), 0};
      const size_t result = ZSTD_decompressStream(context.get(), &out, &in);
      if (ZSTD_getErrorCode(result) == ZSTD_error_memory_allocation) throw std::bad_alloc();
      if (ZSTD_isError(result)) return;
      if (!send_all(to.fd(), bytes.data(), out.pos)) return;
      is_full = out.pos == out.size;
    }
  }
}

}  // namespace

StreamSource::StreamSource(const File &file, bool is_compressed) : file_(file) {
  if (!is_compressed) return;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail_file(file.path(), "cannot be decompressed");
  reader_.emplace(File::adopt(ends[0], file.path()));
  File writer = File::adopt(ends[1], file.path());
  decompression_ = std::async(std::launch::async, [&file, to = std::move(writer)] {
    try {
      decompress(file, to);
    } catch (const StoreError &) {
      // The stream ends early, which its loader reports.
    } catch (const std::bad_alloc &) {
      shutdown(to.fd(), SHUT_RDWR);
      throw;
    }
    shutdown(to.fd(), SHUT_RDWR);
  });
}

void StreamSource::finish() {
  reader_.reset();
  if (decompression_.valid()) decompression_.get();
}

StreamSource::~StreamSource() {
  reader_.reset();  // ends a decompression that was not read to its end
  if (decompression_.valid()) decompression_.wait();
}

}  // namespace tslb_durable
