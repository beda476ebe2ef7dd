#include "floor.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <tslb/tsdb_recovery_schema.h>
#include <tslb/tslb_atomics.h>
#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_util.h>

// A load as in the library: not torn, not ordered.
template <class Word>
static inline Word load(const Word *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}
static inline void *load_entry(void *const *entry) {
  return __atomic_load_n(entry, __ATOMIC_ACQUIRE);
}

// ---- Lookup

constexpr uint32_t NODE = sizeof(node_fw);

static inline DynArrHdr_t *hdr_of(const DynArrHandle_t *array) {
  char *const block0 = static_cast<char *>(array->arr_base);
  const DynHdr_t *const hdr = reinterpret_cast<const DynHdr_t *>(block0);
  return reinterpret_cast<DynArrHdr_t *>(block0 + sizeof(DynHdr_t) + hdr->hdr_size + hdr->lli_sz);
}
static inline DynArrLLI_t *lli_of(const DynArrHandle_t *array) {
  char *const block0 = static_cast<char *>(array->arr_base);
  return reinterpret_cast<DynArrLLI_t *>(block0 + sizeof(DynHdr_t) +
                                         reinterpret_cast<const DynHdr_t *>(block0)->hdr_size);
}

// Words of headers and nodes can lie at any address.
static inline uint32_t word(const void *at) {
  return load(static_cast<const uint32_t *>(at));
}
static inline void set_word(void *at, uint32_t value) {
  __atomic_store_n(static_cast<uint32_t *>(at), value, __ATOMIC_RELAXED);
}

// Returns the block that is TIERS tables below `table`; null if one is missing.
template <unsigned TIERS>
static inline void *block_below(void *table, uint32_t place) {
  if constexpr (TIERS == 0) {
    return table;
  } else {
    if (table == nullptr) return nullptr;
    return block_below<TIERS - 1>(load_entry(static_cast<void **>(table) + (place >> (4 * TIERS)) % 16), place);
  }
}
template <unsigned LEVEL>
static inline void *block_in(void **roots, uint32_t beyond) {
  constexpr uint32_t FIRST = 0x11111100u & ((1u << (4 * (LEVEL + 1))) - 1);
  return block_below<LEVEL>(load_entry(roots + LEVEL - 1), beyond - FIRST);
}

static inline void *block_of(void **roots, uint32_t beyond) {
  if (beyond < 0x1100) return beyond < 0x100 ? block_in<1>(roots, beyond) : block_in<2>(roots, beyond);
  if (beyond < 0x11100) return block_in<3>(roots, beyond);
  if (beyond < 0x111100) return block_in<4>(roots, beyond);
  if (beyond < 0x1111100) return block_in<5>(roots, beyond);
  return beyond < 0x11111100 ? block_in<6>(roots, beyond) : nullptr;
}

// Returns byte `shift` of the slot of an issued id. Calls the library if memory is missing.
__attribute__((noinline)) static void *find_beyond(DynArrHandle_t *array, uint32_t id, uint32_t beyond,
                                                   uint64_t slot_bytes, uint64_t shift) {
  void **const roots = reinterpret_cast<void **>(load_entry(reinterpret_cast<void **>(&array->ir_base)));
  void *const block = roots != nullptr ? block_of(roots, beyond) : nullptr;
  if (block != nullptr) return static_cast<char *>(block) + beyond % 16 * slot_bytes + shift;
  return get_dyn_arr_record_position_ex(array, id, 0, nullptr, array->daflag);
}

static inline void *find_issued(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint64_t slot_bytes,
                                uint64_t shift) {
  const uint32_t n_direct = array->mem_type == MPOOL_TYPE_SHM ? array->n_direct : hdr->n_direct;
  if (id < n_direct) return hdr->elem_direct + id * slot_bytes + shift;
  return find_beyond(array, id, id - n_direct, slot_bytes, shift);
}

static inline void *find_slot(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint8_t daflag, uint32_t offset) {
  if ((daflag & (TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL)) == 0)
    return find_issued(array, hdr, id, hdr->record_size, offset);
  const uint32_t nodes = NODE + (daflag & TSLB_DA_DAFLAG_INLL) * (NODE / TSLB_DA_DAFLAG_INLL);
  return find_issued(array, hdr, id, hdr->record_size + nodes, NODE + offset);
}

