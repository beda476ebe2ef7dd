// Checks the rules of stored arrays. Headers, nodes and counters can have any values.
#include "array_rules.h"

#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <initializer_list>

#include <tslb/array_loader.h>

namespace {

constexpr uint32_t NONE = TSLB_DA_NIL_IDX;
constexpr uint8_t LIST_FLAGS = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;
constexpr uint8_t POOL_FLAGS = MPOOL_FLAG_COMPAT | MPOOL_FLAG_PERSIST | MPOOL_FLAG_BV;

struct rule_t {
  bool is_fault;
  const char *text;
};
constexpr bool FAULT = true, REMARK = false;
constexpr rule_t RULES[] = {
#define RULE(id, severity, text) {severity, text},
    TSLB_STORED_RULES(RULE)
#undef RULE
};

void append(const char *piece, size_t len, char *text, size_t size, size_t *used) {
  if (size == 0) return;
  const size_t taken = std::min(len, size - 1 - *used);
  memcpy(text + *used, piece, taken);
  *used += taken;
  text[*used] = '\0';
}

}  // namespace

bool rule_is_fault(tslb_rule_t rule) {
  return RULES[rule].is_fault;
}

void write_rule(tslb_rule_t rule, const uint64_t *values, char *text, size_t size) {
  size_t used = 0;
  for (const char *at = RULES[rule].text; *at != '\0';) {
    const char *const brace = strchr(at, '{');
    append(at, brace != nullptr ? static_cast<size_t>(brace - at) : strlen(at), text, size, &used);
    if (brace == nullptr) return;
    const uint64_t value = *values++;
    char piece[24];
    if (brace[1] == 'x')
      snprintf(piece, sizeof(piece), "0x%02llx", static_cast<unsigned long long>(value));
    else if (brace[1] == 'l')
      strcpy(piece, value == TSLB_RULE_FREE_LIST ? "free list" : "inactive list");
    else if (brace[1] == 's')
      strcpy(piece, value == TSLB_RULE_FREE_LIST ? "free" : "inactive");
    else
      snprintf(piece, sizeof(piece), "%llu", static_cast<unsigned long long>(value));
    append(piece, strlen(piece), text, size, &used);
    at = strchr(brace, '}') + 1;
  }
}

bool slot_marks_t::reset(uint32_t n_slots) {
  bits_.reset(static_cast<uint8_t *>(calloc(n_slots / 8 + 1, 1)));
  return bits_ != nullptr;
}

template <class... Values>
bool array_rules_t::violated(tslb_rule_t rule, uint64_t pos, Values... values) {
  static_assert(sizeof...(values) <= TSLB_RULE_MAX_VALUES);
  const uint64_t all[TSLB_RULE_MAX_VALUES] = {static_cast<uint64_t>(values)...};
  return sink_->violated(rule, pos, all);
}

// ---- Headers -------------------------------------------------------------------------------------------------------

bool array_rules_t::check_start(const DynHdr_t &hdr) {
  hdr_ = hdr;
  if (hdr.lib_version != TSLB_LIB_VERSION &&
      !violated(TSLB_RULE_HDR_LIB_VERSION, offsetof(DynHdr_t, lib_version), hdr.lib_version, TSLB_LIB_VERSION))
    return false;
  if (hdr.pad != 0 && !violated(TSLB_RULE_HDR_PAD, offsetof(DynHdr_t, pad), hdr.pad)) return false;
  if (hdr.lli_sz != 0 && hdr.lli_sz != sizeof(DynArrLLI_t) &&
      !violated(TSLB_RULE_HDR_LLI_SIZE, offsetof(DynHdr_t, lli_sz), hdr.lli_sz, sizeof(DynArrLLI_t)))
    return false;
  shape_.header_bytes = arr_hdr_at() + sizeof(DynArrHdr_t);
  return true;
}

