// CRC-32C (Castagnoli): what a database's files are checked with.
#pragma once

#include <cstddef>
#include <cstdint>

namespace metricdb {

// The checksum of some bytes, going on from that of the bytes ahead of them; 0 ahead of the first.
uint32_t crc32c(const void *bytes, size_t count, uint32_t before = 0);

// The same, as it is computed on a processor without an instruction for it.
uint32_t crc32c_by_table(const void *bytes, size_t count, uint32_t before = 0);

}  // namespace metricdb