static inline void *find(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint8_t daflag, uint32_t offset = 0) {
  return id < word(&hdr->n_used) ? find_slot(array, hdr, id, daflag, offset) : nullptr;
}

void *floor_find(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t daflag) {
  return find(array, hdr_of(array), id, daflag);
}

// ---- Addresses

static inline DynMemHdr_t *pool_hdr_of(const dynmem_t *pool) {
  return reinterpret_cast<DynMemHdr_t *>(static_cast<char *>(pool->arr_base) + sizeof(DynHdr_t));
}

static inline void *data_at(dynmem_t *pool, const DynMemHdr_t *hdr, uint32_t slot_idx, uint32_t byte_off) {
  const uint32_t header = (hdr->flag & MPOOL_FLAG_COMPAT) * static_cast<uint32_t>(sizeof(compat_t));
  return find(pool, hdr_of(pool), slot_idx, pool->daflag,
              static_cast<uint32_t>(offsetof(MemSlot_t, mslot)) + byte_off + header);
}

static inline maddrBV_t bv_of(maddr_t address) {
  maddrBV_t bv;
  memcpy(&bv, &address, sizeof(bv));
  return bv;
}

void *floor_resolve(dynmem_t *pool, maddr_t address) {
  const DynMemHdr_t *const hdr = pool_hdr_of(pool);
  if ((hdr->flag & MPOOL_FLAG_BV) == 0) return data_at(pool, hdr, address.mslot_idx, address.mchunk_idx);
  const maddrBV_t bv = bv_of(address);
  return data_at(pool, hdr, bv.mslotgroup_idx * 256u + bv.mslot_idx, bv.mchunk_idx * 8u);
}

void *floor_resolve_64(dynmem_t *pool, maddr64_t address) {
  const DynMemHdr_t *const hdr = pool_hdr_of(pool);
  if (address.mchunk_idx > INT32_MAX - sizeof(compat_t)) return nullptr;
  return data_at(pool, hdr, address.mslot_idx, address.mchunk_idx);
}

// ---- Ids and chunks

// Returns null if the array is full.
static inline void *take_id(DynArrHandle_t *array, uint8_t daflag, uint32_t *id) {
  DynArrHdr_t *const hdr = hdr_of(array);
  *id = get_and_inc32(reinterpret_cast<uint32_t *>(hdr) + offsetof(DynArrHdr_t, n_used) / 4, 1);
  if (word(&hdr->n_alloc) == UINT32_MAX) return nullptr;
  return find_slot(array, hdr, *id, daflag, 0);
}

int32_t floor_take_id(DynamicArray_t array, void **record, uint8_t daflag) {
  uint32_t id;
  *record = take_id(array, daflag, &id);
  return *record != nullptr ? static_cast<int32_t>(id) : -1;
}

void *floor_take_chunk(dynmem_t *pool, maddr_t *address, int len, srcaddr_t source) {
  DynMemHdr_t *const hdr = pool_hdr_of(pool);
  const uint32_t bytes = static_cast<uint32_t>(len);
  const uint64_t seen = load(&hdr->cur_slot_addr);
  const uint32_t slot_idx = static_cast<uint32_t>(seen), offset = static_cast<uint32_t>(seen >> 32);
  if (len < 0 || hdr->mslot_sz < bytes || hdr->mslot_sz - offset < bytes || slot_idx > 2040 ||
      cas64(&hdr->cur_slot_addr, seen, seen + (uint64_t{bytes} << 32)) == 0)
    return tslb_dynmem_get_mchunk(pool, address, len, source);
  DynArrHdr_t *const arr_hdr = hdr_of(pool);
  MemSlot_t *const slot = static_cast<MemSlot_t *>(find(pool, arr_hdr, slot_idx, pool->daflag));
  if (slot == nullptr) return nullptr;
  maddrBV_t bv;
  bv.mslot_idx = slot_idx & 0xFF;
  bv.mslotgroup_idx = (slot_idx / 256) & 7;
  bv.mchunk_idx = (offset / 8) & 0x1FFFFF;
  memcpy(address, &bv, sizeof(bv));

  get_and_inc32(&slot->bytes_used, bytes);
  get_and_inc64(&hdr->total_mused, bytes);
  get_and_inc64(&g_mem_st.total_mused, bytes);
  get_and_inc64(&hdr->total_mwast, 16);
  const uint64_t headers =
      static_cast<uint64_t>(reinterpret_cast<char *>(arr_hdr->elem_direct) - static_cast<char *>(pool->arr_base));
  const uint64_t avail = load(&hdr->total_msz) - headers - load(&hdr->total_mused) - load(&hdr->total_mwast);
  cas64(&hdr->total_mavail, load(&hdr->total_mavail), avail);
  cas64(&g_mem_st.total_mavail, load(&g_mem_st.total_mavail), avail);
  return slot->mslot + bv.mchunk_idx * 8u;
}

