#include "codec/point_codec.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace metricdb {
namespace {

static_assert(std::endian::native == std::endian::little, "words are written as they are in memory");

constexpr unsigned MAX_LEAD = 31;
constexpr unsigned LEAD_BITS = 5;
constexpr unsigned WIDTH_BITS = 6;

// Number of bits that word_at returns at any position.
constexpr unsigned SURE_BITS = 57;

constexpr uint64_t low_bits(unsigned n) {
  return n == 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1;
}

constexpr uint64_t unfolded(uint64_t code) {
  return (code >> 1) ^ (uint64_t{0} - (code & 1));
}

// 0 for code 0, which is never written.
constexpr unsigned nibbles_of(uint64_t code) {
  return (static_cast<unsigned>(std::bit_width(code)) + 3) / 4;
}

// Returns the narrowest window that contains all set bits; at least one is set.
ValueWindow window_around(uint64_t differing) {
  const unsigned lead = std::min(static_cast<unsigned>(std::countl_zero(differing)), MAX_LEAD);
  return {lead, 64 - lead - static_cast<unsigned>(std::countr_zero(differing))};
}

// Returns whether bits that need the window `needed` are written in the current window.
bool is_kept(const ValueWindow &current, const ValueWindow &needed) {
  return current.lead <= needed.lead && current.width <= needed.width + LEAD_BITS + WIDTH_BITS &&
         current.lead + current.width >= needed.lead + needed.width;
}

}  // namespace

SealedPoints::SealedPoints(const char *bytes, size_t size, size_t n) : bytes_(bytes), size_(size), n_left_(n) {}

// Returns the bits from `bit` on, at least SURE_BITS of them. There are zeros after the last byte.
inline uint64_t SealedPoints::word_at(uint64_t bit) const {
  const size_t begin = bit / 8;
  uint64_t word;
  if (begin + sizeof word > size_) return last_word_at(bit);
  std::memcpy(&word, bytes_ + begin, sizeof word);
  return word >> bit % 8;
}

// The same near the end, where a whole word would exceed the bytes.
[[gnu::noinline]] uint64_t SealedPoints::last_word_at(uint64_t bit) const {
  const size_t begin = bit / 8;
  uint64_t word = 0;
  if (begin < size_) std::memcpy(&word, bytes_ + begin, size_ - begin);
  return word >> bit % 8;
}

// Reads up to 64 bits. Returns false if there are fewer.
inline bool SealedPoints::read(unsigned n_bits, uint64_t &bits) {
  bits = word_at(at_bit_);
  if (n_bits > SURE_BITS) bits = (bits & low_bits(32)) | word_at(at_bit_ + 32) << 32;
  bits &= low_bits(n_bits);
  at_bit_ += n_bits;
  return at_bit_ <= uint64_t{size_} * 8;
}

inline bool SealedPoints::read_time() {
  if (is_first_) return read(64, ts_ns_);
  const uint64_t word = word_at(at_bit_);
  if ((word & 1) == 0) {
    ++at_bit_;
  } else {
    const unsigned nibbles = static_cast<unsigned>(word >> 1 & 15) + 1;
    at_bit_ += 1 + 4;
    uint64_t code;
    if (!read(4 * nibbles, code) || nibbles_of(code) != nibbles) return false;
    step_ns_ += unfolded(code);
  }
  ts_ns_ += step_ns_;
  return true;
}

inline bool SealedPoints::read_kept_window(uint64_t &differing) {
  at_bit_ += 2;
  uint64_t bits;  // no bits before the first window
  if (!read(window_.width, bits) || bits == 0) return false;
  differing = bits << window_.trail();
  return is_kept(window_, window_around(differing));
}

bool SealedPoints::read_new_window(uint64_t word, uint64_t &differing) {
  at_bit_ += 2 + LEAD_BITS + WIDTH_BITS;
  const ValueWindow window{static_cast<unsigned>(word >> 2 & low_bits(LEAD_BITS)),
                           static_cast<unsigned>(word >> (2 + LEAD_BITS) & low_bits(WIDTH_BITS)) + 1};
  uint64_t bits;
  if (window.lead + window.width > 64 || !read(window.width, bits) || bits == 0) return false;
  differing = bits << window.trail();
  const ValueWindow needed = window_around(differing);
  // All set bits are within the window, so it is the needed one if it has the needed width.
  if (needed.width != window.width || is_kept(window_, needed)) return false;
  window_ = window;
  return true;
}

inline bool SealedPoints::read_value() {
  const uint64_t word = word_at(at_bit_);
  if ((word & 1) == 0) return ++at_bit_ <= uint64_t{size_} * 8;
  uint64_t differing;
  if (!((word & 2) == 0 ? read_kept_window(differing) : read_new_window(word, differing))) return false;
  value_ ^= differing;
  return true;
}

bool SealedPoints::next(Point &point) {
  if (n_left_ == 0 || is_damaged_) return false;
  if (!read_time() || !read_value()) {
    is_damaged_ = true;
    return false;
  }
  is_first_ = false;
  --n_left_;
  point = {static_cast<int64_t>(ts_ns_), std::bit_cast<double>(value_)};
  return true;
}

bool SealedPoints::is_whole() const {
  return !is_damaged_ && n_left_ == 0 && (at_bit_ + 7) / 8 == size_ && word_at(at_bit_) == 0;
}

}  // namespace metricdb
