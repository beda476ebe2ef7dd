// The format of a journal file, for its writer and its reader. All numbers are little-endian. Nothing is aligned.
//
// clang-format off
//
// Head
//   0   8  magic
//   8   4  format version
//   12  4  CRC-32C of the other bytes of the head
//   16  8  number of the generation to which the journal belongs
//
// Entries, without gaps after it
//   0   4  length of the entry, these bytes included
//   4   4  CRC-32C of generation, position of the entry in the file and length (8, 8, 4 bytes), then of the entry from
//          byte 8 on
//   8   8  sequence number: 1 for the first entry of a file, then without gaps
//   16  1  kind
//
//          of a redo record                              of a mark
//   17  1  rec_type                                      0
//   18  1  1: data_ptr was not null; 0: it was           0
//   19  1  length of ctx_name                            0
//   20  4  tbl_id                                        0
//   24  8  txn_id                                        end of the part of the file that was synced
//   32  8  data_off                                      payload of the caller, to the end of the entry
//   40  4  aux_idx
//   44  4  data_sz
//   48     ctx_name, then data_sz bytes if data_ptr was not null
//
// clang-format on
//
// The redo records of a batch are followed by its commit mark, and are valid if the mark is complete. The other marks
// are between batches. The checksum includes generation and position, so bytes of another journal, of another position,
// or of a journal that was stored as data are not valid entries.
#pragma once

#include <tslb/redo_applier.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace metricdb {

enum class EntryKind : uint8_t {
  redo = 1,
  commit = 2,  // ends a batch
  opened = 3,  // first entry of a writer: everything before it is synced
  closed = 4,  // last entry of a writer that was closed: everything before it is synced
};

struct __attribute__((packed)) JournalHead {
  char magic[8];
  uint32_t version;
  uint32_t crc32c;
  uint64_t generation;
};

struct __attribute__((packed)) EntryHead {
  uint32_t length;
  uint32_t crc32c;
  uint64_t sequence;
  EntryKind kind;
  char rec_type;
  uint8_t has_data;
  uint8_t name_bytes;
  uint32_t tbl_id;
};

struct __attribute__((packed)) RedoHead {
  EntryHead entry;
  uint64_t txn_id;
  uint64_t data_off;
  uint32_t aux_idx;
  uint32_t data_sz;
};

struct __attribute__((packed)) MarkHead {
  EntryHead entry;
  uint64_t durable;
};

static_assert(sizeof(JournalHead) == 24 && offsetof(JournalHead, version) == 8 && offsetof(JournalHead, crc32c) == 12 &&
              offsetof(JournalHead, generation) == 16);
static_assert(sizeof(EntryHead) == 24 && offsetof(EntryHead, crc32c) == 4 && offsetof(EntryHead, sequence) == 8 &&
              offsetof(EntryHead, kind) == 16 && offsetof(EntryHead, rec_type) == 17 &&
              offsetof(EntryHead, has_data) == 18 && offsetof(EntryHead, name_bytes) == 19 &&
              offsetof(EntryHead, tbl_id) == 20);
static_assert(sizeof(RedoHead) == 48 && offsetof(RedoHead, txn_id) == 24 && offsetof(RedoHead, data_off) == 32 &&
              offsetof(RedoHead, aux_idx) == 40 && offsetof(RedoHead, data_sz) == 44);
static_assert(sizeof(MarkHead) == 32 && offsetof(MarkHead, durable) == 24);
static_assert(std::has_unique_object_representations_v<JournalHead> &&
              std::has_unique_object_representations_v<RedoHead> && std::has_unique_object_representations_v<MarkHead>);

inline constexpr std::string_view JOURNAL_MAGIC = {"mdb\xB5jrn\n", 8};
inline constexpr uint32_t JOURNAL_VERSION = 1;

inline constexpr size_t MAX_NAME_BYTES = 255;
inline constexpr uint32_t MAX_DATA_BYTES = 1u << 28;     // more than the largest memory slot
inline constexpr uint32_t MAX_PAYLOAD_BYTES = 1u << 16;  // limits the search for marks after a fault

// The place after the last mark, where a writer continues.
struct JournalPlace {
  uint64_t generation = 0;
  uint64_t position = 0;
  uint64_t next_sequence = 0;
};

// The place of the first entry of a file.
inline JournalPlace place_after_head(uint64_t generation) {
  return {generation, sizeof(JournalHead), 1};
}

JournalHead make_head(uint64_t generation);

// Append an entry to `to` and move `place` to its end. The record's name and data and the payload are within the
// limits.
void add_redo(std::string &to, JournalPlace &place, const redo_args_t &record);
void add_mark(std::string &to, JournalPlace &place, EntryKind kind, uint64_t durable, std::string_view payload);

// Returns the checksum of a complete entry at `position`.
uint32_t sum_of_entry(uint64_t generation, uint64_t position, std::string_view entry);

}  // namespace metricdb
