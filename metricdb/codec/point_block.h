// The encoded form of consecutive points of one series, in order of arrival: a block. All points come back bit by bit, also
// NaN, infinities and -0.0.
//
// The length of a block and its number of points, n, are stored elsewhere. A varint is an unsigned number in groups of 7
// bits, the lowest first; each byte except the last has bit 7 set. A signed number x is stored as the varint of
// (x << 1) ^ (x >> 63). All arithmetic wraps at 64 bits.
//
//   1 byte         unit of time: times are multiples of 10^(3 * unit) ns. 0 to 3
//   sequence       the n times in this unit, as differences
//   1 byte         bits 0-1: kind of the values, bit 2: as differences, bits 3-7: decimal places (kind 1)
//   1 byte         with kind 2 only: `shift`
//   sequence       the n values as integers x
//   varint         with kind 1 only: number of exceptions, and for each its index as a varint and the 8 bytes of its value
//
//   kind 0         x is the value: a series of integers
//   kind 1         the value is x / 10^places, rounded to a double; an exception has the value that follows
//   kind 2         x is m >> shift, where m are the lower 63 bits of the double, or its complement if the sign bit is set
//
// A sequence is its n numbers in groups of 128; as differences, it is its first number as a signed number, and the n - 1
// differences in groups. The last group can be shorter. A group is
//
//   1 byte         bits 0-5: width in bits, 0 to 57, or 58 for 64; bit 6: offsets have both signs; bit 7: has exceptions
//   signed number  base
//   packed         the lower `width` bits of each offset, from the lowest bit of the first byte on, filled to whole bytes
//   exceptions     with bit 7 only: their number - 1 in one byte, and for each its index in the group in one byte and the
//                  upper bits of its offset as a varint
//
// where number = base + offset, or with bit 6 number = base + ((offset >> 1) ^ -(offset & 1)). A first byte of 59 or 60
// begins another group, which earlier versions cannot read:
//
//   59             all remaining numbers of the sequence are equal: a signed number follows
//   60             the next 4,096 numbers, or as many as remain, are coded (coded_numbers.h)
//
// One content has many blocks. The encoder chooses a small one.
//
// Threads: functions use only their arguments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/point.h"

namespace metricdb {

inline constexpr size_t MAX_BLOCK_POINTS = 32'767;

// Upper bound of the bytes of a block of n points.
constexpr size_t max_block_bytes(size_t n) {
  constexpr size_t GROUP = 128, BYTES_PER_GROUP = 1 + 10;
  constexpr size_t BYTES_PER_NUMBER = 8;
  // Coded numbers are chosen by their approximate length, which can be a bit for each too small.
  return 2 * (n * BYTES_PER_NUMBER + n / 8 + (n / GROUP + 1) * BYTES_PER_GROUP + 10) + n * (3 + 8) / 8 + 32;
}

// Encodes the n points at `points`, 16 bytes each, at any alignment. Writes to `out`, which has room for
// max_block_bytes(n), and returns the number of bytes.
//
// n  1 to MAX_BLOCK_POINTS.
size_t encode_block(const char *points, size_t n, ValueType type, char *out);

// Decodes a block of n points, which follow `points`. Accepts any bytes and reads no others. They must not change meanwhile.
// Returns false if they are no block of n points or have the other type; `points` is as before then.
bool decode_block(const char *bytes, size_t size, size_t n, ValueType type, std::vector<Point> &points);

}  // namespace metricdb
