// The format of a journal file, for its writer and its reader. All numbers are little-endian. Nothing is aligned.
//
// clang-format off
//
// Head
//   0   8   magic
//   8   4   format version
//   12  4   CRC-32C of the other bytes of the head
//   16  16  identity of the store
//   32  8   number of the generation after which the journal was begun
//
// Frames, without gaps after it
//   0   4   length of the frame, these bytes included
//   4   4   CRC-32C of identity, generation, position of the frame in the file and length (16, 8, 8, 4 bytes), then of the
//           frame from byte 8 on
//   8   8   sequence number: 1 for the first frame of a file, then without gaps
//   16  1   kind: 1 group, 2 opened, 3 sealed
//   17  1   compression of the body: 0 none, 1 zstd
//   18  2   0
//   20  4   bytes of the body before compression
//   24  4   number of batches in a group, else 0
//   28  4   0
//   32  8   end of the part of the file that was synced when the frame was made
//   40      body of a group (changes.h), to the end of the frame
//
// clang-format on
//
// A group is valid as a whole or not at all. An opened frame begins the part of a writer, a sealed frame ends it; they
// have no body, and everything before them is synced. The checksum includes identity, generation and position, so bytes
// of another journal, of another position, or of a journal that was stored as data are not valid frames.
//
// Zeros after the last frame are disk space that was reserved.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace tslb_durable {

using Identity = std::array<uint8_t, 16>;

enum class FrameKind : uint8_t { group = 1, opened = 2, sealed = 3 };
enum class Compression : uint8_t { none = 0, zstd = 1 };

struct __attribute__((packed)) JournalHead {
  char magic[8];
  uint32_t version;
  uint32_t crc32c;
  uint8_t identity[16];
  uint64_t generation;
};

struct __attribute__((packed)) FrameHead {
  uint32_t length;
  uint32_t crc32c;
  uint64_t sequence;
  FrameKind kind;
  Compression compression;
  uint16_t zero;
  uint32_t raw_bytes;
  uint32_t n_batches;
  uint32_t zero2;
  uint64_t durable;
};

static_assert(sizeof(JournalHead) == 40 && offsetof(JournalHead, version) == 8 && offsetof(JournalHead, crc32c) == 12 &&
              offsetof(JournalHead, identity) == 16 && offsetof(JournalHead, generation) == 32);
static_assert(sizeof(FrameHead) == 40 && offsetof(FrameHead, crc32c) == 4 && offsetof(FrameHead, sequence) == 8 &&
              offsetof(FrameHead, kind) == 16 && offsetof(FrameHead, compression) == 17 &&
              offsetof(FrameHead, raw_bytes) == 20 && offsetof(FrameHead, n_batches) == 24 &&
              offsetof(FrameHead, durable) == 32);
static_assert(std::has_unique_object_representations_v<JournalHead> &&
              std::has_unique_object_representations_v<FrameHead>);

inline constexpr std::string_view JOURNAL_MAGIC = {"tsd\xB5jrn\n", 8};
inline constexpr uint32_t JOURNAL_VERSION = 1;
inline constexpr uint64_t MAX_BODY_BYTES = 1u << 30;

// The place after the last valid frame, where a writer continues.
struct JournalPlace {
  uint64_t position = 0;
  uint64_t next_sequence = 0;
  uint32_t crc32c = 0;  // of the file up to the position
  uint64_t synced = 0;  // end of the part that was synced before the last frame was made
};

// Identifies a journal.
struct JournalName {
  Identity identity;
  uint64_t generation;
};

JournalHead make_head(const JournalName &name);

// A frame without its place.
struct Frame {
  FrameKind kind;
  Compression compression = Compression::none;
  uint32_t raw_bytes = 0;
  uint32_t n_batches = 0;
};

// Returns the head of a frame with this body at a place.
FrameHead make_frame_head(const JournalName &name, const JournalPlace &place, const Frame &frame, uint64_t durable,
                          std::string_view body);

// Returns the checksum of a complete frame at `position`.
uint32_t sum_of_frame(const JournalName &name, uint64_t position, std::string_view frame);

// Compresses a body if this makes it shorter. Returns the stored bytes, which are `body` or in `buffer`.
std::string_view compress(std::string_view body, int level, std::string &buffer, Compression &compression);

// Returns the body of a frame. Sets `ok` to false if the stored bytes do not fit.
std::string_view decompress(const FrameHead &head, std::string_view stored, std::string &buffer, bool &ok);

}  // namespace tslb_durable
