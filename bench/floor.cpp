#include "floor.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "tsdb_recovery_schema.h"
#include "tslb_atomics.h"
#include "tslb_dynarr.h"

// The library reads shared words so too: a load that is neither torn nor ordered.
template <class Word>
static inline Word load(const Word *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}
static inline void *load_entry(void *const *entry) {
  return __atomic_load_n(entry, __ATOMIC_ACQUIRE);
}

// LEVEL 0 is the direct area. A level's first id is a constant here, since the caller knows the level.
template <unsigned LEVEL>
static inline void *find(DynamicArray_t array, uint32_t id) {
  char *const block0 = static_cast<char *>(array->arr_base);
  const DynHdr_t *const hdr = reinterpret_cast<const DynHdr_t *>(block0);
  char *const arr_hdr = block0 + sizeof(DynHdr_t) + hdr->hdr_size + hdr->lli_sz;
  const uint32_t *const words = reinterpret_cast<const uint32_t *>(arr_hdr);
  const uint32_t n_used = load(words + offsetof(DynArrHdr_t, n_used) / 4);
  const uint32_t n_direct = load(words + offsetof(DynArrHdr_t, n_direct) / 4);
  const uint64_t record_size = load(words + offsetof(DynArrHdr_t, record_size) / 4);
  if (id >= n_used) return nullptr;
  if (LEVEL == 0) return arr_hdr + sizeof(DynArrHdr_t) + id * record_size;

  constexpr uint32_t FIRST = 0x11111100u & ((1u << (4 * (LEVEL + 1))) - 1);
  const uint32_t place = id - n_direct - FIRST;
  void **entry = reinterpret_cast<void **>(load_entry(reinterpret_cast<void **>(&array->ir_base))) + LEVEL - 1;
#pragma GCC unroll 8
  for (unsigned shift = 4 * LEVEL; shift != 0; shift -= 4)
    entry = static_cast<void **>(load_entry(entry)) + (place >> shift) % 16;
  return static_cast<char *>(load_entry(entry)) + place % 16 * record_size;
}

void *floor_find_direct(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<0>(array, id);
}
void *floor_find_level1(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<1>(array, id);
}
void *floor_find_level3(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<3>(array, id);
}
void *floor_find_level5(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<5>(array, id);
}

// ---- Addresses

template <unsigned LEVEL>
static inline void *data_at(dynmem_t *pool, uint32_t slot_idx, uint32_t byte_off) {
  const DynMemHdr_t *const hdr =
      reinterpret_cast<const DynMemHdr_t *>(static_cast<char *>(pool->arr_base) + sizeof(DynHdr_t));
  const size_t header = (hdr->flag & MPOOL_FLAG_COMPAT) * sizeof(compat_t);
  return static_cast<MemSlot_t *>(find<LEVEL>(pool, slot_idx))->mslot + byte_off + header;
}

static inline maddrBV_t bv_of(maddr_t address) {
  maddrBV_t bv;
  memcpy(&bv, &address, sizeof(bv));
  return bv;
}
template <unsigned LEVEL>
static inline void *data_at_bv(dynmem_t *pool, maddrBV_t bv) {
  return data_at<LEVEL>(pool, bv.mslotgroup_idx * 256u + bv.mslot_idx, bv.mchunk_idx * 8u);
}

void *floor_resolve_bb_direct(dynmem_t *pool, maddr_t address) {
  return data_at<0>(pool, address.mslot_idx, address.mchunk_idx);
}
void *floor_resolve_bb_level1(dynmem_t *pool, maddr_t address) {
  return data_at<1>(pool, address.mslot_idx, address.mchunk_idx);
}
void *floor_resolve_bv_direct(dynmem_t *pool, maddr_t address) {
  return data_at_bv<0>(pool, bv_of(address));
}
void *floor_resolve_bv_level1(dynmem_t *pool, maddr_t address) {
  return data_at_bv<1>(pool, bv_of(address));
}
void *floor_resolve_64_direct(dynmem_t *pool, maddr64_t address) {
  return data_at<0>(pool, address.mslot_idx, address.mchunk_idx);
}
void *floor_resolve_64_level1(dynmem_t *pool, maddr64_t address) {
  return data_at<1>(pool, address.mslot_idx, address.mchunk_idx);
}

