#include "codec/point_codec.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace metricdb {
namespace {

static_assert(std::endian::native == std::endian::little, "bits are kept in the order in which words lie in memory");

constexpr unsigned MOST_LEAD = 31;
constexpr unsigned LEAD_BITS = 5;
constexpr unsigned WIDTH_BITS = 6;

// What one look at the bytes is sure to show, wherever in a byte it begins.
constexpr unsigned SURE_BITS = 57;

constexpr uint64_t low_bits(unsigned n) {
  return n == 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1;
}

// Small for small numbers of either sign.
constexpr uint64_t folded(uint64_t change) {
  return (change << 1) ^ (uint64_t{0} - (change >> 63));
}
constexpr uint64_t unfolded(uint64_t code) {
  return (code >> 1) ^ (uint64_t{0} - (code & 1));
}

// 0 for 0, which is no code that is written.
constexpr unsigned nibbles_of(uint64_t code) {
  return (static_cast<unsigned>(std::bit_width(code)) + 3) / 4;
}

// The narrowest window around bits of which one is set.
ValueWindow window_around(uint64_t differing) {
  const unsigned lead = std::min(static_cast<unsigned>(std::countl_zero(differing)), MOST_LEAD);
  return {lead, 64 - lead - static_cast<unsigned>(std::countr_zero(differing))};
}

// Whether bits whose own window is `needed` are written in the one at hand.
bool is_kept(const ValueWindow &at_hand, const ValueWindow &needed) {
  return at_hand.lead <= needed.lead && at_hand.width <= needed.width + LEAD_BITS + WIDTH_BITS &&
         at_hand.lead + at_hand.width >= needed.lead + needed.width;
}

// Writes whole words and moves on by the bytes in them that are complete: no branch depends on where a number falls.
class BitWriter {
 public:
  explicit BitWriter(char *out) : begin_(out), out_(out) {}

  // Up to 56 bits, and none set above them.
  void put(uint64_t bits, unsigned n_bits) {
    pending_ |= bits << n_pending_;
    std::memcpy(out_, &pending_, sizeof pending_);
    const unsigned n = n_pending_ + n_bits;
    out_ += n / 8;
    pending_ >>= n / 8 * 8;
    n_pending_ = n % 8;
  }

  // Up to 64 bits, and up to 16 ahead of them.
  void put_behind(uint64_t head, unsigned n_head, uint64_t bits, unsigned n_bits) {
    if (n_head + n_bits <= 56) {
      put(head | bits << n_head, n_head + n_bits);
      return;
    }
    put(head | (bits & low_bits(32)) << n_head, n_head + 32);
    put(bits >> 32, n_bits - 32);
  }

  size_t n_bytes() const { return static_cast<size_t>(out_ - begin_) + (n_pending_ != 0 ? 1 : 0); }

 private:
  char *const begin_;
  char *out_;
  uint64_t pending_ = 0;  // fewer than 8 bits, which a word at out_ has as well
  unsigned n_pending_ = 0;
};

void put_time_change(BitWriter &out, uint64_t change) {
  if (change == 0) {
    out.put(0, 1);
    return;
  }
  const uint64_t code = folded(change);
  const unsigned nibbles = nibbles_of(code);
  out.put_behind(1 | (nibbles - 1) << 1, 1 + 4, code, 4 * nibbles);
}

void put_value_change(BitWriter &out, uint64_t differing, ValueWindow &window) {
  if (differing == 0) {
    out.put(0, 1);
    return;
  }
  const ValueWindow needed = window_around(differing);
  if (is_kept(window, needed)) {
    out.put_behind(1, 2, differing >> window.trail(), window.width);
    return;
  }
  window = needed;
  out.put_behind(3 | window.lead << 2 | (window.width - 1) << (2 + LEAD_BITS), 2 + LEAD_BITS + WIDTH_BITS,
                 differing >> window.trail(), window.width);
}

Point point_at(const char *points, size_t index) {
  Point point;
  std::memcpy(&point, points + index * sizeof point, sizeof point);
  return point;
}

}  // namespace

