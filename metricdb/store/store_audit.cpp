// Restores a store from arrays, and validates their content before it is used.
//
// The arrays themselves are sound by then, as recovery/array_loader.h defines it. The checks here are about the data of
// the store in them:
//   shapes      each array has the flags, versions and sizes of the store's configuration.
//   chunks      the chunks of a memory slot cover its used bytes without gaps; the deleted bytes agree with the slot's
//               count; the cursor is at the end of the last chunk of its slot.
//   catalogue   each slot is a series or free, according to its status.
//   references  each address of a series names the beginning of a chunk that is not deleted and has the right size. The
//               chunk's header names this reference. Each chunk is referred to once, so no chain is a ring or joins
//               another chain, and no chunk is lost.
//   points      the number of points of an open chunk is within its capacity; a sealed chunk has the number of points
//               and the time span in its header, and its bytes are a sealed form of that many points.
//   figures     counts of chunks and points; keys are unique; no time is after data time.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "store/chunk_map.h"
#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

using Where = StoreDamaged::Where;

// One series: its record and the chunks that it refers to.
class SeriesAudit {
 public:
  SeriesAudit(uint32_t series, const SeriesRecord &record) : series_(series), record_(record) {}

  void take_key(ChunkMap &keys, int64_t data_time_ns) const {
    if (!record_.is_clean()) fail("unused bytes are not zero");
    if (record_.written_at_ns() > data_time_ns || record_.newest_ns() > data_time_ns)
      fail("its times are after data time");
    uint32_t bytes;
    const char *const text = keys.claim(record_.key(), referrer_of(CATALOGUE_TABLE, series_, KEY_REFERENCE), bytes,
                                        [this](const std::string &what) { fail("its key " + what); });
    if (bytes == 0 || text[bytes - 1] != '\0') fail("its key does not end with a zero");
  }

  // memory  for the points of a chunk.
  void take_points(ChunkMap &points, std::vector<Point> &memory) {
    take_sealed(points, memory);
    take_open(points);
    if (n_points_ != record_.n_points())
      fail(fmt::format("its chunks hold {} points, but its record counts {}", n_points_, record_.n_points()));
  }

 private:
  [[noreturn]] void fail(const std::string &what) const {
    throw StoreDamaged(Where::catalogue, series_, fmt::format("series {}: {}", series_, what));
  }

  // Ends even if the chain is a ring, because each chunk is claimed once.
  void take_sealed(ChunkMap &points, std::vector<Point> &memory) {
    maddr_t address = record_.first_sealed();
    srcaddr_t from = referrer_of(CATALOGUE_TABLE, series_, FIRST_SEALED_REFERENCE);
    for (uint32_t number = 0; number < record_.n_sealed(); ++number) {
      const auto fail_chunk = [this, number](const std::string &what) {
        fail(fmt::format("sealed chunk {} {}", number, what));
      };
      uint32_t bytes;
      const auto *const chunk = reinterpret_cast<const SealedChunk *>(points.claim(address, from, bytes, fail_chunk));
      const bool is_whole = bytes >= sizeof(SealedChunk);
      if (is_whole && (chunk->count() == 0 || chunk->count() > MAX_SEALED_CHUNK_POINTS))
        fail_chunk(fmt::format("holds {} points", chunk->count()));
      const size_t needed = is_whole ? padded_bytes_of(*chunk) : sizeof(SealedChunk);
      if (bytes < needed || (bytes > needed && chunk->count() > MAX_POINTS_WITH_ROOM))
        fail_chunk(fmt::format("has {} bytes, which is not the size of its points", bytes));
      const bool is_last = number + 1 == record_.n_sealed();
      if (is_last && bits_of(address) != bits_of(record_.last_sealed()))
        fail("its last sealed chunk is not the end of its chain");
      if (is_last && bits_of(chunk->next) != 0) fail_chunk("is the last one, but names a next chunk");
      expect_points(*chunk, bytes, memory, fail_chunk);
      n_points_ += chunk->count();
      from = referrer_in_chunk(address);
      address = chunk->next;
    }
  }

  void take_open(ChunkMap &points) {
    const uint8_t flags = record_.flags() & static_cast<uint8_t>(~SERIES_HAS_INTEGERS);
    if (flags != SERIES_READY && flags != (SERIES_READY | SERIES_HAS_OPEN))
      fail(fmt::format("flags 0x{:02x}", record_.flags()));
    if (flags == SERIES_READY && record_.n_open() != 0) fail("it has points but no open chunk");
    if (flags == SERIES_READY) return;
    const auto fail_chunk = [this](const std::string &what) { fail("its open chunk " + what); };
    uint32_t bytes;
    const char *const chunk =
        points.claim(record_.open(), referrer_of(CATALOGUE_TABLE, series_, OPEN_REFERENCE), bytes, fail_chunk);
    uint32_t capacity = FIRST_CAPACITY;
    while (capacity < SEALED_POINTS && capacity * sizeof(Point) != bytes) capacity *= CAPACITY_STEP;
    if (capacity * sizeof(Point) != bytes) fail_chunk(fmt::format("has {} bytes, which is no capacity", bytes));
    if (record_.n_open() > capacity)
      fail_chunk(fmt::format("counts {} points, but holds at most {}", record_.n_open(), capacity));
    for (uint32_t index = 0; index < record_.n_open(); ++index) expect_time(point_at(chunk, index).ts_ns);
    n_points_ += record_.n_open();
  }

