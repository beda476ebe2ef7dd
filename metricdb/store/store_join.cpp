// Joins short sealed chunks into long ones, and moves chunks so that memory slots become free.
//
// A long chunk needs fewer bytes a point: one header instead of many, and its numbers can be coded (codec/coded_numbers.h).
// Each point is encoded twice, when it is sealed and when it is joined, and once more each time a database ends.
//
// The chunks of all series lie one after the other in the memory slots, and a slot is free only when all its chunks are
// deleted. Long chunks stay, so the short chunks around them would keep their room for ever. When half of the bytes are
// deleted, the chunks of the slots with the most deleted bytes are moved: less than one byte for each that becomes free.
#include <array>

#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr uint64_t MIN_DELETED_BYTES = 4 << 20;  // between two choices of slots
// A part of the work: chunks that are looked at or moved, in units of about 100 ns.
constexpr uint32_t MAX_MOVE_WORK = 10'000, MOVE_WORK = 5;
constexpr uint64_t MAX_JOINING_BATCH_BYTES = 16 << 20;

}  // namespace

// Chunks that an earlier process left are joined as if this one had sealed them.
void Store::find_short(Tail &tail) const {
  constexpr uint32_t MAX_FOUND = MAX_JOINED_POINTS / SEALED_POINTS;
  struct Found {
    maddr_t address;
    uint32_t n_points;
  };
  std::array<Found, MAX_FOUND> last;
  const uint32_t n_sealed = tail.record.n_sealed();
  maddr_t address = tail.record.first_sealed();
  for (uint32_t i = 0; i < n_sealed; ++i) {
    const SealedChunk *const chunk = sealed_at(address);
    last[i % MAX_FOUND] = {address, chunk->count()};
    address = chunk->next;
  }
  for (uint32_t i = n_sealed; i > 0 && n_sealed - i < MAX_FOUND; --i) {
    const Found &found = last[(i - 1) % MAX_FOUND];
    tail.before_short = found.address;
    if (tail.n_short_points + found.n_points > MAX_JOINED_POINTS || tail.n_short + 1 == MAX_FOUND) return;
    tail.n_short_points += found.n_points;
    ++tail.n_short;
  }
}

// ---- Joining ------------------------------------------------------------------------------------------------------

// Joins the first short chunks, as many as fit into one. A first one that fits with none is not short any more. Does nothing
// without room for another chunk.
//
// with_open  after all short chunks it takes the open points, too, if they fit.
bool Store::join_short(uint32_t series, Tail &tail, bool with_open) {
  if (is_being_erased(series)) return false;
  const SeriesRecord &record = tail.record;
  const bool is_whole = record.n_sealed() == tail.n_short;
  const srcaddr_t referrer = short_referrer(series, tail);
  const maddr_t first = is_whole ? record.first_sealed() : maddr_t{sealed_at(tail.before_short)->next};
  maddr_t following = first;
  uint32_t n_chunks = 0;
  joined_.clear();
  for (; n_chunks < tail.n_short; ++n_chunks) {
    const SealedChunk *const chunk = sealed_at(following);
    if (n_chunks != 0 && joined_.size() + chunk->count() > MAX_JOINED_POINTS) break;
    open_chunk(*chunk, bytes_of(chunk), tail.type, joined_);
    following = chunk->next;
  }
  const auto n_sealed_points = static_cast<uint32_t>(joined_.size());
  const bool takes_open = with_open && n_chunks == tail.n_short && n_sealed_points + tail.n_open <= MAX_JOINED_POINTS;
  for (uint32_t i = 0; takes_open && i < tail.n_open; ++i) joined_.push_back(point_at(tail.open, i));
  maddr_t joined = first;
  if (n_chunks > 1 || takes_open) {
    try {
      joined = seal_points(reinterpret_cast<const char *>(joined_.data()), static_cast<uint32_t>(joined_.size()),
                           tail.type, referrer, n_chunks == tail.n_short ? maddr_t{} : following);
    } catch (const StoreFull &) {
      return false;
    }
    replace_short(series, tail, first, joined, n_chunks);
  }
  if (takes_open) {
    record.set_n_open(0);
    tail.n_open = tail.n_logged = 0;
  }
  const auto n_points = static_cast<uint32_t>(joined_.size());
  const bool has_room = n_chunks == tail.n_short && n_points + SEALED_POINTS <= MAX_JOINED_POINTS;
  if (has_room) {
    tail.n_short = 1;
    tail.n_short_points = n_points;
  } else {
    tail.before_short = joined;
    tail.n_short -= n_chunks;
    tail.n_short_points -= n_sealed_points;
  }
  return true;
}