size_t seal_points(const char *points, size_t n, char *out) {
  BitWriter writer(out);
  ValueWindow window;
  const Point first = point_at(points, 0);
  uint64_t ts_ns = static_cast<uint64_t>(first.ts_ns);
  uint64_t step_ns = 0;
  uint64_t value = std::bit_cast<uint64_t>(first.value);
  writer.put_behind(0, 0, ts_ns, 64);
  put_value_change(writer, value, window);
  for (size_t i = 1; i < n; ++i) {
    const Point point = point_at(points, i);
    const uint64_t step_before_ns = step_ns;
    step_ns = static_cast<uint64_t>(point.ts_ns) - ts_ns;
    ts_ns = static_cast<uint64_t>(point.ts_ns);
    put_time_change(writer, step_ns - step_before_ns);
    const uint64_t value_before = value;
    value = std::bit_cast<uint64_t>(point.value);
    put_value_change(writer, value ^ value_before, window);
  }
  return writer.n_bytes();
}

SealedPoints::SealedPoints(const char *bytes, size_t size, size_t n) : bytes_(bytes), size_(size), n_left_(n) {}

// The bits from there on, at least SURE_BITS of them. Behind the last byte there are zeroes.
inline uint64_t SealedPoints::word_at(uint64_t bit) const {
  const size_t begin = bit / 8;
  uint64_t word;
  if (begin + sizeof word > size_) return last_word_at(bit);
  std::memcpy(&word, bytes_ + begin, sizeof word);
  return word >> bit % 8;
}

// The same where a whole word would reach beyond the bytes.
[[gnu::noinline]] uint64_t SealedPoints::last_word_at(uint64_t bit) const {
  const size_t begin = bit / 8;
  uint64_t word = 0;
  if (begin < size_) std::memcpy(&word, bytes_ + begin, size_ - begin);
  return word >> bit % 8;
}

// Up to 64 bits. False if the bytes end before.
inline bool SealedPoints::take(unsigned n_bits, uint64_t &bits) {
  bits = word_at(at_bit_);
  if (n_bits > SURE_BITS) bits = (bits & low_bits(32)) | word_at(at_bit_ + 32) << 32;
  bits &= low_bits(n_bits);
  at_bit_ += n_bits;
  return at_bit_ <= uint64_t{size_} * 8;
}

inline bool SealedPoints::take_time() {
  if (is_first_) return take(64, ts_ns_);
  const uint64_t word = word_at(at_bit_);
  if ((word & 1) == 0) {
    ++at_bit_;
  } else {
    const unsigned nibbles = static_cast<unsigned>(word >> 1 & 15) + 1;
    at_bit_ += 1 + 4;
    uint64_t code;
    if (!take(4 * nibbles, code) || nibbles_of(code) != nibbles) return false;
    step_ns_ += unfolded(code);
  }
  ts_ns_ += step_ns_;
  return true;
}

inline bool SealedPoints::take_kept_window(uint64_t &differing) {
  at_bit_ += 2;
  uint64_t bits;  // none as long as no window was named
  if (!take(window_.width, bits) || bits == 0) return false;
  differing = bits << window_.trail();
  return is_kept(window_, window_around(differing));
}

bool SealedPoints::take_new_window(uint64_t word, uint64_t &differing) {
  at_bit_ += 2 + LEAD_BITS + WIDTH_BITS;
  const ValueWindow window{static_cast<unsigned>(word >> 2 & low_bits(LEAD_BITS)),
                           static_cast<unsigned>(word >> (2 + LEAD_BITS) & low_bits(WIDTH_BITS)) + 1};
  uint64_t bits;
  if (window.lead + window.width > 64 || !take(window.width, bits) || bits == 0) return false;
  differing = bits << window.trail();
  const ValueWindow needed = window_around(differing);
  // No bit lies outside of the window, so one as wide as needed is the one that is needed.
  if (needed.width != window.width || is_kept(window_, needed)) return false;
  window_ = window;
  return true;
}

inline bool SealedPoints::take_value() {
  const uint64_t word = word_at(at_bit_);
  if ((word & 1) == 0) return ++at_bit_ <= uint64_t{size_} * 8;
  uint64_t differing;
  if (!((word & 2) == 0 ? take_kept_window(differing) : take_new_window(word, differing))) return false;
  value_ ^= differing;
  return true;
}

bool SealedPoints::next(Point &point) {
  if (n_left_ == 0 || is_damaged_) return false;
  if (!take_time() || !take_value()) {
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