// ---- Ids and chunks

int32_t floor_take_id(floor_ids_t *ids, void **record, char **own_block) {
  const uint32_t id = get_and_inc32(&ids->n_used, 1);
  if (id % 16 == 0) {
    *own_block = static_cast<char *>(calloc(1, size_t{16} * ids->record_size));
    cas64(&ids->entries[id / 16], 0, reinterpret_cast<uint64_t>(*own_block));
  }
  *record = *own_block + size_t{id % 16} * ids->record_size;
  return static_cast<int32_t>(id);
}

uint32_t floor_take_chunk(floor_pool_t *pool, uint32_t len) {
  DynMemHdr_t *const hdr = pool->hdr;
  GlobalMemStats_t *const totals = pool->totals;
  uint64_t seen = load(&hdr->cur_slot_addr);
  while (cas64(&hdr->cur_slot_addr, seen, seen + (uint64_t{len} << 32)) == 0) seen = load(&hdr->cur_slot_addr);
  get_and_inc32(pool->bytes_used, len);
  get_and_inc64(&hdr->total_mused, len);
  get_and_inc64(&totals->total_mused, len);
  get_and_inc64(&hdr->total_mwast, 16);
  const uint64_t avail = load(&hdr->total_msz) - load(&hdr->total_mused) - load(&hdr->total_mwast);
  cas64(&hdr->total_mavail, load(&hdr->total_mavail), avail);
  cas64(&totals->total_mavail, load(&totals->total_mavail), avail);
  return static_cast<uint32_t>(seen >> 32);
}

// ---- Slots

// Words of headers and nodes lie at any address.
static inline uint32_t word(const void *at) {
  return load(static_cast<const uint32_t *>(at));
}
static inline void set_word(void *at, uint32_t value) {
  __atomic_store_n(static_cast<uint32_t *>(at), value, __ATOMIC_RELAXED);
}

static inline char *payload_of(const floor_slots_t *slots, uint32_t idx) {
  return slots->payload0 + size_t{idx} * slots->slot_bytes;
}
static inline node_fw *fw_of(char *payload) {
  return reinterpret_cast<node_fw *>(payload - sizeof(node_fw));
}

static inline void lock(uint16_t *spinlock) {
  while (cas16(spinlock, 0, 1) == 0) {
  }
}

void *floor_take_slot(const floor_slots_t *slots, uint32_t *idx) {
  const uint32_t now = static_cast<uint32_t>(time(nullptr));
  DynArrLLI_t *const lli = slots->lli;
  lock(slots->spinlock);
  *idx = word(&lli->free_head);
  char *const payload = payload_of(slots, *idx);
  node_fw *const fw = fw_of(payload);
  set_word(&lli->free_head, word(&fw->next));
  set_word(&lli->n_free, word(&lli->n_free) - 1);
  memset(payload, 0, slots->record_size);
  if (slots->has_back_nodes) {
    node_bw *const bw = reinterpret_cast<node_bw *>(payload + slots->record_size);
    set_word(&bw->prev, TSLB_DA_NIL_IDX);
    set_word(&bw->ts, now);
  }
  set_word(&fw->next, TSLB_DA_NIL_IDX);
  set_word(&fw->status, TSLB_DA_SLOT_ACTIVE);
  cas16(slots->spinlock, 1, 0);
  set_word(payload, UINT32_MAX);
  return payload;
}

void floor_free_slot(const floor_slots_t *slots, uint32_t idx) {
  DynArrLLI_t *const lli = slots->lli;
  char *const payload = payload_of(slots, idx);
  node_fw *const fw = fw_of(payload);
  lock(slots->spinlock);
  if (word(&fw->status) == TSLB_DA_SLOT_ACTIVE) {
    const uint32_t tail = word(&lli->free_tail);
    if (tail != TSLB_DA_NIL_IDX)
      set_word(&fw_of(payload_of(slots, tail))->next, idx);
    else
      set_word(&lli->free_head, idx);
    set_word(&lli->free_tail, idx);
    set_word(&lli->n_free, word(&lli->n_free) + 1);
    set_word(&fw->status, TSLB_DA_SLOT_FREE);
    set_word(&fw->next, TSLB_DA_NIL_IDX);
    set_word(payload, UINT32_MAX);
  }
  cas16(slots->spinlock, 1, 0);
}

