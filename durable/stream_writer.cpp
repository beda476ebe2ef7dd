#include "stream_writer.h"

#include <fcntl.h>
#include <tslb/tslb_stored.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <new>

#include "checksum.h"
#include "io_faults.h"

namespace tslb_durable {
namespace {

constexpr size_t MAX_PIECES = IOV_MAX;
constexpr size_t FLUSH_BYTES = 4 << 20;  // with a limit of bytes per second, the step of the throttle
constexpr size_t SPREAD_BYTES = 4 << 20;
constexpr size_t COMPRESSED_BYTES = 128 << 10, ZERO_BYTES = 64 << 10;
constexpr int COMPRESSION_LEVEL = 1;
constexpr int64_t NS_PER_S = 1'000'000'000;

int64_t now_ns() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * NS_PER_S + time.tv_nsec;
}

// Bytes of the stream: all slots in use, the last one of a pool up to the cursor if it is the current slot.
uint64_t stream_bytes(DynArrHandle_t *array, bool is_pool) {
  const Geometry geometry(array);
  const uint32_t n_used = tslb_da_get_size(array);
  const uint64_t whole = tslb_stored_slot_at(geometry.header_bytes, geometry.slot_bytes, n_used);
  if (!is_pool || n_used == 0) return whole;
  const uint64_t cursor = pool_header_of(array)->cur_slot_addr;
  if (tslb_stored_cursor_slot(cursor) != n_used - 1) return whole;
  return tslb_stored_slot_at(geometry.header_bytes, geometry.slot_bytes, n_used - 1) + geometry.shift +
         TSLB_MEM_SLOT_HDR_BYTES + tslb_stored_cursor_off(cursor);
}

}  // namespace

void Throttle::wrote(uint64_t bytes) {
  if (bytes_per_s_ == 0) return;
  if (start_ns_ == 0) start_ns_ = now_ns();
  bytes_ += bytes;
  const double due_s = static_cast<double>(bytes_) / static_cast<double>(bytes_per_s_);
  const int64_t wait_ns = start_ns_ + static_cast<int64_t>(due_s * static_cast<double>(NS_PER_S)) - now_ns();
  if (wait_ns <= 0) return;
  const timespec pause = {wait_ns / NS_PER_S, wait_ns % NS_PER_S};
  nanosleep(&pause, nullptr);
}

// The first compression allocates what all of them need: with the same parameters, and a size that zstd does not know before
// the end.
StreamWriter::StreamWriter(uint64_t bytes_per_s, bool compresses)
    : throttle_(bytes_per_s),
      pieces_(MAX_PIECES),
      compressor_(compresses ? ZSTD_createCCtx() : nullptr, ZSTD_freeCCtx),
      compressed_(compresses ? COMPRESSED_BYTES : 0),
      zeros_(compresses ? ZERO_BYTES : 0) {
  if (!compresses) return;
  if (!compressor_) throw std::bad_alloc();
  ZSTD_CCtx_setParameter(compressor_.get(), ZSTD_c_compressionLevel, COMPRESSION_LEVEL);
  pieces_[0] = {zeros_.data(), 1};
  n_pieces_ = 1;
  if (compress(false) != 0 || compress(true) != 0) throw std::bad_alloc();
  n_pieces_ = 0;
}

int StreamWriter::write(DynArrHandle_t *array, const ArrayDecl &decl, int fd, StoredFile &written) {
  array_ = array;
  decl_ = &decl;
  fd_ = fd;
  error_ = 0;
  written_ = {};
  bytes_left_ = stream_bytes(array, is_pool(decl.kind));
  on_disk_ = on_way_ = 0;
  tslb_iterate_dyn_array_blocks(array, add_block, this);
  if (error_ == 0) error_ = flush();
  if (error_ == 0 && decl.compresses) error_ = compress(true);
  // The walk ends early if a block is missing: an id was issued and memory for it was refused.
  if (error_ == 0 && bytes_left_ != 0) error_ = ENOMEM;
  written = written_;
  return error_;
}

int StreamWriter::add_block(DynamicArray_t, void *block, int, size_t bytes, int hdr_size, int, int, int, void *self) {
  auto *const writer = static_cast<StreamWriter *>(self);
  const size_t used = std::min<uint64_t>(bytes, writer->bytes_left_);
  writer->bytes_left_ -= used;
  auto *const from = static_cast<char *>(block);
  const bool has_unused = writer->decl_->compresses && writer->decl_->has_compat;
  if (!has_unused) return writer->error_ = writer->add(from, used);
  const Geometry geometry(writer->array_);
  size_t part = static_cast<size_t>(hdr_size);  // of block 0
  writer->error_ = writer->add(from, part);
  for (size_t at = part; writer->error_ == 0 && at < used; at += part) {
    part = std::min<size_t>(used - at, geometry.slot_bytes);
    writer->error_ = writer->add_pool_slot(from + at, part, geometry);
  }
  return writer->error_;
}

