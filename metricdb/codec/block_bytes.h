// Reads and writes the parts of a block (point_block.h): numbers of fixed and of variable length, and packed bits.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace metricdb {

static_assert(std::endian::native == std::endian::little, "numbers are written as they are in memory");

constexpr uint64_t zigzag(int64_t number) {
  return static_cast<uint64_t>(number) << 1 ^ static_cast<uint64_t>(number >> 63);
}

constexpr int64_t unzigzag(uint64_t code) {
  return static_cast<int64_t>(code >> 1 ^ (0 - (code & 1)));
}

// Sum and difference wrap.
constexpr int64_t plus(int64_t a, uint64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + b);
}

constexpr int64_t difference(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

constexpr uint64_t mask_of(unsigned n) {
  return n == 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1;
}

constexpr unsigned length_of(uint64_t number) {
  return static_cast<unsigned>(64 - std::countl_zero(number));
}

// Of a varint for a number of that length.
constexpr unsigned varint_bits(unsigned length) {
  return length == 0 ? 8 : (length + 6) / 7 * 8;
}

inline uint64_t word_at(const char *bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// The 64 bits from that one on. Bits after the last byte are zero, and the highest 7 can be, too.
inline uint64_t bits_at(const char *bytes, size_t n_bytes, size_t bit) {
  const size_t from = std::min(bit / 8, n_bytes);
  uint64_t word = 0;
  std::memcpy(&word, bytes + from, std::min<size_t>(8, n_bytes - from));
  return word >> bit % 8;
}

class BlockWriter {
 public:
  explicit BlockWriter(char *at) : at_(at) {}

  char *at() const { return at_; }
  void byte(unsigned value) { *at_++ = static_cast<char>(value); }
  void word(uint64_t value) {
    std::memcpy(at_, &value, sizeof value);
    at_ += sizeof value;
  }
  void varint(uint64_t value) {
    for (; value >= 0x80; value >>= 7) byte(static_cast<unsigned>(value & 0x7F) | 0x80);
    byte(static_cast<unsigned>(value));
  }
  void signed_number(int64_t value) { varint(zigzag(value)); }

  // Writes the lower bits of the n numbers number(i). Uses at most 8 bytes of room after the last one.
  template <class Number>
  void packed(size_t n, unsigned width, Number number) {
    const uint64_t mask = mask_of(width);
    size_t i = 0;
    if (width <= 8) {
      // Eight numbers fill whole bytes. The bytes after them are written again.
      char *at = at_;
      for (; i + 16 <= n; i += 8, at += width) {
        uint64_t bits = 0;
        for (unsigned k = 0; k < 8; ++k) bits |= (number(i + k) & mask) << k * width;
        std::memcpy(at, &bits, sizeof bits);
      }
      at_ = at;
    }
    uint64_t bits = 0;
    unsigned n_bits = 0;  // in `bits`
    for (; i < n; ++i) {
      const uint64_t low = number(i) & mask;
      bits |= low << n_bits;
      n_bits += width;
      if (n_bits >= 64) {
        word(bits);
        n_bits -= 64;
        bits = n_bits == 0 ? 0 : low >> (width - n_bits);
      }
    }
    last_bits(bits, n_bits);
  }

  // Writes n numbers of length(i) bits, at most 8. Uses 8 bytes of room after the last one.
  template <class Number, class Length>
  void bits(size_t n, Number number, Length length) {
    char *at = at_;  // not the member, which a write could change as far as a compiler knows
    uint64_t bits = 0;
    unsigned n_bits = 0;  // in `bits`
    for (size_t i = 0; i < n; ++i) {
      bits |= uint64_t{number(i)} << n_bits;
      n_bits += static_cast<unsigned>(length(i));
      if (i % 4 != 3) continue;
      std::memcpy(at, &bits, sizeof bits);
      at += n_bits / 8;
      bits >>= n_bits / 8 * 8;
      n_bits %= 8;
    }
    at_ = at;
    last_bits(bits, n_bits);
  }

  // Writes fewer than 64 bits, filled to whole bytes.
  void last_bits(uint64_t bits, unsigned n_bits) {
    for (; n_bits > 0; n_bits -= std::min(n_bits, 8u), bits >>= 8) byte(bits & 0xFF);
  }

 private:
  char *at_;
};

// Reads a block. After the first invalid byte all results are undefined, and is_valid() is false.
class BlockReader {
 public:
  BlockReader(const char *bytes, size_t size) : at_(bytes), end_(bytes + size) {}

  bool is_valid() const { return is_valid_; }
  bool is_at_end() const { return at_ == end_; }
  void fail() { is_valid_ = false; }

  const char *at() const { return at_; }
  size_t n_left() const { return static_cast<size_t>(end_ - at_); }
  void skip(size_t n_bytes) { n_bytes <= n_left() ? static_cast<void>(at_ += n_bytes) : fail(); }

  unsigned byte() {
    if (at_ == end_) {
      fail();
      return 0;
    }
    return static_cast<uint8_t>(*at_++);
  }
  uint64_t word() {
    if (n_left() < 8) {
      fail();
      return 0;
    }
    const uint64_t value = word_at(at_);
    at_ += sizeof value;
    return value;
  }
  uint64_t varint() {
    uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
      const unsigned next = byte();
      // The tenth byte has one bit.
      if (shift == 63 && next > 1) fail();
      if (!is_valid_) return 0;
      value |= uint64_t{next & 0x7F} << shift;
      if (next < 0x80) return value;
    }
  }
  int64_t signed_number() { return unzigzag(varint()); }

  // Calls use(i, number) for n packed numbers.
  template <class Use>
  void packed(unsigned width, size_t n, Use use) {
    const size_t n_bytes = (n * width + 7) / 8;
    if (!is_valid_ || n_left() < n_bytes) return fail();
    unpack(width, n, use);
    at_ += n_bytes;
  }

 private:
  template <class Use>
  void unpack(unsigned width, size_t n, Use use) const {
    if (width == 0) {
      for (size_t i = 0; i < n; ++i) use(i, 0);
      return;
    }
    if (width == 64) {
      for (size_t i = 0; i < n; ++i) use(i, word_at(at_ + i * 8));
      return;
    }
    const uint64_t mask = mask_of(width);
    const char *const bytes = at_;
    const size_t n_bytes = n_left();
    // The numbers whose 8 bytes are in the block.
    const size_t n_whole = std::min(n, n_bytes < 8 ? 0 : ((n_bytes - 8) * 8 + 7) / width + 1);
    size_t i = 0, bit = 0;
    if (width <= 8) {
      // Eight numbers begin at a byte and are within one word.
      for (; i + 8 <= n_whole; i += 8, bit += 8 * width) {
        const uint64_t word = word_at(bytes + bit / 8);
        for (unsigned k = 0; k < 8; ++k) use(i + k, word >> k * width & mask);
      }
    }
    for (; i < n_whole; ++i, bit += width) use(i, word_at(bytes + bit / 8) >> bit % 8 & mask);
    for (; i < n; ++i, bit += width) use(i, bits_at(bytes, n_bytes, bit) & mask);
  }

  const char *at_;
  const char *end_;
  bool is_valid_ = true;
};

}  // namespace metricdb
