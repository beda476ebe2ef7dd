#include "store.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstring>
#include <new>

namespace metricdb {
namespace {

// Table ids of the arrays. Where a chunk is referred to is written into its compaction header with them.
constexpr int CATALOGUE_TABLE = 1;
constexpr int KEYS_TABLE = 2;
constexpr int POINTS_TABLE = 3;

constexpr const char *CONTEXT = "metricdb";
constexpr uint8_t RECORD_VERSION = 0;
constexpr int CATALOGUE_DIRECT_SLOTS = 64;
constexpr int NO_DIRECT_SLOTS = 0;  // block 0 of a pool would hold its first memory slot before it is needed

constexpr uint32_t NO_SLOT = 0xFFFFFFFFu;  // the cursor's slot ahead of the first chunk
constexpr uint32_t KEYS_LAST_SLOT = 255;   // when these are full, the library stops the process
constexpr uint32_t POINTS_LAST_SLOT = 2040;

constexpr uint8_t CAPACITIES[] = {4, 16, 64};  // of the first chunks of a series; the last one repeats

uint8_t capacity_of(uint32_t chunk_number) {
  return CAPACITIES[std::min<size_t>(chunk_number, std::size(CAPACITIES) - 1)];
}

int bytes_of(uint8_t capacity) {
  return static_cast<int>(sizeof(PointChunk) + capacity * sizeof(Point));
}

// Points need not be aligned where they lie.
char *point_at(const PointChunk *chunk, size_t index) {
  return const_cast<char *>(reinterpret_cast<const char *>(chunk + 1)) + index * sizeof(Point);
}

DynMemHdr_t *header_of(dynmem_t *pool) {
  return static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool));
}

// Takes a chunk, and returns its data behind the compaction header. The library stops the process when a
// pool's addresses run out, so what would need one more slot than there can be is refused here.
void *take_chunk(dynmem_t *pool, uint32_t last_slot, const char *what, int bytes, const srcaddr_t &referrer,
                 maddr_t &address) {
  const DynMemHdr_t *const hdr = header_of(pool);
  const size_t total = static_cast<size_t>(bytes) + sizeof(compat_t);
  if (total > hdr->mslot_sz)
    throw StoreFull(fmt::format("{} bytes of {} do not fit a memory slot of {}", total, what, hdr->mslot_sz));
  MemSlotAddr_t cursor;
  std::memcpy(&cursor, &hdr->cur_slot_addr, sizeof cursor);
  if (cursor.mslot_idx != NO_SLOT && cursor.mslot_idx >= last_slot && hdr->mslot_sz - cursor.byte_off < total)
    throw StoreFull(fmt::format("no room for more {}: all {} memory slots of {} bytes are full", what,
                                last_slot + 1, hdr->mslot_sz));
  char *const chunk = static_cast<char *>(tslb_dynmem_get_mchunk(pool, &address, bytes, referrer));
  if (chunk == nullptr) throw StoreFull(fmt::format("the pool of {} refused {} bytes", what, bytes));
  return chunk + sizeof(compat_t);
}

srcaddr_t referrer_of(int table, uint32_t index, size_t offset) {
  return {static_cast<uint32_t>(table), index, static_cast<short>(offset), {0, 0}};
}

uint32_t bits_of(const maddr_t &address) {
  uint32_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  return bits;
}

uint64_t block_bytes(DynArrHandle_t *array) {
  return static_cast<uint64_t>(tslb_dynmem_get_hdrsz(array)) +
         uint64_t{tslb_da_get_total_size(array)} * tslb_da_get_slotsz(array, nullptr);
}

}  // namespace

Store::Store(const StoreConfig &config)
    : catalogue_(tslb_da_init_ver(sizeof(SeriesRecord), CATALOGUE_DIRECT_SLOTS, MPOOL_TYPE_DRAM, CONTEXT,
                                  CATALOGUE_TABLE, TSLB_DA_DAFLAG_INLL, RECORD_VERSION)),
      keys_(tslb_init_dynmem_ex(config.key_slot_bytes, NO_DIRECT_SLOTS, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0,
                                CONTEXT, KEYS_TABLE, TSLB_DA_DAFLAG_LL, RECORD_VERSION)),
      points_(tslb_init_dynmem_ex(config.point_slot_bytes, NO_DIRECT_SLOTS, MPOOL_FLAG_COMPAT,
                                  MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, CONTEXT, POINTS_TABLE, TSLB_DA_DAFLAG_LL,
                                  RECORD_VERSION)) {
  if (!catalogue_ || !keys_ || !points_) throw std::bad_alloc();
}

SeriesRecord *Store::slot(uint32_t series) const {
  return static_cast<SeriesRecord *>(tslb_da_get_ptr(catalogue_.get(), series));
}

const SeriesRecord &Store::record(uint32_t series) const {
  return *slot(series);
}