// Puts a chunk in the place of the first n_chunks short ones, and deletes these.
void Store::replace_short(uint32_t series, Tail &tail, maddr_t first, const maddr_t &joined, uint32_t n_chunks) {
  const SeriesRecord &record = tail.record;
  const LiveChange change(live_.get(), LiveChange::CHAIN, series);
  if (record.n_sealed() == tail.n_short)
    record.set_first_sealed(joined);
  else
    set_next(tail.before_short, joined);
  if (n_chunks == tail.n_short)
    record.set_last_sealed(joined);
  else
    set_referrer(sealed_at(joined)->next, referrer_in_chunk(joined));
  record.set_n_sealed(record.n_sealed() - n_chunks + 1);
  for (uint32_t i = 0; i < n_chunks; ++i) {
    // Read first, because the deletion can put the chunk's slot on the free list.
    const maddr_t next = sealed_at(first)->next;
    forgotten_.point_slots += points_.remove(first);
    first = next;
  }
  ++tail.n_moves;
  ++n_moves_;
}

uint32_t Store::pack(uint32_t series) {
  for (; series < n_slots(); ++series) {
    if (batch_ != nullptr && batch_bytes() > MAX_JOINING_BATCH_BYTES) return series;
    if (holds_series(series)) pack_series(series, tails_[series]);
  }
  return series;
}

void Store::pack_series(uint32_t series, Tail &tail) {
  if (is_being_erased(series) || (tail.open == nullptr && tail.n_short < 2)) return;
  mark_changed(series, tail);
  const LiveChange change(live_.get(), LiveChange::HEAD, series);
  while ((tail.n_short > 1 || (tail.n_short == 1 && tail.n_open != 0)) && join_short(series, tail, true)) continue;
  if (tail.open == nullptr) return;
  try {
    if (tail.n_open != 0) seal_open(series, tail);
  } catch (const StoreFull &) {
    return;
  }
  const SeriesRecord &record = tail.record;
  forgotten_.point_slots += points_.remove(record.open());
  record.set_open({});
  record.set_flags(record.flags() & static_cast<uint8_t>(~SERIES_HAS_OPEN));
  tail.open = nullptr;
  tail.capacity = 0;
}

// ---- Moving -------------------------------------------------------------------------------------------------------

// Chooses slots of which enough is deleted; none if there is too little in all.
void Store::choose_slots(bool is_final) {
  if (!is_final && points_.n_deleted() - n_deleted_at_choice_ < MIN_DELETED_BYTES) return;
  n_deleted_at_choice_ = points_.n_deleted();
  const uint32_t min_percent = is_final ? 4 : 40, min_percent_of_all = is_final ? 2 : 50;
  const PoolBytes all = points_.bytes();
  if (all.deleted * 100 < all.used * min_percent_of_all) return;
  chosen_slots_ = points_.slots_with_deleted(min_percent);
  next_moved_ = 0;
}

bool Store::is_chosen(const maddr_t &address) const {
  const uint32_t slot = place_of(points_.array(), address).slot_idx;
  return slot < chosen_slots_.size() && chosen_slots_[slot];
}

