// What was found out about one stored array: facts and findings, in plain values that every renderer shows in its own
// way. It does not grow with the array: what there is of each slot comes from slot_rows_t. Sizes are in bytes. Offsets are those of a file, which each finding and header names by its block.
#ifndef TSLB_INSPECT_REPORT_H
#define TSLB_INSPECT_REPORT_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace inspect {

// A stream is one file and has the block number 0.
struct location_t {
  uint32_t block_num = 0;
  uint64_t offset = 0;
};

// A fault contradicts what the library relies on. A remark is unusual, and an array can be used in spite of it.
enum class severity_t { FAULT, REMARK };

struct finding_t {
  severity_t severity;
  std::string file;
  uint64_t offset;
  std::string text;
};

struct field_t {
  std::string name;
  uint64_t offset;
  uint32_t bytes;
  uint64_t value;
  bool is_signed;
  std::string meaning;  // of a value that is not a plain number; else empty
};

// One of the structures ahead of the first slot.
struct header_t {
  std::string name;
  uint64_t offset, bytes;
  std::vector<field_t> fields;  // those whose bytes are there
  std::string raw;              // of a user header that nobody here can read
};

// What an attached array has of one level of tables.
struct level_t {
  unsigned level;
  uint64_t first_id, ids;
  uint64_t used;  // slots with an id that was issued
  uint64_t first_block, blocks;
  uint64_t tables;
  uint64_t block_bytes, table_bytes;  // of all of them
};

struct geometry_t {
  uint64_t header_bytes = 0, record_bytes = 0, node_bytes = 0, slot_bytes = 0, shift = 0;
  uint8_t daflag = 0;
  uint64_t n_direct = 0, n_used = 0;
  uint64_t n_present = 0;  // slots whose bytes are there, a cut last one among them
  uint64_t n_direct_used = 0;
  uint64_t capacity = 0;
  uint64_t block0_bytes = 0, data_block_bytes = 0, data_blocks = 0;
  std::vector<level_t> levels;
  uint64_t root_table_bytes = 0, table_bytes = 0;  // process memory; the second is all of it
  uint64_t image_bytes = 0;                        // headers and used slots
  uint64_t stored_bytes = 0;                       // of the files
};

struct list_t {
  std::string name;
  uint32_t head, tail, count;
  uint64_t length;   // slots that the walk met
  uint32_t last;     // the last one of them
  bool is_complete;  // the walk reached the end of the list
};

struct statuses_t {
  uint64_t n_unset = 0, n_free = 0, n_active = 0, n_inactive = 0, n_not_ready = 0, n_other = 0;
};

enum class pool_slot_state_t { CURRENT, FILLED, FREE, UNSET };

// Bytes of chunks, compaction headers included. A slot that is free or was never taken has none.
struct pool_slot_t {
  pool_slot_state_t state;
  uint32_t used, deleted;
  uint32_t tail;  // after the chunks: lost in a slot that is not current
};

// Slots of a pool that a text and a page show. JSON has them all.
constexpr size_t MAX_POOL_ROWS = 64;

struct pool_t {
  std::string kind;
  uint64_t slot_capacity = 0;  // bytes of a slot that chunks can use
  uint64_t n_slots = 0;
  std::vector<pool_slot_t> first_slots;  // up to MAX_POOL_ROWS
  uint64_t n_filled = 0, n_free = 0, n_unset = 0;
  uint64_t used = 0, deleted = 0, tail_lost = 0, tail_open = 0;
};

// What a slot is in the picture. ABSENT: its bytes are missing. UNISSUED: memory without an id yet.
enum use_t { USE_ACTIVE, USE_FREE, USE_INACTIVE, USE_OTHER, USE_ABSENT, USE_UNISSUED, N_USES };

// The slots of an array as a bounded number of cells, for pictures.
constexpr size_t CELL_COLUMNS = 32;
constexpr size_t MAX_CELLS = CELL_COLUMNS * 20;

struct cell_t {
  uint64_t first, slots;
  std::array<uint64_t, N_USES> counts;
  bool has_stray;
  // Of a pool, without slots that are free or unset: bytes in chunks that are not deleted, and bytes for chunks.
  uint64_t live, room;
};

struct heat_map_t {
  uint64_t slots_per_cell = 1;  // a power of 2
  std::vector<cell_t> cells;
};

struct record_t {
  uint32_t id;
  std::string file;
  uint64_t offset;  // of the slot
  uint64_t slot_bytes;
  std::string bytes;    // of the slot, as far as they are there
  uint64_t head_bytes;  // of the node ahead of the record
  uint64_t tail_bytes;  // of the node behind it
};

struct stored_file_t {
  std::string name;
  uint32_t block_num;
  uint64_t bytes;
};

// The slots of an array that was analysed, read once more from its store.
class slot_rows_t {
 public:
  virtual ~slot_rows_t() = default;
  // Slots with nodes and with counters; 0 where the array has none.
  virtual uint64_t n_node_slots() const = 0;
  virtual uint64_t n_pool_slots() const = 0;
  // Claims a list and is not on it.
  virtual bool is_stray(uint32_t idx) = 0;
  virtual pool_slot_t pool_slot(uint32_t idx) = 0;
};

struct report_t {
  std::string name;
  bool is_stream = true;
  std::vector<stored_file_t> files;
  std::vector<header_t> headers;
  std::optional<geometry_t> geometry;  // if the headers are there
  bool has_nodes = false;
  statuses_t statuses;
  std::vector<list_t> lists;
  std::optional<pool_t> pool;
  heat_map_t map;
  std::optional<record_t> record;
  std::vector<finding_t> findings;  // the first of them, in the order in which they were met
  uint64_t n_faults = 0, n_remarks = 0;

  bool is_sound() const { return n_faults == 0; }
};

}  // namespace inspect

#endif