// ---- Slots

static inline node_fw *fw_of(void *payload) {
  return reinterpret_cast<node_fw *>(static_cast<char *>(payload) - NODE);
}
static inline uint32_t status_of(void *payload) {
  return __atomic_load_n(reinterpret_cast<uint32_t *>(static_cast<char *>(payload) - NODE), __ATOMIC_ACQUIRE);
}
static inline bool redo_is_on(const dynarr_t *array) {
  return load(&g_redo_handle) != nullptr && array->mem_type == MPOOL_TYPE_DRAM && array->ctx_name[0] != '\0';
}

static inline void lock(uint16_t *spinlock) {
  while (cas16(spinlock, 0, 1) == 0) {
  }
}

static inline void write_nodes(void *payload, uint32_t record_size, uint8_t daflag, uint32_t now) {
  if ((daflag & TSLB_DA_DAFLAG_INLL) != 0) {
    node_bw *const bw = reinterpret_cast<node_bw *>(static_cast<char *>(payload) + record_size);
    set_word(&bw->prev, TSLB_DA_NIL_IDX);
    set_word(&bw->ts, now);
  }
  set_word(&fw_of(payload)->next, TSLB_DA_NIL_IDX);
  set_word(&fw_of(payload)->status, TSLB_DA_SLOT_ACTIVE);
}

// Prepares a slot that was taken from its list. Called under the lock; releases it.
static inline void *finish_slot(dynarr_t *array, const DynArrHdr_t *hdr, void *payload, uint32_t now) {
  memset(payload, 0, hdr->record_size);
  write_nodes(payload, hdr->record_size, array->daflag, now);
  cas16(&array->spinlock, 1, 0);
  if (redo_is_on(array)) abort();
  set_word(payload, UINT32_MAX);
  return payload;
}

void *floor_take_slot(dynarr_t *array, uint32_t *idx) {
  const uint8_t daflag = array->daflag;
  const uint32_t now = static_cast<uint32_t>(tslb_get_time(nullptr));
  lock(&array->spinlock);
  DynArrHdr_t *const hdr = hdr_of(array);
  DynArrLLI_t *const lli = lli_of(array);
  const uint32_t head = word(&lli->free_head), n_free = word(&lli->n_free);
  void *const payload = n_free != 0 && head != TSLB_DA_NIL_IDX ? find(array, hdr, head, daflag) : nullptr;
  if (payload == nullptr || head == word(&lli->free_tail)) abort();
  set_word(&lli->free_head, word(&fw_of(payload)->next));
  set_word(&lli->n_free, n_free - 1);
  *idx = head;
  return finish_slot(array, hdr, payload, now);
}

static inline void append_free(dynarr_t *array, DynArrHdr_t *hdr, DynArrLLI_t *lli, uint8_t daflag, uint32_t idx,
                               void *payload) {
  const uint32_t head = word(&lli->free_head), n_free = word(&lli->n_free), tail = word(&lli->free_tail);
  if (head == TSLB_DA_NIL_IDX) {
    if (n_free != 0) abort();
    set_word(&lli->free_head, idx);
  }
  if (tail != TSLB_DA_NIL_IDX) {
    void *const old_tail = find(array, hdr, tail, daflag);
    if (old_tail != nullptr) set_word(&fw_of(old_tail)->next, idx);
    if (load(&g_redo_handle) != nullptr) abort();
  }
  set_word(&lli->free_tail, idx);
  set_word(&lli->n_free, n_free + 1);
  set_word(&fw_of(payload)->status, TSLB_DA_SLOT_FREE);
  set_word(&fw_of(payload)->next, TSLB_DA_NIL_IDX);
  set_word(payload, UINT32_MAX);
}

