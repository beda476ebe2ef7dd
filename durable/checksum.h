// CRC-32C (Castagnoli), the checksum of a store's files.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tslb_durable {

// Returns the checksum of some bytes. `previous` is the checksum of the bytes before them; 0 for the first bytes.
uint32_t crc32c(const void *bytes, size_t count, uint32_t previous = 0);

// The same, computed without the processor's instruction for it.
uint32_t crc32c_by_table(const void *bytes, size_t count, uint32_t previous = 0);

}  // namespace tslb_durable
