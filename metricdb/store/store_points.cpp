// Chunks of points: how an open chunk grows and is sealed, and the walk over the points of a series.
#include <algorithm>

#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {

SealedChunk *Store::sealed_at(const maddr_t &address) const {
  return reinterpret_cast<SealedChunk *>(points_.data(address));
}

// The tail of an existing series. All its points are in the redo log, or older than it.
Store::Tail Store::tail_of(const SeriesRecord &record) const {
  Tail tail = {.record = record, .type = record.type()};
  find_short(tail);
  if ((record.flags() & SERIES_HAS_OPEN) == 0) return tail;
  tail.open = points_.data(record.open());
  tail.capacity = static_cast<uint16_t>(compat_of(tail.open)->mchunk_len / sizeof(Point));
  tail.n_open = tail.n_logged = static_cast<uint16_t>(record.n_open());
  return tail;
}

// The point is passed in registers: in memory it would have been written in two halves, for which a load of both waits.
void Store::append(uint32_t series, Point point) {
  Tail &tail = tails_[series];
  if (tail.n_open == tail.capacity) grow_or_seal(series, tail);
  const SeriesRecord &record = tail.record;
  char *const at = tail.open + tail.n_open * sizeof point;
  std::memcpy(at, &point.ts_ns, sizeof point.ts_ns);
  std::memcpy(at + offsetof(Point, value), &point.value, sizeof point.value);
  record.set_n_open(++tail.n_open);
  record.set_n_points(record.n_points() + 1);
  ++n_points_;
  data_time_ns_ = std::max(data_time_ns_, point.ts_ns);
  record.set_written_at_ns(data_time_ns_);
  const int64_t newest_ns = record.newest_ns();
  if (point.ts_ns > newest_ns) {
    // Unsigned: the difference of two times can exceed the signed range.
    constexpr uint64_t NS_PER_MS = 1'000'000;
    const uint64_t step_ms = (static_cast<uint64_t>(point.ts_ns) - static_cast<uint64_t>(newest_ns)) / NS_PER_MS;
    if (newest_ns != INT64_MIN) record.set_interval_ms(static_cast<uint32_t>(std::min<uint64_t>(step_ms, UINT32_MAX)));
    record.set_newest_ns(point.ts_ns);
  }
  activate(series, tail);
  mark_changed(series, tail, Change::counters);
}

void Store::activate(uint32_t series, Tail &tail) {
  if (status_of(tail.record.at()) != TSLB_DA_SLOT_INACTIVE) return;
  mark_changed(series, tail);
  tslb_da_activate_idx(catalogue_.get(), series);
}

void Store::make_room(uint32_t series) {
  Tail &tail = tails_[series];
  if (tail.n_open == tail.capacity) grow_or_seal(series, tail);
  activate(series, tail);
  // With many series what `append` changes is in no cache.
  __builtin_prefetch(tail.record.at() + SeriesRecord::FIRST_COUNTER, 1);
  __builtin_prefetch(tail.open + tail.n_open * sizeof(Point), 1);
}

void Store::grow_or_seal(uint32_t series, Tail &tail) {
  mark_changed(series, tail);
  const LiveChange change(live_.get(), LiveChange::HEAD, series);
  if (tail.capacity != SEALED_POINTS) {
    if (tail.capacity == 0 || !add_open_to_short(series, tail)) grow_open(series, tail);
    return;
  }
  seal_open(series, tail);
  while (tail.n_short_points + SEALED_POINTS > MAX_JOINED_POINTS && join_short(series, tail)) continue;
}

void Store::grow_open(uint32_t series, Tail &tail) {
  const uint32_t capacity = tail.capacity == 0 ? FIRST_CAPACITY : tail.capacity * CAPACITY_STEP;
  maddr_t address;
  char *const grown =
      points_.take(capacity * sizeof(Point), referrer_of(CATALOGUE_TABLE, series, OPEN_REFERENCE), address);
  if (tail.capacity != 0) {
    std::memcpy(grown, tail.open, tail.n_open * sizeof(Point));
    forgotten_.point_slots += points_.remove(tail.record.open());
  }
  tail.record.set_open(address);
  tail.record.set_flags(tail.record.flags() | SERIES_HAS_OPEN);
  points_.log_data(address, tail.n_open * sizeof(Point));
  tail.open = grown;
  tail.capacity = static_cast<uint16_t>(capacity);
  tail.n_logged = tail.n_open;
}

