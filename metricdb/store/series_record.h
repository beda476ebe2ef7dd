// The catalogue's record of a series. It uses a stored layout of types and subjects, `ty_sub_t`, which the library can
// convert to its older version. So older programs can open the database after a conversion.
//
//   offset   field           content                                             version 0
//        0   i_name          address of the key's chunk; all ones in a free slot   same
//       12   nodes_group     sealed chunks                                         same
//       16   flag_bitmask    SERIES_*                                              same
//       20   mg              address of the open chunk, with SERIES_HAS_OPEN       same
//       24   ag              points in the open chunk                              same
//       32   rsb_arr[0]      addresses of the first and the last sealed chunk,     same
//                            valid only if there are sealed chunks
//       44   rsb_arr[1]      points in its chunks, hidden ones included            at 40
//       56   rsb_arr[2]      data time of the last write, ns                       at 48
//       68   rsb_arr[3]      its newest timestamp, ns                              at 56
//       52   stale_rsb of 1  milliseconds between its two newest timestamps, 0:    none
//                            unknown; all ones: more than 32 bits hold
// All other bytes are zero. 64-bit numbers use the first two words of an rsb. The compaction header of a chunk names
// the reference to it by table, index and offset. The three references have the same offsets in both versions, so they
// stay valid after a conversion.
#pragma once

#include <tslb/tsdb_recovery_schema.h>
#include <tslb/tslb_dynmem.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "codec/point.h"

namespace metricdb {

inline constexpr uint8_t OLDEST_LAYOUT = 0;
inline constexpr uint8_t NEWEST_LAYOUT = 1;

inline constexpr uint8_t SERIES_READY = 0x01;
inline constexpr uint8_t SERIES_HAS_OPEN = 0x02;
inline constexpr uint8_t SERIES_HAS_INTEGERS = 0x04;  // instead of real numbers

// Offsets of the references to chunks.
inline constexpr size_t KEY_REFERENCE = offsetof(ty_sub_t_v1, i_name);
inline constexpr size_t OPEN_REFERENCE = offsetof(ty_sub_t_v1, mg);
inline constexpr size_t FIRST_SEALED_REFERENCE = offsetof(ty_sub_t_v1, rsb_arr);
static_assert(KEY_REFERENCE == offsetof(ty_sub_t_v0, i_name));
static_assert(OPEN_REFERENCE == offsetof(ty_sub_t_v0, mg));
static_assert(FIRST_SEALED_REFERENCE == offsetof(ty_sub_t_v0, rsb_arr));

inline constexpr size_t series_record_bytes(uint8_t layout) {
  return layout == NEWEST_LAYOUT ? sizeof(ty_sub_t_v1) : sizeof(ty_sub_t_v0);
}

// Accesses a record in memory, at any alignment. As cheap to copy as a pointer.
class SeriesRecord {
 public:
  SeriesRecord() = default;
  SeriesRecord(char *at, uint8_t layout) : at_(at), layout_(layout) {}

  explicit operator bool() const { return at_ != nullptr; }
  char *at() const { return at_; }
  uint8_t layout() const { return layout_; }

  uint32_t gatekeeper() const { return get<uint32_t>(KEY_REFERENCE); }
  uint8_t flags() const { return get<uint8_t>(FLAGS); }
  ValueType type() const { return (flags() & SERIES_HAS_INTEGERS) != 0 ? ValueType::integer : ValueType::real; }
  maddr_t key() const { return get<maddr_t>(KEY_REFERENCE); }
  maddr_t open() const { return get<maddr_t>(OPEN_REFERENCE); }
  uint32_t n_open() const { return get<uint32_t>(N_OPEN); }
  const uint32_t *n_open_at() const { return n_open_word(); }
  uint32_t n_sealed() const { return get<uint32_t>(N_SEALED); }
  maddr_t first_sealed() const { return get<maddr_t>(FIRST_SEALED_REFERENCE); }
  maddr_t last_sealed() const { return get<maddr_t>(FIRST_SEALED_REFERENCE + sizeof(maddr_t)); }
  uint64_t n_points() const { return get<uint64_t>(rsb(1)); }
  int64_t written_at_ns() const { return get<int64_t>(rsb(2)); }
  int64_t newest_ns() const { return get<int64_t>(rsb(3)); }
  // 0 if the layout lacks the field.
  uint32_t interval_ms() const { return layout_ == NEWEST_LAYOUT ? get<uint32_t>(INTERVAL) : 0; }

  void set_flags(uint8_t flags) const { set(FLAGS, flags); }
  void set_key(maddr_t address) const { set(KEY_REFERENCE, address); }
  void set_open(maddr_t address) const { set(OPEN_REFERENCE, address); }
  // Other threads can read the points that it counts (read_count_racing).
  void set_n_open(uint32_t count) const { __atomic_store_n(n_open_word(), count, __ATOMIC_RELEASE); }
  void set_n_sealed(uint32_t count) const { set(N_SEALED, count); }
  void set_first_sealed(maddr_t address) const { set(FIRST_SEALED_REFERENCE, address); }
  void set_last_sealed(maddr_t address) const { set(FIRST_SEALED_REFERENCE + sizeof(maddr_t), address); }
  void set_n_points(uint64_t count) const { set(rsb(1), count); }
  void set_written_at_ns(int64_t time_ns) const { set(rsb(2), time_ns); }
  void set_newest_ns(int64_t time_ns) const { set(rsb(3), time_ns); }
  void set_interval_ms(uint32_t ms) const {
    if (layout_ == NEWEST_LAYOUT) set(INTERVAL, ms);
  }

  // Sets all fields to those of a record that can have another layout.
  void copy_fields(const SeriesRecord &from) const;

  // Returns whether all unused bytes are zero.
  bool is_clean() const;

  // Where the fields lie that change with each point: from n_open to newest_ns.
  static constexpr uint32_t FIRST_COUNTER = offsetof(ty_sub_t_v1, ag);
  uint32_t counter_bytes() const { return static_cast<uint32_t>(rsb(3) + sizeof(int64_t)) - FIRST_COUNTER; }

 private:
  static constexpr size_t N_SEALED = offsetof(ty_sub_t_v1, nodes_group);
  static constexpr size_t FLAGS = offsetof(ty_sub_t_v1, flag_bitmask);
  static constexpr size_t N_OPEN = offsetof(ty_sub_t_v1, ag);
  static constexpr size_t INTERVAL = offsetof(ty_sub_t_v1, rsb_arr) + sizeof(rsb_t_v1) + offsetof(rsb_t_v1, stale_rsb);
  static_assert(N_SEALED == offsetof(ty_sub_t_v0, nodes_group) && FLAGS == offsetof(ty_sub_t_v0, flag_bitmask) &&
                N_OPEN == offsetof(ty_sub_t_v0, ag));

  // Records are aligned to 4 bytes.
  uint32_t *n_open_word() const { return reinterpret_cast<uint32_t *>(at_ + N_OPEN); }

  size_t rsb(size_t number) const {
    return FIRST_SEALED_REFERENCE + number * (layout_ == NEWEST_LAYOUT ? sizeof(rsb_t_v1) : sizeof(rsb_t_v0));
  }

  template <class Field>
  Field get(size_t offset) const {
    Field value;
    std::memcpy(&value, at_ + offset, sizeof value);
    return value;
  }
  template <class Field>
  void set(size_t offset, Field value) const {
    std::memcpy(at_ + offset, &value, sizeof value);
  }

  char *at_ = nullptr;
  uint8_t layout_ = NEWEST_LAYOUT;
};

}  // namespace metricdb