int floor_free_slot(dynarr_t *array, uint32_t idx) {
  const uint8_t daflag = array->daflag;
  DynArrHdr_t *const hdr = hdr_of(array);
  DynArrLLI_t *const lli = lli_of(array);
  if (daflag == 0) return 1;
  void *const payload = find(array, hdr, idx, daflag);
  if (payload == nullptr) return -1;
  lock(&array->spinlock);
  const bool active = status_of(payload) == TSLB_DA_SLOT_ACTIVE;
  if (active) append_free(array, hdr, lli, daflag, idx, payload);
  cas16(&array->spinlock, 1, 0);
  if (load(&g_redo_handle) != nullptr) abort();
  return active ? 0 : 1;
}

static inline node_bw *bw_of(void *payload, const DynArrHdr_t *hdr) {
  return reinterpret_cast<node_bw *>(static_cast<char *>(payload) + hdr->record_size);
}

static inline bool passes(const tsdb_inactive_thshld_policy_t &limits, uint32_t n_used, uint32_t n_inact,
                          uint8_t percent) {
  return n_used >= limits.min_overall_cnt &&
         (percent >= limits.inactive_threshold_pct || n_inact >= limits.inactive_threshold_cnt);
}

void *floor_reuse_slot(dynarr_t *array, uint32_t *idx) {
  const uint8_t daflag = array->daflag;
  const uint32_t now = static_cast<uint32_t>(tslb_get_time(nullptr));
  lock(&array->spinlock);
  DynArrHdr_t *const hdr = hdr_of(array);
  DynArrLLI_t *const lli = lli_of(array);
  const tsdb_mem_pressure_config_t &policy = lli->mem_pressure_conf;
  const uint32_t head = word(&lli->inact_head), n_inact = word(&lli->n_inact), n_used = word(&hdr->n_used);
  if (word(&lli->n_free) != 0 || policy.mvt_reuse_policy_use == 0 || n_inact == 0 || head == TSLB_DA_NIL_IDX) abort();
  const uint8_t percent = static_cast<uint8_t>(static_cast<uint64_t>(100.0 * (static_cast<double>(n_inact) / n_used)));
  if (!passes(policy.major, n_used, n_inact, percent)) abort();
  void *const payload = find(array, hdr, head, daflag);
  if (payload == nullptr || head == word(&lli->inact_tail)) abort();
  const time_t since = word(&bw_of(payload, hdr)->ts);
  const int32_t age = static_cast<int32_t>(static_cast<float>(difftime(tslb_get_time(nullptr), since)));
  if (static_cast<int32_t>(policy.critical.min_days_since_inactive) > age) abort();
  const uint32_t next = word(&fw_of(payload)->next);
  set_word(&lli->inact_head, next);
  void *const new_head = find(array, hdr, next, daflag);
  if (new_head != nullptr) set_word(&bw_of(new_head, hdr)->prev, TSLB_DA_NIL_IDX);
  if (load(&g_redo_handle) != nullptr) abort();
  set_word(&lli->n_inact, n_inact - 1);
  *idx = head;
  return finish_slot(array, hdr, payload, now);
}

int floor_inactivate_slot(dynarr_t *array, uint32_t idx, time_t ts) {
  const uint8_t daflag = array->daflag;
  DynArrHdr_t *const hdr = hdr_of(array);
  DynArrLLI_t *const lli = lli_of(array);
  if ((daflag & TSLB_DA_DAFLAG_INLL) == 0) return 1;
  void *const payload = find(array, hdr, idx, daflag);
  if (payload == nullptr) return -1;
  if (status_of(payload) != TSLB_DA_SLOT_ACTIVE) return 1;
  lock(&array->spinlock);
  const uint32_t head = word(&lli->inact_head), tail = word(&lli->inact_tail), n_inact = word(&lli->n_inact);
  if (status_of(payload) != TSLB_DA_SLOT_ACTIVE || head == TSLB_DA_NIL_IDX || tail == TSLB_DA_NIL_IDX) abort();
  void *const old_tail = find(array, hdr, tail, daflag);
  if (old_tail != nullptr) set_word(&fw_of(old_tail)->next, idx);
  if (load(&g_redo_handle) != nullptr) abort();
  node_bw *const bw = bw_of(payload, hdr);
  set_word(&bw->prev, tail);
  set_word(&bw->ts, static_cast<uint32_t>(ts));
  set_word(&fw_of(payload)->next, TSLB_DA_NIL_IDX);
  set_word(&fw_of(payload)->status, TSLB_DA_SLOT_INACTIVE);
  set_word(&lli->inact_tail, idx);
  set_word(&lli->n_inact, n_inact + 1);
  cas16(&array->spinlock, 1, 0);
  if (load(&g_redo_handle) != nullptr) abort();
  return 0;
}

