// Result of an analysis: facts and findings about one stored array, as values without formatting. Every renderer uses
// it. Its size does not depend on the array: slot_rows_t provides the values of each slot. Sizes are in bytes. Offsets
// are positions in a file. Headers are in file 0; a finding names its file.
#ifndef TSLB_INSPECT_REPORT_H
#define TSLB_INSPECT_REPORT_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "layout.h"

namespace inspect {

// Position in a file. A stream has the block number 0.
struct location_t {
  uint32_t block_num = 0;
  uint64_t offset = 0;
};

// A fault violates a condition on which the library relies. A remark is unusual, but the array is usable.
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
  std::string meaning;  // explanation of the value, or empty
};

// One of the structures before the first slot.
struct header_t {
  std::string name;
  uint64_t offset, bytes;
  std::vector<field_t> fields;  // fields whose bytes are in the file
  std::string raw;              // bytes of a user header that is not a pool's
};

// One level of tables of a loaded array.
struct level_t {
  unsigned level;
  uint64_t first_id, ids;
  uint64_t used;  // slots with an id that was issued
  uint64_t first_block, blocks;
  uint64_t tables;
  uint64_t block_bytes, table_bytes;  // of all blocks and tables of the level
};

struct geometry_t {
  uint64_t header_bytes = 0, record_bytes = 0, node_bytes = 0, slot_bytes = 0, shift = 0;
  uint8_t daflag = 0;
  uint64_t n_direct = 0, n_used = 0;
  uint64_t n_present = 0;  // slots whose bytes are in the files, with a cut last slot
  uint64_t n_direct_used = 0;
  uint64_t capacity = 0;
  uint64_t block0_bytes = 0, data_block_bytes = 0, data_blocks = 0;
  std::vector<level_t> levels;
  uint64_t root_table_bytes = 0;  // process memory
  uint64_t table_bytes = 0;       // process memory of all tables, with the root table
  uint64_t image_bytes = 0;       // headers and used slots
  uint64_t stored_bytes = 0;      // size of all files
};

struct list_t {
  std::string name;
  uint32_t head, tail, count;
  uint64_t length;   // slots visited by the walk
  uint32_t last;     // last slot visited
  bool is_complete;  // the walk reached the end of the list
};

struct statuses_t {
  uint64_t n_unset = 0, n_free = 0, n_active = 0, n_inactive = 0, n_not_ready = 0, n_other = 0;
};

enum class pool_slot_state_t { CURRENT, FILLED, FREE, UNSET };

// Bytes of chunks, with their compaction headers. A slot that is free or was never taken has none.
struct pool_slot_t {
  pool_slot_state_t state;
  uint32_t used, deleted;
  uint32_t tail;  // after the chunks: lost unless the slot is the current one
};

// Maximum number of pool slots in a text or a page. JSON has all slots.
constexpr size_t MAX_POOL_ROWS = 64;

struct pool_t {
  std::string kind;
  uint64_t slot_capacity = 0;  // bytes of a slot that chunks can use
  uint64_t n_slots = 0;
  std::vector<pool_slot_t> first_slots;  // up to MAX_POOL_ROWS
  uint64_t n_filled = 0, n_free = 0, n_unset = 0;
  uint32_t current = 0;  // index of the current slot; n_slots or more if there is none
  uint64_t used = 0, deleted = 0, tail_lost = 0, tail_open = 0;
};

// Use of a slot in the picture. ABSENT: its bytes are missing. UNISSUED: it has memory, but its id was not issued.
enum use_t { USE_ACTIVE, USE_FREE, USE_INACTIVE, USE_OTHER, USE_ABSENT, USE_UNISSUED, N_USES };

// The slots of an array in a bounded number of cells, for pictures and for the map of a page.
constexpr size_t CELL_COLUMNS = 32;
constexpr size_t MAX_CELLS = CELL_COLUMNS * 20;
constexpr size_t MAX_PAGE_CELLS = 1 << 14;

struct cell_t {
  uint64_t first, slots;
  std::array<uint64_t, N_USES> counts;
  bool has_stray;
  // Of a pool's slots that are neither free nor unset: bytes in chunks that are not deleted, bytes in all chunks, and
  // bytes for chunks.
  uint64_t live, used, room;
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
  std::string bytes;    // bytes of the slot that are in the file
  uint64_t head_bytes;  // size of the node before the record
  uint64_t tail_bytes;  // size of the node after the record
};

// A record in a page.
struct sample_t {
  uint32_t id;
  uint32_t status;    // TSLB_DA_SLOT_*; active in an array without nodes
  std::string bytes;  // of the record that are in the file
};

// What the sidecar of the files says. ABSENT: there is none, so nothing says whether the contents are as they were
// written. CONTRADICTED: the files are not those that were sealed, or the sidecar is damaged.
enum class seal_state_t { ABSENT, VERIFIED, CONTRADICTED };

struct seal_t {
  seal_state_t state;
  std::string path;
  std::string writer, time;         // empty if the sidecar cannot be read
  std::vector<std::string> faults;  // one line each
};

struct stored_file_t {
  std::string name;
  uint32_t block_num;
  uint64_t bytes;
};

// The slots of an analysed array. They are read again from the store.
class slot_rows_t {
 public:
  virtual ~slot_rows_t() = default;
  // Number of slots with nodes, and with counters; 0 if the array has none.
  virtual uint64_t n_node_slots() const = 0;
  virtual uint64_t n_pool_slots() const = 0;
  // Whether the slot has the status of a list but is not on that list.
  virtual bool is_stray(uint32_t idx) = 0;
  virtual pool_slot_t pool_slot(uint32_t idx) = 0;
};

struct report_t {
  std::string name;
  bool is_stream = true;
  bool is_cut = false;  // a stream whose last slot is cut at the pool's cursor
  std::vector<stored_file_t> files;
  uint8_t kind = 0;                // ARRAY_LOAD_* by which the user header was read
  std::optional<seal_t> seal;      // not set if sidecars are not examined, or this one could not be read
  std::string unread_sidecar;      // why not; the text begins with the path
  std::optional<layout_t> layout;  // of the records
  std::vector<header_t> headers;
  std::optional<geometry_t> geometry;  // set if the headers are complete
  bool has_nodes = false;
  statuses_t statuses;
  std::vector<list_t> lists;
  std::optional<pool_t> pool;
  heat_map_t map;       // of up to MAX_CELLS
  heat_map_t page_map;  // of up to MAX_PAGE_CELLS, if the analysis is for a page
  std::optional<record_t> record;
  std::vector<sample_t> samples;    // the first records in use
  std::vector<finding_t> findings;  // at most MAX_FINDINGS, in the order of the checks
  uint64_t n_faults = 0, n_remarks = 0;

  // Of the headers and lists alone: the contents can be others than those that were sealed.
  bool is_sound() const { return n_faults == 0; }
  bool is_contradicted() const { return seal && seal->state == seal_state_t::CONTRADICTED; }
  bool is_good() const { return is_sound() && !is_contradicted(); }
};

}  // namespace inspect

#endif
