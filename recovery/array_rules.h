// Checks the rules in tslb_stored.h. Used by the loaders, by array_check for arrays in memory, and by tslb-inspect.
#ifndef ARRAY_RULES_H
#define ARRAY_RULES_H

#include <stdlib.h>

#include <memory>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_stored.h>

bool rule_is_fault(tslb_rule_t rule);

// Writes the text of a violation, cut to `size` with its terminator.
//
// values  one for each pair of braces in the rule's text.
void write_rule(tslb_rule_t rule, const uint64_t *values, char *text, size_t size);

// Receives violations. Positions are byte offsets in the flat image: the headers, then the slots in order.
class rule_sink_t {
 public:
  // Returns true to continue the checks.
  virtual bool violated(tslb_rule_t rule, uint64_t pos, const uint64_t *values) = 0;
  // Memory for one bit per slot could not be allocated. The checks end.
  virtual void no_memory(uint32_t n_slots) = 0;

 protected:
  ~rule_sink_t() = default;
};

// Provides the slots. The checks ask in any order, mostly ascending.
class slot_source_t {
 public:
  struct nodes_t {
    uint32_t status, next, prev;  // prev: TSLB_DA_NIL_IDX if the slot has no node_bw
  };
  struct counters_t {
    uint32_t used, deleted;
  };
  virtual nodes_t nodes_of(uint32_t idx) = 0;
  virtual counters_t counters_of(uint32_t idx) = 0;

 protected:
  ~slot_source_t() = default;
};

// Sizes that follow from an array's headers, in bytes and slots.
struct image_shape_t {
  uint64_t header_bytes;  // before slot 0
  uint64_t record_bytes;
  uint64_t slot_bytes;  // with nodes
  uint32_t shift;       // offset of the record in its slot
  uint32_t n_direct;
  uint32_t n_used;
  uint8_t daflag;
};

// Result of a walk along one list.
struct list_walk_t {
  uint32_t head, tail, count;  // the stored roots
  uint32_t length;             // slots visited
  uint32_t last;               // last slot visited
  bool is_complete;            // the walk reached the end of the list
};

// One bit for each slot.
class slot_marks_t {
 public:
  bool reset(uint32_t n_slots);  // false: no memory
  bool has(uint32_t idx) const { return (bits_.get()[idx / 8] >> idx % 8 & 1) != 0; }
  void set(uint32_t idx) { bits_.get()[idx / 8] = static_cast<uint8_t>(bits_.get()[idx / 8] | 1u << idx % 8); }

 private:
  struct free_t {
    void operator()(uint8_t *bits) const { free(bits); }
  };
  std::unique_ptr<uint8_t, free_t> bits_;
};

// Checks one array against the rules. Call the functions in the order of their declarations. Each returns false if the
// sink ended the checks.
class array_rules_t {
 public:
  explicit array_rules_t(rule_sink_t *sink) : sink_(sink) {}

  // DynHdr_t, which gives the positions of the other headers.
  bool check_start(const DynHdr_t &hdr);
  // All headers. `headers` is not used after the call. max_block_bytes 0: the maximum of creation.
  bool check_headers(const char *headers, uint64_t max_block_bytes);
  // The pool's header, if there is one according to `kind` (ARRAY_LOAD_*) and hdr_size.
  bool check_pool(uint8_t kind, bool is_ring);
  // Statuses, links and lists of the first `n_present` slots, which are less than n_used if the image ends too early.
  bool check_nodes(slot_source_t *slots, uint32_t n_present);
  // Counters of the memory slots, if there is a pool.
  bool check_counters(slot_source_t *slots, uint32_t n_present);
  // Chunks of memory slot `idx`, if the pool has compaction headers. `slot` is the slot's record.
  bool check_chunks(slot_source_t *slots, uint32_t idx, const char *slot);

  const DynHdr_t &hdr() const { return hdr_; }
  const DynMemHdr_t &pool_hdr() const { return pool_; }
  const image_shape_t &shape() const { return shape_; }
  bool has_nodes() const { return shape_.shift != 0; }
  // The array is a pool, and its slots are large enough for their counters.
  bool is_pool() const { return is_pool_; }
  uint32_t current_slot() const { return static_cast<uint32_t>(pool_.cur_slot_addr); }
  uint32_t cursor_off() const { return static_cast<uint32_t>(pool_.cur_slot_addr >> 32); }
  // Bytes for chunks in a memory slot.
  uint32_t slot_capacity() const;
  // Bytes from the start of a pool's last slot to the cursor. 0 if the last slot is not the current one.
  uint64_t last_slot_bytes() const { return last_slot_bytes_; }
  uint64_t lli_at() const { return sizeof(DynHdr_t) + hdr_.hdr_size; }
  uint64_t arr_hdr_at() const { return lli_at() + hdr_.lli_sz; }
  uint64_t slot_at(uint64_t idx) const { return shape_.header_bytes + idx * shape_.slot_bytes; }

  // Valid after check_nodes, for an array with nodes.
  const list_walk_t &walk_of(int list) const { return walks_[list]; }
  // Whether the slot has the status of a list but is not on that list.
  bool is_stray(uint32_t idx, uint32_t status) const;
  bool has_inactive_list() const { return (shape_.daflag & TSLB_DA_DAFLAG_INLL) != 0; }

 private:
  struct roots_t;

  template <class... Values>
  bool violated(tslb_rule_t rule, uint64_t pos, Values... values);
  bool check_sizes(uint64_t max_block_bytes, uint32_t n_alloc);
  bool check_cursor();
  bool check_totals();
  bool check_statuses(slot_source_t *slots);
  bool check_list(const roots_t &roots, slot_source_t *slots);
  bool check_member(const roots_t &roots, const slot_source_t::nodes_t &nodes, uint32_t idx, uint32_t before);
  bool check_unlisted(slot_source_t *slots);
  bool check_counters_of(uint32_t idx, const slot_source_t::counters_t &counters);
  bool has_completed_ring_shape() const;

  rule_sink_t *const sink_;
  DynHdr_t hdr_ = {};
  DynArrLLI_t lli_ = {};
  DynMemHdr_t pool_ = {};
  image_shape_t shape_ = {};
  bool is_pool_ = false;
  uint64_t last_slot_bytes_ = 0;
  uint32_t n_present_ = 0;
  slot_marks_t on_list_[2];
  list_walk_t walks_[2] = {};
};

#endif