// Puts points into a new sealed chunk, which `referrer` is to refer to. Throws StoreFull before anything changes.
maddr_t Store::seal_points(const char *points, uint32_t count, ValueType type, const srcaddr_t &referrer,
                           const maddr_t &next, Room room) {
  sealed_.resize(max_sealed_chunk_bytes(count));
  const size_t bytes = seal_chunk(points, count, type, sealed_.data());
  reinterpret_cast<SealedChunk *>(sealed_.data())->next = next;
  maddr_t address;
  // Points that are added need less than a quarter of these bytes mostly, because they share the header.
  const size_t chunk_bytes = padded(room == Room::none ? bytes : bytes + bytes / 4 + 32);
  set_sealed(points_.take(chunk_bytes, referrer, address), bytes, chunk_bytes);
  points_.log_data(address, chunk_bytes);
  return address;
}

// Writes the first bytes of sealed_, and zeros after them.
void Store::set_sealed(char *chunk, size_t n_bytes, size_t chunk_bytes) const {
  std::memcpy(chunk, sealed_.data(), n_bytes);
  std::memset(chunk + n_bytes, 0, chunk_bytes - n_bytes);
}

// The place that refers to the first short chunk of a series, or will.
srcaddr_t Store::short_referrer(uint32_t series, const Tail &tail) const {
  return tail.record.n_sealed() == tail.n_short ? referrer_of(CATALOGUE_TABLE, series, FIRST_SEALED_REFERENCE)
                                                : referrer_in_chunk(tail.before_short);
}

// A series with few points keeps most of them in one sealed chunk, and has a small open one beside it: a hundred bytes and
// 128, in place of an open chunk of 2,048. When the open chunk is full, its points are added to the sealed one, in place if
// there is room. Returns false if this is not such a series, or if there is no room for another chunk.
bool Store::add_open_to_short(uint32_t series, Tail &tail) {
  const uint32_t n_points = tail.n_short_points + tail.n_open;
  const bool has_one = tail.n_short == 1, has_none = tail.record.n_sealed() == 0;
  if (n_points > MAX_POINTS_WITH_ROOM || !(has_one || has_none) || is_being_erased(series)) return false;
  joined_.clear();
  if (has_one) {
    const SealedChunk *const chunk = sealed_at(tail.record.last_sealed());
    open_chunk(*chunk, bytes_of(chunk), tail.type, joined_);
  }
  for (uint32_t i = 0; i < tail.n_open; ++i) joined_.push_back(point_at(tail.open, i));
  try {
    if (has_none || !rewrite_short(series, tail)) put_in_short(series, tail);
  } catch (const StoreFull &) {
    return false;
  }
  tail.record.set_n_open(0);
  tail.n_open = tail.n_logged = 0;
  tail.n_short = 1;
  tail.n_short_points = n_points;
  grow_with_series(series, tail);
  return true;
}

// Puts the points in joined_ into a new chunk, in place of the short one if there is one. Throws StoreFull.
void Store::put_in_short(uint32_t series, Tail &tail) {
  const SeriesRecord &record = tail.record;
  const Room room = joined_.size() < MAX_POINTS_WITH_ROOM ? Room::for_more : Room::none;
  const maddr_t fresh =
      seal_points(reinterpret_cast<const char *>(joined_.data()), static_cast<uint32_t>(joined_.size()), tail.type,
                  short_referrer(series, tail), {}, room);
  if (tail.n_short != 0) return replace_short(series, tail, record.last_sealed(), fresh, 1);
  record.set_first_sealed(fresh);
  record.set_last_sealed(fresh);
  record.set_n_sealed(1);
}

// Replaces an empty open chunk by a larger one as the series gets longer: its short chunk is encoded again each time.
void Store::grow_with_series(uint32_t series, Tail &tail) {
  const uint32_t n_points = tail.n_short_points;
  const uint32_t wanted = n_points >= SEALED_POINTS       ? SEALED_POINTS
                          : n_points >= SEALED_POINTS / 2 ? FIRST_CAPACITY * CAPACITY_STEP
                                                          : FIRST_CAPACITY;
  if (wanted <= tail.capacity) return;
  try {
    grow_open(series, tail);
  } catch (const StoreFull &) {
    // The smaller one is empty.
  }
}