// Adds zeros in place of the bytes of a memory slot that no chunk has. What was in them would be compressed badly.
int StreamWriter::add_pool_slot(char *slot, size_t bytes, const Geometry &geometry) {
  const size_t first_unused = bytes_to_unused(slot, geometry);
  const size_t end = std::min<size_t>(bytes, geometry.shift + geometry.record_bytes);  // without the second node
  if (first_unused >= end) return add(slot, bytes);
  int error = add(slot, first_unused);
  for (size_t at = first_unused, part; error == 0 && at < end; at += part) {
    part = std::min(end - at, zeros_.size());
    error = add(zeros_.data(), part);
  }
  return error == 0 ? add(slot + end, bytes - end) : error;
}

int StreamWriter::add(char *from, size_t bytes) {
  if (bytes == 0) return 0;
  pieces_[n_pieces_++] = {from, bytes};
  piece_bytes_ += bytes;
  return n_pieces_ == MAX_PIECES || piece_bytes_ >= FLUSH_BYTES ? flush() : 0;
}

int StreamWriter::flush() {
  const int error = decl_->compresses ? compress(false) : put(pieces_.data(), n_pieces_, piece_bytes_);
  n_pieces_ = 0;
  piece_bytes_ = 0;
  return error;
}

// Compresses the pieces, or ends the frame.
int StreamWriter::compress(bool is_end) {
  for (size_t i = 0; i < (is_end ? 1 : n_pieces_); ++i) {
    ZSTD_inBuffer in = {nullptr, 0, 0};
    if (!is_end) in = {pieces_[i].iov_base, pieces_[i].iov_len, 0};
    for (size_t n_left = 1; is_end ? n_left != 0 : in.pos < in.size;) {
      ZSTD_outBuffer out = {compressed_.data(), compressed_.size(), 0};
      n_left = ZSTD_compressStream2(compressor_.get(), &out, &in, is_end ? ZSTD_e_end : ZSTD_e_continue);
      if (ZSTD_isError(n_left)) return EIO;
      iovec piece = {compressed_.data(), out.pos};
      if (out.pos == 0 || fd_ < 0) continue;
      if (const int error = put(&piece, 1, out.pos); error != 0) return error;
    }
  }
  return 0;
}

// Writes `bytes` bytes of pieces, which it changes.
int StreamWriter::put(iovec *pieces, size_t n_pieces, size_t bytes) {
  for (size_t i = 0; i < n_pieces; ++i)
    written_.crc32c = crc32c(pieces[i].iov_base, pieces[i].iov_len, written_.crc32c);
  written_.bytes += bytes;
  if (const int fault = take_io_step(); fault != 0) return fault;
  for (size_t first = 0; first < n_pieces;) {
    const ssize_t n_written = writev(fd_, pieces + first, static_cast<int>(n_pieces - first));
    if (n_written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    for (auto left = static_cast<size_t>(n_written); left != 0;) {
      iovec &piece = pieces[first];
      const size_t part = std::min(left, piece.iov_len);
      piece.iov_base = static_cast<char *>(piece.iov_base) + part;
      piece.iov_len -= part;
      left -= part;
      first += piece.iov_len == 0 ? 1 : 0;
    }
  }
  throttle_.wrote(bytes);
  return spread();
}

// Keeps the bytes that are not on the disk few. Otherwise the last sync would write the whole stream at once, and groups
// of the journal would wait for it.
int StreamWriter::spread() {
  const uint64_t end = written_.bytes;
  if (end - on_way_ < SPREAD_BYTES) return 0;
  const auto sync = [this](uint64_t from, uint64_t to, unsigned flags) {
    return sync_file_range(fd_, static_cast<off_t>(from), static_cast<off_t>(to - from), flags);
  };
  int failure = sync(on_way_, end, SYNC_FILE_RANGE_WRITE);
  // The wait reports errors of the disk, which the last sync would then not report again.
  if (failure == 0 && on_way_ != on_disk_) failure = sync(on_disk_, on_way_, SYNC_FILE_RANGE_WAIT_AFTER);
  on_disk_ = on_way_;
  on_way_ = end;
  // A file system that does not support this writes the stream at the last sync.
  return failure != 0 && errno != ENOSYS && errno != EINVAL && errno != ESPIPE ? errno : 0;
}

}  // namespace tslb_durable