// ---- Deletion

uint32_t floor_delete_chunk(compat_t *chunk, uint32_t *bytes_del) {
  if ((chunk->flag & MCHUNK_FLAG_DELETED) != 0) return 0;
  const uint32_t bytes = uint32_t{chunk->mchunk_len} + static_cast<uint32_t>(sizeof(compat_t));
  chunk->flag = static_cast<char>(chunk->flag | MCHUNK_FLAG_DELETED);
  return get_and_inc32(bytes_del, bytes) + bytes;
}

void floor_sweep(const floor_slots_t *slots, MemSlot_t *const *mslots, uint32_t count, size_t *used_sz,
                 size_t *del_sz) {
  *used_sz = *del_sz = 0;
  for (uint32_t i = 0; i < count; ++i) {
    MemSlot_t *const mslot = mslots[i];
    if (word(&fw_of(reinterpret_cast<char *>(mslot))->status) != TSLB_DA_SLOT_ACTIVE) continue;
    const uint32_t bytes_used = load(&mslot->bytes_used), bytes_del = load(&mslot->bytes_del);
    if (bytes_used == bytes_del) {
      floor_free_slot(slots, i);
      continue;
    }
    *used_sz += bytes_used;
    *del_sz += bytes_del;
  }
}

// ---- Conversion

// `shift` bytes of each slot stand ahead of its payload.
template <class Copy>
static inline void convert(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to, size_t newer_bytes,
                           size_t older_bytes, size_t shift, Copy copy) {
  uint32_t count = 0;
  char *older = reinterpret_cast<char *>(to->elem_direct) + shift;
  for (const floor_run_t *run = runs; run != runs + n_runs; ++run) {
    const char *newer = run->records;
    for (uint32_t i = 0; i < run->count; ++i, newer += newer_bytes, older += older_bytes) copy(older, newer);
    count += run->count;
  }
  get_and_inc32(reinterpret_cast<uint32_t *>(to) + offsetof(DynArrHdr_t, n_used) / 4, count);
}

template <class Newer, class Older>
static inline void convert_prefix(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to) {
  convert(runs, n_runs, to, sizeof(Newer), sizeof(Older), 0,
          [](char *older, const char *newer) { memcpy(older, newer, sizeof(Older)); });
}

void floor_convert_g_mg_2_0(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to) {
  convert_prefix<g_mg_t_v2, g_mg_t_v0>(runs, n_runs, to);
}
void floor_convert_g_mg_2_1(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to) {
  convert_prefix<g_mg_t_v2, g_mg_t_v1>(runs, n_runs, to);
}
void floor_convert_g_mt_1_0(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to) {
  convert_prefix<g_mt_t_v1, g_mt_t_v0>(runs, n_runs, to);
}

// The gaps are the destination's, zero from the start.
static inline void copy_tysub(char *older, const char *newer) {
  memcpy(older, newer, offsetof(ty_sub_t_v0, gap10));
  memcpy(older + 12, newer + 12, 5);
  memcpy(older + 20, newer + 20, 9);
  for (unsigned j = 0; j < 5; ++j) memcpy(older + 32 + 8 * j, newer + 32 + 12 * j, 8);
  memcpy(older + offsetof(ty_sub_t_v0, i_offline_dirpath), newer + offsetof(ty_sub_t_v1, i_offline_dirpath), 8);
}

void floor_convert_tysub_1_0(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to) {
  constexpr size_t NODES = sizeof(node_fw) + sizeof(node_bw);
  const uint32_t now = static_cast<uint32_t>(time(nullptr));
  convert(runs, n_runs, to, sizeof(ty_sub_t_v1) + NODES, sizeof(ty_sub_t_v0) + NODES, sizeof(node_fw),
          [now](char *older, const char *newer) {
            copy_tysub(older, newer);
            node_bw *const bw = reinterpret_cast<node_bw *>(older + sizeof(ty_sub_t_v0));
            set_word(&bw->prev, TSLB_DA_NIL_IDX);
            set_word(&bw->ts, now);
            set_word(&fw_of(older)->next, TSLB_DA_NIL_IDX);
            set_word(&fw_of(older)->status, TSLB_DA_SLOT_ACTIVE);
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