// Encodes the points in joined_ into the short chunk. Returns false if they do not fit.
bool Store::rewrite_short(uint32_t series, Tail &tail) {
  const maddr_t address = tail.record.last_sealed();
  char *const chunk = points_.data(address);
  const size_t chunk_bytes = compat_of(chunk)->mchunk_len;
  sealed_.resize(max_sealed_chunk_bytes(joined_.size()));
  const size_t bytes =
      seal_chunk(reinterpret_cast<const char *>(joined_.data()), joined_.size(), tail.type, sealed_.data());
  if (padded(bytes) > chunk_bytes) return false;
  const LiveChange change(live_.get(), LiveChange::CHAIN, series);
  set_sealed(chunk, bytes, chunk_bytes);
  points_.log_data(address, chunk_bytes);
  ++tail.n_moves;
  ++n_moves_;
  return true;
}

void Store::set_next(const maddr_t &chunk, const maddr_t &next) {
  SealedChunk *const sealed = sealed_at(chunk);
  sealed->next = next;
  points_.log(chunk, reinterpret_cast<const char *>(&sealed->next), sizeof sealed->next);
}

void Store::set_referrer(const maddr_t &chunk, const srcaddr_t &referrer) {
  compat_t *const compat = compat_of(points_.data(chunk));
  compat->srcaddr = referrer;
  points_.log(chunk, reinterpret_cast<const char *>(compat), sizeof *compat);
}

void Store::seal_open(uint32_t series, Tail &tail) {
  const SeriesRecord &record = tail.record;
  const uint32_t n_sealed = record.n_sealed();
  const maddr_t previous = record.last_sealed();
  const srcaddr_t referrer =
      n_sealed == 0 ? referrer_of(CATALOGUE_TABLE, series, FIRST_SEALED_REFERENCE) : referrer_in_chunk(previous);
  const maddr_t address = seal_points(tail.open, tail.n_open, tail.type, referrer, {});
  if (n_sealed == 0)
    record.set_first_sealed(address);
  else
    set_next(previous, address);
  record.set_last_sealed(address);
  record.set_n_sealed(n_sealed + 1);
  record.set_n_open(0);
  ++tail.n_short;
  tail.n_short_points += tail.n_open;
  tail.n_open = tail.n_logged = 0;
}

PointCursor::PointCursor(const Store &store, uint32_t series, const TimeRange &range)
    : pool_(store.points()),
      record_(store.record(series)),
      range_{std::max(range.from_ns, store.visible_from_ns()), range.to_ns},
      n_sealed_left_(record_.n_sealed()),
      next_sealed_(record_.first_sealed()) {}

// Moves to the next sealed chunk whose time span overlaps the range.
bool PointCursor::enter_sealed() {
  sealed_.clear();
  n_sealed_read_ = 0;
  while (n_sealed_left_ > 0) {
    const auto *const chunk = static_cast<const SealedChunk *>(tslb_dynmem_get_maddr2ptr(pool_, next_sealed_));
    --n_sealed_left_;
    next_sealed_ = chunk->next;
    if (chunk->newest_ns >= range_.from_ns && chunk->oldest_ns <= range_.to_ns) {
      open_chunk(*chunk, bytes_of(chunk), type(), sealed_);
      return true;
    }
    n_passed_ += chunk->count();
  }
  return false;
}

bool PointCursor::next_of_any(Point &point) {
  do {
    if (n_sealed_read_ < sealed_.size()) {
      point = sealed_[n_sealed_read_++];
      return true;
    }
  } while (enter_sealed());
  if (n_open_read_ == record_.n_open()) return false;
  const auto *const open = static_cast<const char *>(tslb_dynmem_get_maddr2ptr(pool_, record_.open()));
  point = point_at(open, n_open_read_++);
  return true;
}

bool PointCursor::next(Point &point) {
  for (Point found; next_of_any(found);) {
    ++n_passed_;
    if (!range_.contains(found.ts_ns)) continue;
    point = found;
    return true;
  }
  return false;
}

}  // namespace metricdb
