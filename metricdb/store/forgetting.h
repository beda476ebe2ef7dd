// The limits by which a store forgets data. Data time is the newest timestamp received so far, of any series.
//   retention   Points with ts < now - retain_ns are invisible, and are not stored if they arrive late. Now is the clock
//               of a server (Store::set_clock), or without one data time. A sweep deletes chunks from the front of each
//               chain, up to the first chunk with a visible point. Older points in the remaining chunks are hidden by
//               their timestamps. A series without a visible point loses its open chunk, its key and its slot, and is a
//               new series if it returns.
//   idleness    A sweep moves each series that was not written for idle_ns of data time to the catalogue's inactive
//               list, in the order of the last writes. Its points stay visible. The next write activates it.
//   reuse       When enough slots of the catalogue are inactive, a new series takes the slot of the series that has
//               been inactive longest, whose points and key are deleted.
// Memory is released by slots of the pools, when all chunks in a slot are deleted: a chunk that a slow series fills
// over a long time keeps its whole slot.
#pragma once

#include <cstdint>
#include <optional>

namespace metricdb {

struct Forgetting {
  int64_t retain_ns = 0;  // 0: all points stay
  int64_t idle_ns = 0;    // 0: no series becomes inactive
  // Percent of the catalogue's slots that must be inactive before reuse begins, 1 to 100; 0: no reuse. The array's
  // policy also has a limit by count, which cannot be disabled: reuse begins in any case at 65,535 inactive slots.
  uint8_t reuse_inactive_pct = 0;

  bool operator==(const Forgetting &) const = default;
  bool is_by_sweeps() const { return retain_ns != 0 || idle_ns != 0; }
};

// New values for some of the limits; a limit without a value stays.
struct ForgettingChange {
  std::optional<int64_t> retain_ns = {};
  std::optional<int64_t> idle_ns = {};
  std::optional<uint8_t> reuse_inactive_pct = {};

  Forgetting applied_to(const Forgetting &now) const {
    return {retain_ns.value_or(now.retain_ns), idle_ns.value_or(now.idle_ns),
            reuse_inactive_pct.value_or(now.reuse_inactive_pct)};
  }
};

// What was forgotten or erased since the store was created.
struct ForgetCounts {
  uint64_t late_points = 0;    // not stored: too old when they arrived
  uint64_t points = 0;         // in deleted chunks, and erased ones
  uint64_t chunks = 0;         // of points, open and sealed
  uint64_t series_aged = 0;    // deleted with the last of their chunks
  uint64_t series_reused = 0;  // deleted because a new series took their slot
  uint64_t key_slots = 0;      // memory slots that went to their pool's free list
  uint64_t point_slots = 0;
};

}  // namespace metricdb
