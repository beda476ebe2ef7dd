// The checks of the rules in tslb_stored.h, for images that are read front to back, arrays in memory, and files that are
// inspected.
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

// Receives violations. Positions are bytes of the flat image: headers, then the slots one after the other.
class rule_sink_t {
 public:
  // Returns whether the checks go on.
  virtual bool violated(tslb_rule_t rule, uint64_t pos, const uint64_t *values) = 0;
  // Memory for one bit per slot was refused; the checks end.
  virtual void no_memory(uint32_t n_slots) = 0;

 protected:
  ~rule_sink_t() = default;
};

// Gives the slots to the checks, in any order but mostly ascending.
class slot_source_t {
 public:
  struct nodes_t {
    uint32_t status, next, prev;  // prev: TSLB_DA_NIL_IDX where the slot has no second node
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
  uint64_t slot_bytes;  // nodes included
  uint32_t shift;       // of the record in its slot
  uint32_t n_direct;
  uint32_t n_used;
  uint8_t daflag;
};

// What a walk along one list met.
struct list_walk_t {
  uint32_t head, tail, count;  // as the roots say
  uint32_t length;             // slots met
  uint32_t last;               // the last one of them
  bool is_complete;            // the walk reached the list's end
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

// Checks one array against the rules. The calls come in the order in which they stand here, each after the one before it.
// All of them return false if the sink ended the checks.
class array_rules_t {
 public:
  explicit array_rules_t(rule_sink_t *sink) : sink_(sink) {}

  // DynHdr_t, which says where the other headers stand.
  bool check_start(const DynHdr_t &hdr);
  // All headers. `headers` is read here alone. max_block_bytes 0: as much as creation allows.
  bool check_headers(const char *headers, uint64_t max_block_bytes);
  // The pool's header, if `kind` (ARRAY_LOAD_*) and its size say that there is one.
  bool check_pool(uint8_t kind, bool is_ring);
  // Statuses, links and lists of the first `n_present` slots; fewer than n_used where an image ends too early.
  bool check_nodes(slot_source_t *slots, uint32_t n_present);
  // Counters of the memory slots, if there is a pool.
  bool check_counters(slot_source_t *slots, uint32_t n_present);
  // Chunks of memory slot `idx`, whose record is `slot`, if the pool has compaction headers.
  bool check_chunks(slot_source_t *slots, uint32_t idx, const char *slot);

  const DynHdr_t &hdr() const { return hdr_; }
  const DynMemHdr_t &pool_hdr() const { return pool_; }
  const image_shape_t &shape() const { return shape_; }
  bool has_nodes() const { return shape_.shift != 0; }
  // A pool whose slots have room for their counters.
  bool is_pool() const { return is_pool_; }
  uint32_t current_slot() const { return static_cast<uint32_t>(pool_.cur_slot_addr); }
  uint32_t cursor_off() const { return static_cast<uint32_t>(pool_.cur_slot_addr >> 32); }
  // Bytes of a memory slot that chunks can use.
  uint32_t slot_capacity() const;
  // From the start of a pool's last slot, what the cursor has reached; 0 if that slot is not the current one.
  uint64_t last_slot_bytes() const { return last_slot_bytes_; }
  uint64_t lli_at() const { return sizeof(DynHdr_t) + hdr_.hdr_size; }
  uint64_t arr_hdr_at() const { return lli_at() + hdr_.lli_sz; }
  uint64_t slot_at(uint64_t idx) const { return shape_.header_bytes + idx * shape_.slot_bytes; }

  // After check_nodes, for an array with nodes.
  const list_walk_t &walk_of(int list) const { return walks_[list]; }
  // Claims a list and is not on it.
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