  template <class Fail>
  void expect_points(const SealedChunk &chunk, uint32_t bytes, std::vector<Point> &memory, Fail fail_chunk) {
    memory.clear();
    const bool is_whole = open_chunk(chunk, bytes_of(&chunk), record_.type(), memory);
    const char *const end = bytes_of(&chunk) + chunk.bytes, *const begin = reinterpret_cast<const char *>(&chunk);
    const bool is_padded = std::all_of(end, begin + bytes, [](char byte) { return byte == '\0'; });
    if (!is_whole || !is_padded) fail_chunk("cannot be read");
    if (chunk.has_summary() && !has_its_summary(chunk, memory)) fail_chunk("has another summary than its points");
    int64_t oldest_ns = INT64_MAX;
    int64_t newest_ns = INT64_MIN;
    for (const Point &point : memory) {
      oldest_ns = std::min(oldest_ns, point.ts_ns);
      newest_ns = std::max(newest_ns, point.ts_ns);
    }
    if (oldest_ns != chunk.oldest_ns || newest_ns != chunk.newest_ns)
      fail_chunk(fmt::format("holds times from {} to {}, but its header has others", oldest_ns, newest_ns));
    expect_time(newest_ns);
  }

  bool has_its_summary(const SealedChunk &chunk, const std::vector<Point> &points) const {
    const std::optional<ChunkSummary> summary =
        summarize(reinterpret_cast<const char *>(points.data()), points.size(), record_.type());
    return summary && std::memcmp(&*summary, &chunk + 1, sizeof *summary) == 0;
  }

  void expect_time(int64_t ts_ns) const {
    if (ts_ns > record_.newest_ns())
      fail(fmt::format("has a point at {}, but its newest is at {}", ts_ns, record_.newest_ns()));
  }

  const uint32_t series_;
  const SeriesRecord record_;
  uint64_t n_points_ = 0;
};

// Returns whether the slot holds a series. Status, flags and gatekeeper word must agree.
bool is_series(const SeriesRecord &record, uint32_t index) {
  const auto fail = [index](const std::string &what) {
    throw StoreDamaged(Where::catalogue, index, fmt::format("slot {}: {}", index, what));
  };
  if (!record) fail("is missing");
  const uint32_t status = status_of(record.at());
  const bool is_in_use = status == TSLB_DA_SLOT_ACTIVE || status == TSLB_DA_SLOT_INACTIVE;
  // A slot whose memory could not be allocated has no status, and was never written.
  if (!is_in_use && status != TSLB_DA_SLOT_FREE && status != TSLB_DA_SLOT_UNSET) fail(fmt::format("status {}", status));
  const bool is_ready = (record.flags() & SERIES_READY) != 0;
  if (is_ready != is_in_use) fail(fmt::format("flags 0x{:02x} at status {}", record.flags(), status));
  if (status == TSLB_DA_SLOT_FREE && record.gatekeeper() != TSLB_GATEKEEPER_WORD)
    fail(fmt::format("gatekeeper 0x{:x} in a free slot", record.gatekeeper()));
  return is_in_use;
}

// With fewer bytes of points, threads cost more than they save.
constexpr uint64_t MIN_SHARED_BYTES = 256 << 10;
constexpr uint32_t PART_SERIES = 16;

