// Digests of arrays: equal for two copies with the same content, wherever they are stored.
#ifndef TSLB_INSPECT_DIGEST_H
#define TSLB_INSPECT_DIGEST_H

#include <cstdint>
#include <string>

namespace inspect {

// Return lines "CRC-32C BYTES NAME". Throw unreadable_t, also for an array that the loaders refuse.
//
// path  as for open_store; it is also the name.
// kind  ARRAY_LOAD_* of array_loader.h.
std::string digest_of_file(const std::string &path, uint8_t kind);

// A line for each array of a durable store, in the order of its declarations, and one for the payload if there is one.
std::string digests_of_store(const std::string &folder);

}  // namespace inspect

#endif
