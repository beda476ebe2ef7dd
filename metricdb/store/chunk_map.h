// The chunks in the pools of a store that is restored, and whether a reference to each was found.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {

// Throws StoreDamaged if the array has other flags, versions or sizes.
void expect_shape(StoreDamaged::Where where, DynArrHandle_t *array, uint8_t daflag, uint8_t record_version,
                  uint16_t user_header_bytes, uint32_t record_bytes);

// The chunks of a pool that are not deleted, by slot and offset, and whether a reference to each was found.
class ChunkMap {
 public:
  using Where = StoreDamaged::Where;

  // Reads the slots. Throws StoreDamaged if they contradict themselves.
  ChunkMap(dynmem_t *pool, Where where, uint8_t kind_flag, uint32_t max_slots, int configured_slot_bytes);

  // Returns the data of the chunk at this address and sets its length. `from` is the reference to it. Threads: any number.
  template <class Fail>
  char *claim(const maddr_t &address, const srcaddr_t &from, uint32_t &bytes, Fail fail_reference) {
    const tslb_chunk_place_t place = place_of(pool_, address);
    const auto refuse = [&](const char *why) {
      fail_reference(fmt::format("names slot {}, byte {}, {}", place.slot_idx, place.byte_off, why));
    };
    if (place.slot_idx >= slots_.size()) refuse("but there is no such slot");
    Slot &slot = slots_[place.slot_idx];
    const auto found = std::lower_bound(slot.offsets.begin(), slot.offsets.end(), place.byte_off);
    if (found == slot.offsets.end() || *found != place.byte_off) refuse("where no chunk in use begins");
    const auto index = static_cast<size_t>(found - slot.offsets.begin());
    if (!slot.claim(index)) refuse("but another reference names the same chunk");
    compat_t header;
    char *const chunk = memory(place.slot_idx)->mslot + place.byte_off;
    std::memcpy(&header, chunk, sizeof header);
    if (std::memcmp(&header.srcaddr, &from, sizeof from) != 0)
      refuse("but the header of that chunk names another reference");
    bytes = header.mchunk_len;
    return chunk + sizeof header;
  }

  void expect_all_claimed() const;

  void forget_claims() {
    for (Slot &slot : slots_) std::fill(slot.claimed.begin(), slot.claimed.end(), 0);
  }

  uint64_t used_bytes() const { return used_bytes_; }

 private:
  struct Slot {
    static constexpr size_t WORD = 64;

    void set_size() {
      offsets.shrink_to_fit();
      claimed.resize((offsets.size() + WORD - 1) / WORD);
    }
    bool is_claimed(size_t index) const { return (claimed[index / WORD] >> index % WORD & 1) != 0; }
    // Returns false if the chunk was claimed before. Relaxed: of two threads that claim a chunk, one must find that out;
    // nothing else depends on the order.
    bool claim(size_t index) {
      const uint64_t bit = uint64_t{1} << index % WORD;
      return (__atomic_fetch_or(&claimed[index / WORD], bit, __ATOMIC_RELAXED) & bit) == 0;
    }

    std::vector<uint32_t> offsets;  // ascending
    std::vector<uint64_t> claimed;  // one bit for each
  };

  [[noreturn]] void fail(const std::string &what, uint32_t slot = StoreDamaged::NO_SLOT) const;

  MemSlot_t *memory(uint32_t slot) const { return static_cast<MemSlot_t *>(tslb_da_get_ptr(pool_, slot)); }

  void read_slot(uint32_t slot, uint64_t cursor);

  dynmem_t *const pool_;
  const Where where_;
  std::vector<Slot> slots_;
  uint64_t used_bytes_ = 0;  // of all slots that are not free
};

}  // namespace metricdb