bool array_rules_t::check_headers(const char *headers, uint64_t max_block_bytes) {
  if (hdr_.lli_sz >= sizeof(lli_)) memcpy(&lli_, headers + lli_at(), sizeof(lli_));
  if (hdr_.hdr_size == sizeof(pool_)) memcpy(&pool_, headers + sizeof(DynHdr_t), sizeof(pool_));
  struct {
    uint32_t n_alloc, n_used, n_direct, record_size;
  } counts;
  static_assert(sizeof(counts) == sizeof(DynArrHdr_t), "its fields, without the tail");
  memcpy(&counts, headers + arr_hdr_at(), sizeof(counts));

  const uint64_t lltype_at = lli_at() + offsetof(DynArrLLI_t, lltype);
  const bool has_lists = hdr_.lli_sz >= sizeof(lli_) && (lli_.lltype & LIST_FLAGS) != 0;
  if (hdr_.lli_sz == sizeof(lli_) && !has_lists && !violated(TSLB_RULE_LLI_NO_LIST, lltype_at, lli_.lltype))
    return false;
  if (has_lists && (lli_.lltype & ~LIST_FLAGS) != 0 && !violated(TSLB_RULE_LLI_TYPE_BITS, lltype_at, lli_.lltype))
    return false;
  shape_.daflag = has_lists ? lli_.lltype : 0;
  shape_.shift = has_lists ? sizeof(node_fw) : 0;
  shape_.record_bytes = counts.record_size;
  shape_.slot_bytes = counts.record_size + uint64_t{shape_.shift} + (has_inactive_list() ? sizeof(node_bw) : 0);
  shape_.n_direct = counts.n_direct;
  shape_.n_used = counts.n_used;
  return check_sizes(max_block_bytes, counts.n_alloc);
}

// Sizes that creation refuses, and sizes for which a short image would need much memory.
bool array_rules_t::check_sizes(uint64_t max_block_bytes, uint32_t n_alloc) {
  const uint64_t n_direct_at = arr_hdr_at() + offsetof(DynArrHdr_t, n_direct);
  const uint64_t n_used_at = arr_hdr_at() + offsetof(DynArrHdr_t, n_used);
  const uint64_t record_size_at = arr_hdr_at() + offsetof(DynArrHdr_t, record_size);
  const uint64_t limit = max_block_bytes != 0 ? max_block_bytes : UINT64_MAX;
  // No overflow: a slot has less than 2^33 bytes, and the product is used only if n_direct is less than 2^31.
  const uint64_t block0_bytes = shape_.header_bytes + shape_.slot_bytes * shape_.n_direct;
  const uint64_t block_bytes = shape_.slot_bytes * TSLB_SLOTS_PER_BLOCK;
  const bool has_direct = shape_.n_direct <= INT_MAX;
  if (!has_direct && !violated(TSLB_RULE_ARR_N_DIRECT, n_direct_at, shape_.n_direct)) return false;
  if (shape_.n_used > shape_.n_direct + TSLB_IDS_BEYOND_DIRECT &&
      !violated(TSLB_RULE_ARR_N_USED, n_used_at, shape_.n_used, shape_.n_direct))
    return false;
  // The length of an image could not confirm the number of slots without bytes.
  if (shape_.slot_bytes == 0 && shape_.n_used != 0 && !violated(TSLB_RULE_ARR_NO_BYTES, record_size_at, shape_.n_used))
    return false;
  if (block_bytes > UINT32_MAX && !violated(TSLB_RULE_ARR_RECORD_SIZE, record_size_at, shape_.record_bytes))
    return false;
  if (has_direct && (block0_bytes > INT_MAX || block0_bytes > limit) &&
      !violated(TSLB_RULE_ARR_BLOCK0, n_direct_at, shape_.n_direct, shape_.slot_bytes))
    return false;
  const uint64_t n_beyond = shape_.n_used > shape_.n_direct ? shape_.n_used - shape_.n_direct : 0;
  if (n_beyond != 0 && block_bytes > limit && !violated(TSLB_RULE_ARR_DATA_BLOCK, record_size_at, shape_.record_bytes))
    return false;
  const uint64_t n_backed =
      shape_.n_direct + (std::min<uint64_t>(n_beyond, TSLB_IDS_BEYOND_DIRECT) + TSLB_SLOTS_PER_BLOCK - 1) /
                            TSLB_SLOTS_PER_BLOCK * TSLB_SLOTS_PER_BLOCK;
  return n_alloc == n_backed ||
         violated(TSLB_RULE_ARR_N_ALLOC, arr_hdr_at() + offsetof(DynArrHdr_t, n_alloc), n_alloc, n_backed);
}