// ---- Deletion

static inline uint32_t current_of(const DynMemHdr_t *hdr) {
  return static_cast<uint32_t>(load(&hdr->cur_slot_addr));
}
static inline bool looks_empty(const MemSlot_t *slot) {
  return __atomic_load_n(&slot->bytes_del, __ATOMIC_ACQUIRE) == load(&slot->bytes_used);
}

// Returns whether the pool has no unsettled slots, which are not empty whatever their counters show. The library's
// notes of them follow the handle.
static inline bool all_are_counted(const dynmem_t *pool) {
  return *reinterpret_cast<void *const *>(pool + 1) == nullptr;
}

static inline void release_slot(dynmem_t *pool, const DynMemHdr_t *hdr, uint32_t idx, MemSlot_t *slot) {
  DynArrHdr_t *const arr_hdr = hdr_of(pool);
  lock(&pool->spinlock);
  const bool empty =
      current_of(hdr) != idx && all_are_counted(pool) && looks_empty(slot) && status_of(slot) == TSLB_DA_SLOT_ACTIVE;
  if (empty) append_free(pool, arr_hdr, lli_of(pool), pool->daflag, idx, slot);
  cas16(&pool->spinlock, 1, 0);
  if (load(&g_redo_handle) != nullptr) abort();
}

void floor_delete_chunk(dynmem_t *pool, maddr_t address) {
  const DynMemHdr_t *const hdr = pool_hdr_of(pool);
  if ((hdr->flag & MPOOL_FLAG_COMPAT) == 0 || (hdr->flag & MPOOL_FLAG_BV) != 0) return;
  MemSlot_t *const slot = static_cast<MemSlot_t *>(find(pool, hdr_of(pool), address.mslot_idx, pool->daflag));
  if (slot == nullptr) return;
  compat_t *const chunk = reinterpret_cast<compat_t *>(slot->mslot + address.mchunk_idx);
  const uint32_t bytes = chunk->mchunk_len;
  if ((chunk->flag & MCHUNK_FLAG_DELETED) != 0) return;
  chunk->flag = static_cast<char>(chunk->flag | MCHUNK_FLAG_DELETED);
  if (bytes == 0) return;
  get_and_inc32(&slot->bytes_del, bytes + static_cast<uint32_t>(sizeof(compat_t)));
  if (looks_empty(slot) && current_of(hdr) != address.mslot_idx) release_slot(pool, hdr, address.mslot_idx, slot);
}

void floor_sweep(dynmem_t *pool, size_t *total_sz, size_t *used_sz, size_t *del_sz) {
  const DynMemHdr_t *const hdr = pool_hdr_of(pool);
  DynArrHdr_t *const arr_hdr = hdr_of(pool);
  const uint32_t n_slots = word(&arr_hdr->n_used);
  const uint64_t slot_bytes = arr_hdr->record_size + NODE;
  *total_sz = load(&hdr->total_msz);
  *used_sz = *del_sz = 0;
  char *payload = nullptr;
  for (uint32_t idx = 0; idx < n_slots; ++idx, payload += slot_bytes) {
    if (idx == 0 || (idx >= arr_hdr->n_direct && (idx - arr_hdr->n_direct) % 16 == 0))
      payload = static_cast<char *>(find(pool, arr_hdr, idx, pool->daflag));
    if (status_of(payload) != TSLB_DA_SLOT_ACTIVE) continue;
    MemSlot_t *const slot = reinterpret_cast<MemSlot_t *>(payload);
    const uint32_t deleted = load(&slot->bytes_del), used = load(&slot->bytes_used);
    if (used == deleted && current_of(hdr) != idx) {
      release_slot(pool, hdr, idx, slot);
      continue;
    }
    *used_sz += used;
    *del_sz += deleted;
  }
}

// ---- Conversion

