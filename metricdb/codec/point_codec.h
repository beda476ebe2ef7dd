// A run of points: the encoding of consecutive points of one series, in order of arrival, that earlier versions wrote. Blocks
// (point_block.h) have replaced it. Values are real numbers.
//
// A run is a string of bits. Its length and its number of points are stored elsewhere. Bits fill a byte from the lowest
// bit on, and a number begins with its lowest bit. Unused bits of the last byte are zero.
//
//   time, of the first point
//     64 bits   ts_ns
//   time, of each other point: the change of the step, where the step is the difference to the previous time (0 before
//   the first step). All arithmetic wraps at 64 bits. c = (change << 1) ^ (change >> 63) is small for small changes.
//     0                  no change: 1 bit for a point of a regular series
//     1 nnnn c           c in 4 * (n + 1) bits, as few as possible: 9 bits for up to 7 ns, 25 for 0.5 ms, 69 at most
//   value, after the time of each point: the bits in which it differs from the previous value (0.0 before the first)
//     0                  none
//     1 0 x              some, and all within the window; x are the bits of the window
//     1 1 aaaaa nnnnnn x a new window, and its bits: after `a` bits from the top it is n + 1 bits wide
//
// A new window begins with the highest bit that differs, or after 31 bits if that bit is lower, and ends with the
// lowest. The current window is kept if it contains all bits that differ and is at most 11 bits wider than a new one,
// because defining a new one costs 11 bits. So each run has exactly one sealed form, and the decoder refuses any other.
//
// Threads: functions and objects use only their arguments and members.
#pragma once

#include <cstddef>
#include <cstdint>

#include "codec/point.h"

namespace metricdb {

// The bits of a value that are written: `width` bits after `lead` bits from the top. Width 0: no window yet.
struct ValueWindow {
  unsigned lead = 0;
  unsigned width = 0;

  unsigned trail() const { return 64 - lead - width; }
};

// Decodes a sealed run. Accepts any bytes, detects if they are not the sealed form of n points, and reads no others.
// They must not change meanwhile.
class SealedPoints {
 public:
  SealedPoints(const char *bytes, size_t size, size_t n);

  // Returns false after the last point, or if the bytes are invalid; `point` is undefined then.
  bool next(Point &point);

  // After `next` returned false: whether there were n points, and the bytes are exactly their sealed form.
  bool is_whole() const;

 private:
  uint64_t word_at(uint64_t bit) const;
  uint64_t last_word_at(uint64_t bit) const;
  bool read(unsigned n_bits, uint64_t &bits);
  bool read_time();
  bool read_value();
  bool read_kept_window(uint64_t &differing);
  bool read_new_window(uint64_t word, uint64_t &differing);

  const char *bytes_;
  size_t size_;
  size_t n_left_;
  uint64_t at_bit_ = 0;
  bool is_first_ = true;
  bool is_damaged_ = false;
  uint64_t ts_ns_ = 0;  // these three: of the previous point
  uint64_t step_ns_ = 0;
  uint64_t value_ = 0;
  ValueWindow window_;
};

}  // namespace metricdb