// ---- A pool's header -----------------------------------------------------------------------------------------------

bool array_rules_t::check_pool(uint8_t kind, bool is_ring) {
  const bool fits = hdr_.hdr_size == sizeof(DynMemHdr_t);
  if (kind == ARRAY_LOAD_ANY || (kind == ARRAY_LOAD_POOL_BY_SIZE && !fits)) return true;
  if (!fits) return violated(TSLB_RULE_POOL_HDR_SIZE, offsetof(DynHdr_t, hdr_size), hdr_.hdr_size, sizeof(DynMemHdr_t));

  const uint64_t mslot_sz_at = sizeof(DynHdr_t) + offsetof(DynMemHdr_t, mslot_sz);
  if (uint64_t{pool_.mslot_sz} + sizeof(MemSlot_t) != shape_.record_bytes) {
    if (!violated(TSLB_RULE_POOL_MSLOT_SIZE, mslot_sz_at, pool_.mslot_sz, shape_.record_bytes)) return false;
  } else if (pool_.mslot_sz % sizeof(uint32_t) != 0) {
    // Creation rounds mslot_sz up, so that the counters of each slot are aligned.
    if (!violated(TSLB_RULE_POOL_MSLOT_STEP, mslot_sz_at, pool_.mslot_sz, sizeof(uint32_t))) return false;
  }
  if (is_ring && (pool_.flag & MPOOL_FLAG_BV) != 0 && shape_.n_used > TSLB_RING_SLOTS &&
      !violated(TSLB_RULE_POOL_RING, arr_hdr_at() + offsetof(DynArrHdr_t, n_used), shape_.n_used, TSLB_RING_SLOTS))
    return false;
  is_pool_ = shape_.record_bytes >= sizeof(MemSlot_t);
  return !is_pool_ || (check_cursor() && check_totals());
}

bool array_rules_t::check_cursor() {
  const uint64_t cursor_at = sizeof(DynHdr_t) + offsetof(DynMemHdr_t, cur_slot_addr);
  const uint32_t idx = current_slot(), off = cursor_off();
  if (idx != NONE && idx >= shape_.n_used && !violated(TSLB_RULE_POOL_CURSOR_SLOT, cursor_at, idx, shape_.n_used))
    return false;
  if (off > pool_.mslot_sz)
    return violated(TSLB_RULE_POOL_CURSOR_BYTE, cursor_at + offsetof(MemSlotAddr_t, byte_off), off, pool_.mslot_sz);
  if (idx != NONE && idx == shape_.n_used - 1) last_slot_bytes_ = uint64_t{off} + shape_.shift + sizeof(MemSlot_t);
  return true;
}

