// The changes of a group: ranges of slots that batches named or the redo hook reported, and the text in which a journal
// keeps their bytes.
//
// The body of a group, all numbers as LEB128:
//
//   payload          0, or the number of its bytes plus 1, then the bytes
//   number of sections: the position of the group in a log, if it has one, then each array with changes
//     4294967295     the section is a position: epoch and number follow, and nothing else
//     array          its number in the manifest
//     header bytes   0, or the size of the array's headers
//     ranges         their number, then for each one
//       idx          slot, less that of the range before
//       offset       first byte in the slot, nodes included
//       bytes
//     the headers, if there are any, then the bytes of all ranges
//
// A body contains the bytes as they are at the end of the group, each at most once. So it can be applied more than once,
// and its ranges in any order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "stored_array.h"

namespace tslb_durable {

inline constexpr size_t MAX_PAYLOAD_BYTES = 1 << 16;

// The position of a group in a log that other stores follow. Number 0: the store has none.
using LogPosition = tslb_log_position_t;

// Changed bytes within one slot.
struct Range {
  uint32_t array;  // index of the declaration
  uint32_t idx;
  uint32_t offset;  // in the slot, nodes included
  uint32_t bytes;
};

// An array of a store, as the end of a group sees it.
class LoggedArray {
 public:
  LoggedArray(DynArrHandle_t *array, tslb_array_kind_t kind, uint32_t number);

  DynArrHandle_t *array() const { return array_; }
  const Geometry &geometry() const { return geometry_; }
  bool is_pool() const { return is_pool_; }
  uint32_t number() const { return number_; }  // in the journal
  void set_number(uint32_t number) { number_ = number; }

  // Takes the headers as they are for those that are in the journal.
  void headers_are_logged();
  // Returns whether the headers differ from those in the journal.
  bool are_headers_changed() const;
  // Number of ids in the headers that are in the journal. Memory of later ids is zero in a replica.
  uint32_t n_logged() const;
  // Adds ranges of the counters that the changed headers of a pool hint at: those of slots that were taken or current.
  void add_counters(uint32_t declaration, std::vector<Range> &ranges) const;

 private:
  DynArrHandle_t *array_;
  Geometry geometry_;
  bool is_pool_;
  uint32_t number_;
  std::string logged_headers_;
};

// Sorts the ranges, joins those that meet, and adds the counters of touched memory slots.
void normalize(const std::vector<LoggedArray> &arrays, std::vector<Range> &ranges);

// Appends the body of a group with the current bytes of the ranges and of changed headers. The ranges are normalized.
// No other thread changes the arrays.
void append_body(std::vector<LoggedArray> &arrays, const std::vector<Range> &ranges, const std::string *payload,
                 const LogPosition &position, std::string &body);

// Returns the body of a group that changes nothing but the position.
std::string body_of_position(const LogPosition &position);

// Returns the position in a body; nothing if it has none, or is no body.
std::optional<LogPosition> position_in(std::string_view body);

// The target of a replay: arrays in the order of the manifest.
struct ReplayTarget {
  DynArrHandle_t *array;
  tslb_array_kind_t kind;
};

inline constexpr uint32_t MAX_REPLAYED_SLOTS = 1u << 28;

// Applies a body. Returns why it does not fit the arrays; empty if it does. Sets `payload` and `position` if there is one.
std::string apply_body(std::string_view body, const std::vector<ReplayTarget> &targets, std::string &payload,
                       bool &has_payload, LogPosition &position, uint32_t max_slots = MAX_REPLAYED_SLOTS);

// The first difference between two arrays with the same parameters; empty if there is none.
struct Difference {
  std::string what;  // "slot 12, byte 4 of the record" or "header byte 8"
  explicit operator bool() const { return !what.empty(); }
};
Difference first_difference(DynArrHandle_t *array, DynArrHandle_t *replica);

}  // namespace tslb_durable