std::string_view Store::key(uint32_t series) const {
  uint32_t length;  // without the zero: the pool tells one less than the chunk holds
  const void *const text = tslb_dynmem_get_maddr2ptr_ex(keys_.get(), record(series).key, &length);
  return {static_cast<const char *>(text), length};
}

uint32_t Store::series_of(std::string_view key) {
  const auto known = series_by_key_.find(key);
  return known != series_by_key_.end() ? known->second : add_series(key);
}

uint32_t Store::add_series(std::string_view key) {
  if (key.size() > LONGEST_KEY) throw StoreFull("a series key is too long");
  // The key first: if there is no room for it, no slot of the catalogue is taken. The next index is known,
  // because slots are never given back.
  const uint32_t expected = n_series();
  maddr_t address;
  char *const text = static_cast<char *>(
      take_chunk(keys_.get(), KEYS_LAST_SLOT, "series keys", static_cast<int>(key.size() + 1),
                 referrer_of(CATALOGUE_TABLE, expected, offsetof(SeriesRecord, key)), address));
  std::memcpy(text, key.data(), key.size());
  text[key.size()] = '\0';

  uint32_t index;
  auto *const record = static_cast<SeriesRecord *>(tslb_da_get_newptr(catalogue_.get(), &index));
  if (record == nullptr || index != expected) throw StoreFull("the catalogue has no room for another series");
  record->key = address;
  record->gatekeeper = SERIES_READY;
  series_by_key_.emplace(std::string_view(text, key.size()), index);
  return index;
}

PointChunk *Store::last_chunk(const SeriesRecord &series) const {
  if (series.n_chunks == 0) return nullptr;
  return static_cast<PointChunk *>(tslb_dynmem_get_maddr2ptr(points_.get(), series.last_chunk));
}

PointChunk *Store::add_chunk(uint32_t series) {
  SeriesRecord &record = *slot(series);
  PointChunk *const previous = last_chunk(record);
  const uint8_t capacity = capacity_of(record.n_chunks);
  const srcaddr_t referrer =
      previous == nullptr ? referrer_of(CATALOGUE_TABLE, series, offsetof(SeriesRecord, first_chunk))
                          : referrer_of(POINTS_TABLE, bits_of(record.last_chunk), offsetof(PointChunk, next));
  maddr_t address;
  auto *const chunk = static_cast<PointChunk *>(
      take_chunk(points_.get(), POINTS_LAST_SLOT, "points", bytes_of(capacity), referrer, address));
  *chunk = {};
  chunk->capacity = capacity;

  if (previous == nullptr) {
    record.first_chunk = address;
  } else {
    previous->next = address;
    previous->flags |= CHUNK_HAS_NEXT;
  }
  record.last_chunk = address;
  ++record.n_chunks;
  return chunk;
}

void Store::append(uint32_t series, const Point &point) {
  SeriesRecord &record = *slot(series);
  PointChunk *chunk = last_chunk(record);
  if (chunk == nullptr || chunk->count == chunk->capacity) chunk = add_chunk(series);
  std::memcpy(point_at(chunk, chunk->count), &point, sizeof point);
  ++chunk->count;
  ++record.n_points;
  ++n_points_;
}

uint64_t Store::bytes_in_use() const {
  const uint64_t headers = static_cast<uint64_t>(tslb_dynmem_get_hdrsz(catalogue_.get())) +
                           static_cast<uint64_t>(tslb_dynmem_get_hdrsz(keys_.get())) +
                           static_cast<uint64_t>(tslb_dynmem_get_hdrsz(points_.get()));
  return headers + uint64_t{n_series()} * tslb_da_get_slotsz(catalogue_.get(), nullptr) +
         header_of(keys_.get())->total_mused + header_of(points_.get())->total_mused;
}

uint64_t Store::bytes_reserved() const {
  return block_bytes(catalogue_.get()) + block_bytes(keys_.get()) + block_bytes(points_.get());
}

PointCursor::PointCursor(const Store &store, uint32_t series) : pool_(store.points()) {
  const SeriesRecord &record = store.record(series);
  if (record.n_chunks != 0)
    chunk_ = static_cast<const PointChunk *>(tslb_dynmem_get_maddr2ptr(pool_, record.first_chunk));
}

bool PointCursor::next(Point &point) {
  while (chunk_ != nullptr && taken_ == chunk_->count) {
    chunk_ = (chunk_->flags & CHUNK_HAS_NEXT) == 0
                 ? nullptr
                 : static_cast<const PointChunk *>(tslb_dynmem_get_maddr2ptr(pool_, chunk_->next));
    taken_ = 0;
  }
  if (chunk_ == nullptr) return false;
  std::memcpy(&point, point_at(chunk_, taken_++), sizeof point);
  return true;
}

}  // namespace metricdb