bool array_rules_t::check_totals() {
  const auto at = [](size_t offset) { return sizeof(DynHdr_t) + offset; };
  const uint8_t flag = static_cast<uint8_t>(pool_.flag);
  if ((flag & ~POOL_FLAGS) != 0 && !violated(TSLB_RULE_POOL_FLAG_BITS, at(offsetof(DynMemHdr_t, flag)), flag))
    return false;
  const uint8_t pad = static_cast<uint8_t>(pool_.pad_byte);
  if (pad != 0 && !violated(TSLB_RULE_POOL_PAD, at(offsetof(DynMemHdr_t, pad_byte)), pad)) return false;
  if (pool_.total_msz < shape_.header_bytes &&
      !violated(TSLB_RULE_POOL_TOTAL_SIZE, at(offsetof(DynMemHdr_t, total_msz)), pool_.total_msz, shape_.header_bytes))
    return false;
  return pool_.total_mdel == 0 ||
         violated(TSLB_RULE_POOL_TOTAL_DELETED, at(offsetof(DynMemHdr_t, total_mdel)), pool_.total_mdel);
}

uint32_t array_rules_t::slot_capacity() const {
  return static_cast<uint32_t>(std::min<uint64_t>(pool_.mslot_sz, shape_.record_bytes - sizeof(MemSlot_t)));
}

// Whether the pool can be a ring that has started again at slot 0. The image does not store whether a pool is a ring.
bool array_rules_t::has_completed_ring_shape() const {
  return (pool_.flag & MPOOL_FLAG_BV) != 0 && shape_.n_used == TSLB_RING_SLOTS;
}

// ---- Nodes and lists -----------------------------------------------------------------------------------------------

// One of the two lists: its roots and their positions in the image.
struct array_rules_t::roots_t {
  int list;
  uint32_t head, tail, count;
  uint64_t head_at, tail_at, count_at;
  uint32_t status;
  bool has_prev;
};

bool array_rules_t::check_nodes(slot_source_t *slots, uint32_t n_present) {
  n_present_ = n_present;
  if (!has_nodes()) return true;
  for (slot_marks_t &marks : on_list_) {
    if (marks.reset(n_present)) continue;
    sink_->no_memory(n_present);
    return false;
  }
  const auto at = [this](size_t offset) { return lli_at() + offset; };
  const roots_t free_list = {TSLB_RULE_FREE_LIST,
                             lli_.free_head,
                             lli_.free_tail,
                             lli_.n_free,
                             at(offsetof(DynArrLLI_t, free_head)),
                             at(offsetof(DynArrLLI_t, free_tail)),
                             at(offsetof(DynArrLLI_t, n_free)),
                             TSLB_DA_SLOT_FREE,
                             false};
  const roots_t inactive_list = {TSLB_RULE_INACTIVE_LIST,
                                 lli_.inact_head,
                                 lli_.inact_tail,
                                 lli_.n_inact,
                                 at(offsetof(DynArrLLI_t, inact_head)),
                                 at(offsetof(DynArrLLI_t, inact_tail)),
                                 at(offsetof(DynArrLLI_t, n_inact)),
                                 TSLB_DA_SLOT_INACTIVE,
                                 true};
  if (!check_statuses(slots) || !check_list(free_list, slots)) return false;
  if (has_inactive_list()) {
    if (!check_list(inactive_list, slots)) return false;
  } else if ((lli_.inact_head != NONE || lli_.inact_tail != NONE || lli_.n_inact != 0) &&
             !violated(TSLB_RULE_LIST_NONE, inactive_list.head_at, lli_.lltype)) {
    return false;
  }
  return check_unlisted(slots);
}

bool array_rules_t::check_statuses(slot_source_t *slots) {
  for (uint32_t idx = 0; idx < n_present_; ++idx) {
    const uint32_t status = slots->nodes_of(idx).status;
    const bool is_known = status <= TSLB_DA_SLOT_INACTIVE || status == TSLB_DA_SLOT_NOT_READY;
    if (!is_known && !violated(TSLB_RULE_SLOT_STATUS, slot_at(idx), status, idx)) return false;
    if (status == TSLB_DA_SLOT_INACTIVE && !has_inactive_list() &&
        !violated(TSLB_RULE_SLOT_NOT_INACTIVE, slot_at(idx), status, idx))
      return false;
  }
  return true;
}

