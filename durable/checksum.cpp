#include "checksum.h"

#include <nmmintrin.h>

#include <array>
#include <cstring>

namespace tslb_durable {
namespace {

constexpr uint32_t POLYNOMIAL = 0x82F63B78u;  // bits reversed

// Row k is the effect of a byte that is followed by k more bytes of its group of eight.
using Tables = std::array<std::array<uint32_t, 256>, 8>;

constexpr Tables make_tables() {
  Tables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t remainder = byte;
    for (int bit = 0; bit < 8; ++bit) remainder = (remainder >> 1) ^ ((remainder & 1) != 0 ? POLYNOMIAL : 0);
    tables[0][byte] = remainder;
  }
  for (size_t row = 1; row < 8; ++row)
    for (size_t byte = 0; byte < 256; ++byte)
      tables[row][byte] = (tables[row - 1][byte] >> 8) ^ tables[0][tables[row - 1][byte] & 0xFF];
  return tables;
}

constexpr Tables TABLES = make_tables();

uint32_t update_by_table(uint32_t crc, const unsigned char *at, size_t count) {
  for (; count >= 8; count -= 8, at += 8) {
    uint64_t group;  // the low byte is the first one: x86-64
    std::memcpy(&group, at, sizeof group);
    group ^= crc;
    crc = 0;
    for (size_t i = 0; i < 8; ++i) crc ^= TABLES[7 - i][(group >> (8 * i)) & 0xFF];
  }
  for (; count > 0; --count, ++at) crc = (crc >> 8) ^ TABLES[0][(crc ^ *at) & 0xFF];
  return crc;
}

// One instruction per eight bytes.
__attribute__((target("sse4.2"))) uint32_t update_by_instruction(uint32_t crc, const unsigned char *at, size_t count) {
  uint64_t wide = crc;
  for (; count >= 8; count -= 8, at += 8) {
    uint64_t group;
    std::memcpy(&group, at, sizeof group);
    wide = _mm_crc32_u64(wide, group);
  }
  crc = static_cast<uint32_t>(wide);
  for (; count > 0; --count, ++at) crc = _mm_crc32_u8(crc, *at);
  return crc;
}

}  // namespace

uint32_t crc32c_by_table(const void *bytes, size_t count, uint32_t previous) {
  return ~update_by_table(~previous, static_cast<const unsigned char *>(bytes), count);
}

uint32_t crc32c(const void *bytes, size_t count, uint32_t previous) {
  static const auto update = __builtin_cpu_supports("sse4.2") ? update_by_instruction : update_by_table;
  return ~update(~previous, static_cast<const unsigned char *>(bytes), count);
}

}  // namespace tslb_durable