// Calls visit(first, last) for the parts of 0 to n - 1 on as many threads as there are processors, the calling thread
// included. That one also calls collect(first, last) for all parts in order, each after its visit. Returns false if something
// has thrown; parts can be left out then.
template <class Visit, class Collect>
bool visit_in_parts(uint32_t n, Visit visit, Collect collect) {
  const uint32_t n_parts = n / PART_SERIES + (n % PART_SERIES != 0 ? 1 : 0);
  const auto call = [n](auto &function, uint32_t part) {
    function(part * PART_SERIES, std::min<uint64_t>(n, (uint64_t{part} + 1) * PART_SERIES));
  };
  std::vector<std::atomic<bool>> is_visited(n_parts);
  std::atomic<uint32_t> next{0};
  std::atomic<bool> has_failed{false};
  // Returns false if no part is left.
  const auto visit_next = [&] {
    const uint32_t part = has_failed ? n_parts : next.fetch_add(1);
    if (part >= n_parts) return false;
    try {
      call(visit, part);
      is_visited[part].store(true, std::memory_order_release);  // what the visit wrote is collected
    } catch (...) {
      has_failed = true;
    }
    return true;
  };
  std::vector<std::thread> others;
  try {
    const uint32_t n_others = std::max(std::thread::hardware_concurrency(), 1u) - 1;
    others.reserve(n_others);
    while (others.size() < n_others)
      others.emplace_back([&] {
        while (visit_next()) continue;
      });
  } catch (const std::exception &) {
    // Fewer threads do all parts.
  }
  try {
    for (uint32_t part = 0; part < n_parts && !has_failed; ++part) {
      while (!is_visited[part].load(std::memory_order_acquire) && !has_failed)
        if (!visit_next()) std::this_thread::yield();
      if (!has_failed) call(collect, part);
    }
  } catch (...) {
    has_failed = true;
  }
  for (std::thread &other : others) other.join();
  return !has_failed;
}

}  // namespace

Store::Store(const StoreConfig &config, StoreArrays arrays, const StoreState &state)
    : config_(config),
      catalogue_(std::move(arrays.catalogue)),
      keys_(std::move(arrays.keys), KEYS_NAME, MAX_KEY_SLOTS, KEYS),
      points_(std::move(arrays.points), POINTS_NAME, MAX_POINT_SLOTS, POINTS),
      data_time_ns_(state.data_time_ns),
      n_since_sweep_(state.n_since_sweep),
      forgotten_(state.forgotten) {
  expect_shape(Where::catalogue, catalogue_.get(), TSLB_DA_DAFLAG_INLL, config.layout, 0,
               static_cast<uint32_t>(series_record_bytes(config.layout)));
  ChunkMap keys(keys_.array(), Where::keys, 0, MAX_KEY_SLOTS, config.key_slot_bytes);
  ChunkMap points(points_.array(), Where::points, MPOOL_FLAG_BV, MAX_POINT_SLOTS, config.point_slot_bytes);
  tails_.resize(n_slots());
  series_by_key_.reserve(n_series());
  if (points.used_bytes() < MIN_SHARED_BYTES || !take_in_parts(keys, points)) take_in_order(keys, points);
  keys.expect_all_claimed();
  points.expect_all_claimed();
  if (n_series() != state.n_series || n_points_ != state.n_points)
    throw StoreDamaged(Where::state, StoreDamaged::NO_SLOT,
                       fmt::format("the figures say {} series with {} points, but the arrays hold {} with {}",
                                   state.n_series, state.n_points, n_series(), n_points_));
  register_reuse_policy();
}

// Returns whether the slot holds a series.
bool Store::take_key(uint32_t index, ChunkMap &keys) const {
  const SeriesRecord record = slot(index);
  if (!is_series(record, index)) return false;
  SeriesAudit(index, record).take_key(keys, data_time_ns_);
  return true;
}

void Store::take_points(uint32_t index, ChunkMap &points, std::vector<Point> &memory) {
  const SeriesRecord record = slot(index);
  SeriesAudit(index, record).take_points(points, memory);
  tails_[index] = tail_of(record);
}

void Store::take_series(uint32_t index) {
  const SeriesRecord record = slot(index);
  const std::string_view key = key_of(record);
  if (!series_by_key_.emplace(key, index).second)
    throw StoreDamaged(Where::catalogue, index,
                       fmt::format("series {}: another series has the same key \"{}\"", index, key));
  n_points_ += record.n_points();
}

// Finds the fault of the lowest series.
void Store::take_in_order(ChunkMap &keys, ChunkMap &points) {
  std::vector<Point> memory;
  for (uint32_t index = 0; index < n_slots(); ++index) {
    if (!take_key(index, keys)) continue;
    take_series(index);
    take_points(index, points, memory);
  }
}

// Returns false if there is a fault, and nothing was taken then. Which fault is found is due to the threads: of two
// references to a chunk, the one that comes later is refused.
bool Store::take_in_parts(ChunkMap &keys, ChunkMap &points) {
  const auto visit = [&](uint32_t first, uint32_t last) {
    std::vector<Point> memory;
    for (uint32_t index = first; index < last; ++index)
      if (take_key(index, keys)) take_points(index, points, memory);
  };
  const auto collect = [this](uint32_t first, uint32_t last) {
    for (uint32_t index = first; index < last; ++index)
      if (holds_series(index)) take_series(index);
  };
  if (visit_in_parts(n_slots(), visit, collect)) return true;
  keys.forget_claims();
  points.forget_claims();
  series_by_key_.clear();
  n_points_ = 0;
  return false;
}

}  // namespace metricdb