// Visits each slot at most once: a mark on a visited slot ends a walk in a cycle.
bool array_rules_t::check_list(const roots_t &roots, slot_source_t *slots) {
  list_walk_t &walk = walks_[roots.list];
  walk = {roots.head, roots.tail, roots.count, 0, NONE, false};
  slot_marks_t &marks = on_list_[roots.list];
  uint64_t link_at = roots.head_at;
  uint32_t idx = roots.head;
  while (idx != NONE) {
    const bool is_slot = idx < shape_.n_used, is_present = idx < n_present_;
    if (!is_slot && !violated(TSLB_RULE_LIST_LINK, link_at, roots.list, idx, shape_.n_used)) return false;
    if (is_slot && !is_present && !violated(TSLB_RULE_LIST_ABSENT, link_at, roots.list, idx)) return false;
    if (!is_present) break;
    if (marks.has(idx)) {
      if (!violated(TSLB_RULE_LIST_RING, link_at, roots.list, idx)) return false;
      break;
    }
    marks.set(idx);
    const slot_source_t::nodes_t nodes = slots->nodes_of(idx);
    if (!check_member(roots, nodes, idx, walk.last)) return false;
    walk.last = idx;
    ++walk.length;
    link_at = slot_at(idx) + offsetof(node_fw, next);
    idx = nodes.next;
  }
  walk.is_complete = idx == NONE;
  if (roots.count > shape_.n_used) {
    if (!violated(TSLB_RULE_LIST_COUNT_RANGE, roots.count_at, roots.list, roots.count, shape_.n_used)) return false;
  } else if (walk.is_complete && walk.length != roots.count) {
    if (!violated(TSLB_RULE_LIST_COUNT, roots.count_at, roots.list, roots.count, walk.length)) return false;
  }
  return !walk.is_complete || walk.last == roots.tail ||
         violated(TSLB_RULE_LIST_TAIL, roots.tail_at, roots.tail, roots.list, walk.last);
}

bool array_rules_t::check_member(const roots_t &roots, const slot_source_t::nodes_t &nodes, uint32_t idx,
                                 uint32_t before) {
  if (nodes.status != roots.status && !violated(TSLB_RULE_LIST_STATUS, slot_at(idx), nodes.status, roots.list, idx))
    return false;
  return !roots.has_prev || nodes.prev == before ||
         violated(TSLB_RULE_LIST_PREV, slot_at(idx) + shape_.shift + shape_.record_bytes, nodes.prev, idx, roots.list,
                  before);
}

bool array_rules_t::is_stray(uint32_t idx, uint32_t status) const {
  return (status == TSLB_DA_SLOT_FREE && !on_list_[TSLB_RULE_FREE_LIST].has(idx)) ||
         (status == TSLB_DA_SLOT_INACTIVE && !on_list_[TSLB_RULE_INACTIVE_LIST].has(idx));
}

// Reports slots that have the status of a list but are not on it: unlinking such a slot would break the list. Reports
// links of active slots. Links of other slots are not checked: an id that was never taken has zeroed nodes, and the
// redo log does not contain the back link of a freed slot.
bool array_rules_t::check_unlisted(slot_source_t *slots) {
  for (uint32_t idx = 0; idx < n_present_; ++idx) {
    const slot_source_t::nodes_t nodes = slots->nodes_of(idx);
    const bool is_inactive = nodes.status == TSLB_DA_SLOT_INACTIVE;
    if (is_stray(idx, nodes.status) && (has_inactive_list() || !is_inactive) &&
        !violated(TSLB_RULE_LIST_STRAY, slot_at(idx), idx, is_inactive ? TSLB_RULE_INACTIVE_LIST : TSLB_RULE_FREE_LIST))
      return false;
    const bool is_listed = on_list_[TSLB_RULE_FREE_LIST].has(idx) || on_list_[TSLB_RULE_INACTIVE_LIST].has(idx);
    if (nodes.status != TSLB_DA_SLOT_ACTIVE || is_listed) continue;
    if (nodes.next != NONE && !violated(TSLB_RULE_SLOT_NEXT, slot_at(idx) + offsetof(node_fw, next), idx, nodes.next))
      return false;
    if (nodes.prev != NONE &&
        !violated(TSLB_RULE_SLOT_PREV, slot_at(idx) + shape_.shift + shape_.record_bytes, idx, nodes.prev))
      return false;
  }
  return true;
}

