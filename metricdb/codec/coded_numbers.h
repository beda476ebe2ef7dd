// A form of many numbers that are mostly near one number, in little more bytes than their entropy.
//
// Each number is base + offset, where the offsets have both signs and a code as in a group (point_block.h). The upper part
// of a code, without its `low` lowest bits, is a symbol: 0 to 14, or 15 for all larger ones.
//
//   signed number  base
//   1 byte         low, 0 to 57
//   8 bytes        weights of the symbols, 4 bits each, from symbol 0 in the lowest bits on
//   packed         the `low` lowest bits of each code
//   4 bytes        first states
//   bits           of the states, from the lowest bit of the first byte on, filled to a whole byte
//   varints        for each symbol 15 its upper part - 15
//
// The symbols are coded by asymmetric numeral systems with a table of 256 states. A frequent symbol costs a fraction of a
// bit there, and at least one bit in a Huffman code. The weights 1 to 15 stand for 2, 3, 4, 6, 8, 11, 16, 23, 32, 45, 64,
// 91, 128, 181 and 256: half an octave apart, so that the table needs 8 bytes.
//
// A symbol with a weight has weight * 256 / sum of the weights states, rounded down, but at least 1; the first one with the
// largest weight has those that remain. In the order of the symbols, their states are 0, 163, 326 and so on, modulo 256.
// The f states of a symbol have, in ascending order, the numbers f to 2f - 1. A state with the number x reads as many bits
// as x must be shifted to the left to have bit 8; the next state is x, shifted, plus these bits, less 256. Four states take
// turns, so that four numbers are decoded at a time. They begin as given, and end as state 0.
//
// Threads: functions use only their arguments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "codec/block_bytes.h"

namespace metricdb {

inline constexpr size_t MAX_CODED_NUMBERS = 4096;

// How numbers are coded.
struct CodePlan {
  int64_t base = 0;
  unsigned low = 0;
  uint64_t weights = 0;
  size_t bits = 0;  // approximately, of all
};

// Sets the codes, one for each number.
//
// numbers  1 to MAX_CODED_NUMBERS of them.
CodePlan code_plan(std::span<const int64_t> numbers, std::span<uint64_t> codes);

// Writes at most a bit for each number more than the plan says.
void write_coded(std::span<const uint64_t> codes, const CodePlan &plan, BlockWriter &out);

// Sets the numbers. `in` is invalid afterwards if its bytes are not a form of so many numbers.
void read_coded(BlockReader &in, std::span<int64_t> numbers);

}  // namespace metricdb