// Returns the new address. Throws StoreFull before anything changes.
maddr_t Store::copy_chunk(const maddr_t &address, const srcaddr_t &referrer, size_t n_used_bytes) {
  const char *const from = points_.data(address);
  maddr_t fresh;
  char *const to = points_.take(compat_of(points_.data(address))->mchunk_len, referrer, fresh);
  std::memcpy(to, from, n_used_bytes);
  points_.log_data(fresh, n_used_bytes);
  // A chosen slot that became free can be taken again, and keeps what it gets now.
  if (is_chosen(fresh)) chosen_slots_[place_of(points_.array(), fresh).slot_idx] = false;
  return fresh;
}

void Store::move_open(uint32_t series, Tail &tail) {
  const SeriesRecord &record = tail.record;
  const maddr_t address = record.open();
  const maddr_t fresh =
      copy_chunk(address, referrer_of(CATALOGUE_TABLE, series, OPEN_REFERENCE), tail.n_open * sizeof(Point));
  const LiveChange change(live_.get(), LiveChange::HEAD, series);
  record.set_open(fresh);
  tail.open = points_.data(fresh);
  tail.n_logged = tail.n_open;
  forgotten_.point_slots += points_.remove(address);
}

// Returns the new address of a sealed chunk. previous  null: it is the first of its chain.
maddr_t Store::move_sealed(uint32_t series, Tail &tail, const maddr_t *previous, const maddr_t &address) {
  const SeriesRecord &record = tail.record;
  const SealedChunk *const chunk = sealed_at(address);
  const maddr_t fresh = copy_chunk(
      address,
      previous == nullptr ? referrer_of(CATALOGUE_TABLE, series, FIRST_SEALED_REFERENCE) : referrer_in_chunk(*previous),
      compat_of(points_.data(address))->mchunk_len);
  const LiveChange change(live_.get(), LiveChange::CHAIN, series);
  if (previous == nullptr)
    record.set_first_sealed(fresh);
  else
    set_next(*previous, fresh);
  if (bits_of(record.last_sealed()) == bits_of(address))
    record.set_last_sealed(fresh);
  else
    set_referrer(chunk->next, referrer_in_chunk(fresh));
  if (bits_of(tail.before_short) == bits_of(address)) tail.before_short = fresh;
  forgotten_.point_slots += points_.remove(address);
  ++tail.n_moves;
  ++n_moves_;
  return fresh;
}

// Moves the chunks of a series that are in chosen slots. Returns the work.
uint32_t Store::move_chunks(uint32_t series, Tail &tail) {
  if (is_being_erased(series)) return 1;
  uint32_t work = 1;
  const auto changes = [&] {
    work += MOVE_WORK;
    mark_changed(series, tail);
  };
  if (tail.open != nullptr && is_chosen(tail.record.open())) {
    changes();
    move_open(series, tail);
  }
  maddr_t address = tail.record.first_sealed(), previous = {};
  for (uint32_t i = 0; i < tail.record.n_sealed(); ++i, ++work) {
    if (is_chosen(address)) {
      changes();
      address = move_sealed(series, tail, i == 0 ? nullptr : &previous, address);
    }
    previous = address;
    address = sealed_at(address)->next;
  }
  return work;
}

bool Store::compact(bool is_final) {
  if (!is_final && is_final_choice_) return true;  // between the batches of the final part
  if (is_final != is_final_choice_) chosen_slots_.clear();
  is_final_choice_ = is_final;
  if (chosen_slots_.empty()) choose_slots(is_final);
  if (chosen_slots_.empty()) return true;
  try {
    for (uint32_t work = 0; next_moved_ < n_slots(); ++next_moved_) {
      if (is_final ? batch_ != nullptr && batch_bytes() > MAX_JOINING_BATCH_BYTES : work > MAX_MOVE_WORK) return false;
      if (holds_series(next_moved_)) work += move_chunks(next_moved_, tails_[next_moved_]);
    }
  } catch (const StoreFull &) {
    // Chunks stay where they are.
  }
  chosen_slots_.clear();
  return true;
}

}  // namespace metricdb