// ---- Memory slots --------------------------------------------------------------------------------------------------

bool array_rules_t::check_counters(slot_source_t *slots, uint32_t n_present) {
  if (!is_pool_) return true;
  uint64_t used = 0;
  for (uint32_t idx = 0; idx < n_present; ++idx) {
    const uint32_t status = has_nodes() ? slots->nodes_of(idx).status : TSLB_DA_SLOT_ACTIVE;
    if (idx == current_slot() && status != TSLB_DA_SLOT_ACTIVE &&
        !violated(TSLB_RULE_POOL_SLOT_CURRENT, slot_at(idx), status, idx))
      return false;
    // Freeing a slot overwrites its counters, and a slot that was never taken has none.
    if (status == TSLB_DA_SLOT_FREE || status == TSLB_DA_SLOT_UNSET) continue;
    const slot_source_t::counters_t counters = slots->counters_of(idx);
    if (!check_counters_of(idx, counters)) return false;
    if (counters.used != TSLB_GATEKEEPER_WORD) used += counters.used;
  }
  return used <= pool_.total_mused ||
         violated(TSLB_RULE_POOL_TOTAL_USED, sizeof(DynHdr_t) + offsetof(DynMemHdr_t, total_mused), pool_.total_mused,
                  used);
}

// bytes_used can be less than the cursor, but not more: an allocation moves the cursor first and then counts the chunk.
// The counters of a ring are never reset, and overflow.
bool array_rules_t::check_counters_of(uint32_t idx, const slot_source_t::counters_t &counters) {
  if (has_completed_ring_shape()) return true;
  const uint64_t used_at = slot_at(idx) + shape_.shift;
  const bool is_current = idx == current_slot();
  if (counters.used == TSLB_GATEKEEPER_WORD && !is_current)
    return violated(TSLB_RULE_POOL_SLOT_NEVER_CURRENT, used_at, idx);
  if (counters.deleted > counters.used &&
      !violated(TSLB_RULE_POOL_SLOT_DELETED, used_at + offsetof(MemSlot_t, bytes_del), counters.deleted, idx,
                counters.used))
    return false;
  if (counters.used > slot_capacity())
    return violated(TSLB_RULE_POOL_SLOT_USED, used_at, counters.used, idx, slot_capacity());
  if (!is_current || counters.used == cursor_off()) return true;
  return violated(counters.used > cursor_off() ? TSLB_RULE_POOL_SLOT_CURSOR : TSLB_RULE_POOL_SLOT_LAGS, used_at,
                  counters.used, idx, cursor_off());
}

// ---- Chunks --------------------------------------------------------------------------------------------------------