// Takes a slot as tslb_da_get_newptr does, of an array without reuse.
static inline void *take_fresh(dynarr_t *array) {
  const uint8_t daflag = array->daflag;
  const uint32_t now = static_cast<uint32_t>(tslb_get_time(nullptr));
  uint32_t id;
  void *payload;
  if (daflag == 0) {
    payload = take_id(array, daflag, &id);
  } else {
    lock(&array->spinlock);
    const DynArrLLI_t *const lli = lli_of(array);
    if (word(&lli->n_free) != 0 || lli->mem_pressure_conf.mvt_reuse_policy_use != 0) abort();
    payload = take_id(array, daflag, &id);
    if (payload != nullptr) write_nodes(payload, hdr_of(array)->record_size, daflag, now);
    cas16(&array->spinlock, 1, 0);
    if (redo_is_on(array)) abort();
  }
  if (payload != nullptr) set_word(payload, UINT32_MAX);
  return payload;
}

template <class Copy>
static inline void convert(dynarr_t *from, dynarr_t *to, size_t newer_bytes, Copy copy) {
  DynArrHdr_t *const from_hdr = hdr_of(from);
  const DynArrHdr_t *const to_hdr = hdr_of(to);
  const uint32_t n_used = word(&from_hdr->n_used);
  const char *newer = nullptr;
  for (uint32_t idx = 0; idx < n_used && idx < word(&to_hdr->n_alloc); ++idx, newer += newer_bytes) {
    if (idx == 0 || (idx >= from_hdr->n_direct && (idx - from_hdr->n_direct) % 16 == 0))
      newer = static_cast<const char *>(find(from, from_hdr, idx, from->daflag));
    char *const older = static_cast<char *>(take_fresh(to));
    if (newer == nullptr || older == nullptr) return;
    copy(older, newer);
  }
}

template <class Newer, class Older>
static inline void convert_prefix(dynarr_t *from, dynarr_t *to) {
  convert(from, to, sizeof(Newer), [](char *older, const char *newer) { memcpy(older, newer, sizeof(Older)); });
}

void floor_convert_g_mg_2_0(dynarr_t *from, dynarr_t *to) {
  convert_prefix<g_mg_t_v2, g_mg_t_v0>(from, to);
}
void floor_convert_g_mg_2_1(dynarr_t *from, dynarr_t *to) {
  convert_prefix<g_mg_t_v2, g_mg_t_v1>(from, to);
}
void floor_convert_g_mt_1_0(dynarr_t *from, dynarr_t *to) {
  convert_prefix<g_mt_t_v1, g_mt_t_v0>(from, to);
}

// The gaps stay as in the destination, where they are zero.
void floor_convert_tysub_1_0(dynarr_t *from, dynarr_t *to) {
  convert(from, to, sizeof(ty_sub_t_v1) + 2 * NODE, [](char *older, const char *newer) {
    memcpy(older, newer, offsetof(ty_sub_t_v0, gap10));
    memcpy(older + 12, newer + 12, 5);
    memcpy(older + 20, newer + 20, 9);
    for (unsigned j = 0; j < 5; ++j) memcpy(older + 32 + 8 * j, newer + 32 + 12 * j, 8);
    memcpy(older + offsetof(ty_sub_t_v0, i_offline_dirpath), newer + offsetof(ty_sub_t_v1, i_offline_dirpath), 8);
  });
}

// ---- Files

void *floor_map_block(const char *dir, const char *file, size_t bytes, uint64_t *entry) {
  struct stat ignored;
  if (stat(dir, &ignored) != 0) return nullptr;
  const int fd = open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  void *block = MAP_FAILED;
  if (ftruncate(fd, static_cast<off_t>(bytes)) == 0)
    block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (block == MAP_FAILED || cas64(entry, 0, reinterpret_cast<uint64_t>(block)) == 0) return nullptr;
  return block;
}

uint32_t floor_sync(void *const *blocks, uint32_t count, size_t bytes) {
  uint32_t refused = 0;
  for (uint32_t i = 0; i < count; ++i) refused += msync(blocks[i], bytes, MS_SYNC) != 0;
  return refused;
}

ssize_t floor_write_line(floor_log_t *log, const char *line, size_t len) {
  pthread_mutex_lock(&log->lock);
  const time_t now = time(nullptr);
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  struct tm parts;
  const bool converted = localtime_r(&now, &parts) != nullptr;
  sigprocmask(SIG_SETMASK, &before, nullptr);
  struct stat file;
  const ssize_t written = converted && stat(log->path, &file) == 0 ? write(log->fd, line, len) : -1;
  pthread_mutex_unlock(&log->lock);
  return written;
}
