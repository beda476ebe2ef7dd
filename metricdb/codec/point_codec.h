// The sealed form of a run of points: what the points of one series take, in order of arrival, when no more come to
// them.
//
// A run is a string of bits without a length or a count, which are kept by whoever keeps the run. Bits fill a byte from
// the lowest one up; a number of several bits begins with its lowest one. The last byte is filled up with zeroes.
//
//   time, of the first point
//     64 bits   ts_ns
//   time, of each other one: the change of the step, that is of the distance to the time before (0 ahead of the first
//   step). All of it wraps at 64 bits; c = (change << 1) ^ (change >> 63) is small for a small change of either sign.
//     0                  no change: 1 bit for a point of a regular series
//     1 nnnn c           c in 4 * (n + 1) bits, as few as will do: 9 bits for up to 7 ns, 25 for 0.5 ms, 69 at most
//   value, behind the time of each point: the bits in which it differs from the value before (0.0 ahead of the first)
//     0                  none
//     1 0 x              some, and all within the window, whose bits follow
//     1 1 aaaaa nnnnnn x a new window, and its bits: behind `a` bits from the top it is n + 1 bits wide
//
// A new window begins with the highest bit that differs, or behind 31 bits if that one is lower still, and ends with
// the lowest. The window at hand is kept where it holds all that differs and is up to 11 bits wider than a new one
// would be, which is what naming a new one costs. So each run has one sealed form, and whoever walks a form refuses any
// other.
//
// Threads: everything here works on what it is given, and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>

#include "codec/point.h"

namespace metricdb {

inline constexpr size_t MAX_SEALED_POINTS = 65'535;

// Upper bound of the bytes that n points take. Beyond the most bits of a point, one word: bits are written by words.
constexpr size_t max_sealed_bytes(size_t n) {
  constexpr size_t MOST_TIME_BITS = 1 + 4 + 64;
  constexpr size_t MOST_VALUE_BITS = 2 + 5 + 6 + 64;
  return (n * (MOST_TIME_BITS + MOST_VALUE_BITS) + 7) / 8 + sizeof(uint64_t);
}

// Seals the points that lie at `points`, 16 bytes each, at any address. Returns the bytes written to `out`, which has
// room for max_sealed_bytes(n).
//
// n  1 to MAX_SEALED_POINTS.
size_t seal_points(const char *points, size_t n, char *out);

// Which bits of a value are written in full: `lead` from the top are not, then `width` are. Of no width: none yet.
struct ValueWindow {
  unsigned lead = 0;
  unsigned width = 0;

  unsigned trail() const { return 64 - lead - width; }
};

// Walks a sealed run. Any bytes will do: what is no sealed form of n points is told apart, and nothing outside of them
// is read. They must stay as they are meanwhile.
class SealedPoints {
 public:
  SealedPoints(const char *bytes, size_t size, size_t n);

  // The next point. False behind the last one, or if the bytes contradict themselves; `point` counts for nothing then.
  bool next(Point &point);

  // After `next` said false: all n points came, and the bytes are their sealed form to the last bit.
  bool is_whole() const;

 private:
  uint64_t word_at(uint64_t bit) const;
  uint64_t last_word_at(uint64_t bit) const;
  bool take(unsigned n_bits, uint64_t &bits);
  bool take_time();
  bool take_value();
  bool take_kept_window(uint64_t &differing);
  bool take_new_window(uint64_t word, uint64_t &differing);

  const char *bytes_;
  size_t size_;
  size_t n_left_;
  uint64_t at_bit_ = 0;
  bool is_first_ = true;
  bool is_damaged_ = false;
  uint64_t ts_ns_ = 0;  // these three: of the point before
  uint64_t step_ns_ = 0;
  uint64_t value_ = 0;
  ValueWindow window_;
};

}  // namespace metricdb