namespace {

struct chunk_walk_t {
  uint32_t at = 0;            // where the walk ended: at a chunk that does not fit, or after the last chunk
  uint32_t chunk_bytes = 0;   // length of the last chunk, with its header
  uint64_t deleted = 0;       // bytes of deleted chunks
  uint64_t zero_headers = 0;  // headers of 16 zero bytes
  bool is_whole = false;
};

// Walks from chunk to chunk by the stored lengths.
chunk_walk_t walk_chunks(const char *chunks, uint32_t end) {
  static const char ZERO[TSLB_COMPAT_BYTES] = {};
  chunk_walk_t walk;
  while (walk.at < end) {
    compat_t header;
    walk.chunk_bytes = TSLB_COMPAT_BYTES;
    if (end - walk.at < TSLB_COMPAT_BYTES) return walk;
    memcpy(&header, chunks + walk.at, TSLB_COMPAT_BYTES);
    walk.chunk_bytes += header.mchunk_len;
    if (end - walk.at < walk.chunk_bytes) return walk;
    // The library does not count a deleted chunk without data.
    if ((header.flag & MCHUNK_FLAG_DELETED) != 0 && header.mchunk_len != 0) walk.deleted += walk.chunk_bytes;
    if (memcmp(chunks + walk.at, ZERO, TSLB_COMPAT_BYTES) == 0) ++walk.zero_headers;
    walk.at += walk.chunk_bytes;
  }
  walk.is_whole = true;
  return walk;
}

// Whether possible lengths of chunks fill the slot exactly. A possible length is the stored one plus a multiple of
// 65,536. True if memory for the check is refused.
bool long_chunks_can_fill(const char *chunks, uint32_t end) {
  constexpr uint32_t MAX_BYTES = 1u << 26;
  slot_marks_t begins;
  if (end > MAX_BYTES || !begins.reset(end + 1)) return true;
  begins.set(0);
  for (uint32_t at = 0; at + uint64_t{TSLB_COMPAT_BYTES} <= end; ++at) {
    if (!begins.has(at)) continue;
    compat_t header;
    memcpy(&header, chunks + at, TSLB_COMPAT_BYTES);
    for (uint64_t next = uint64_t{at} + TSLB_COMPAT_BYTES + header.mchunk_len; next <= end;
         next += TSLB_COMPAT_LEN_MAX + 1)
      begins.set(static_cast<uint32_t>(next));
  }
  return begins.has(end);
}

}  // namespace

bool array_rules_t::check_chunks(slot_source_t *slots, uint32_t idx, const char *slot) {
  if (!is_pool_ || (pool_.flag & MPOOL_FLAG_COMPAT) == 0 || has_completed_ring_shape()) return true;
  const uint32_t status = has_nodes() ? slots->nodes_of(idx).status : TSLB_DA_SLOT_ACTIVE;
  if (status == TSLB_DA_SLOT_FREE || status == TSLB_DA_SLOT_UNSET) return true;
  const slot_source_t::counters_t counters = slots->counters_of(idx);
  // A killed process can leave reserved bytes that are not counted. Their header can be missing too.
  if (counters.used > slot_capacity() || (idx == current_slot() && counters.used != cursor_off())) return true;

  const char *const chunks = slot + sizeof(MemSlot_t);
  const uint64_t chunks_at = slot_at(idx) + shape_.shift + sizeof(MemSlot_t);
  const chunk_walk_t walk = walk_chunks(chunks, counters.used);
  const bool may_be_long = slot_capacity() > TSLB_COMPAT_BYTES + TSLB_COMPAT_LEN_MAX;
  if (!walk.is_whole) {
    // A zero header is a reservation whose header was never written, because a slot is zeroed when it is taken. The
    // walk does not find the chunks after it.
    if (walk.zero_headers != 0 || (may_be_long && long_chunks_can_fill(chunks, counters.used))) return true;
    return violated(TSLB_RULE_CHUNK_LENGTH, chunks_at + walk.at, walk.at, idx, walk.chunk_bytes, counters.used);
  }
  // A reservation of a killed process is counted as deleted, but has no mark. The marks of long chunks do not give
  // their length.
  const uint64_t unmarked = walk.zero_headers * TSLB_COMPAT_BYTES;
  if (may_be_long || (counters.deleted >= walk.deleted && counters.deleted <= walk.deleted + unmarked)) return true;
  return violated(TSLB_RULE_CHUNK_DELETED, chunks_at - sizeof(MemSlot_t) + offsetof(MemSlot_t, bytes_del),
                  counters.deleted, idx, walk.deleted);
}
