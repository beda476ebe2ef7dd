#include "changes.h"

#include <fmt/format.h>
#include <tslb/array_loader.h>
#include <tslb/redo_applier.h>
#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_stored.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <span>

#include "store_error.h"

namespace tslb_durable {
namespace {

constexpr uint64_t NO_TRANSACTION = UINT64_MAX;
constexpr uint32_t NO_AUX = UINT32_MAX;
constexpr size_t MAX_NUMBER_BYTES = 10;
constexpr uint64_t POSITION_SECTION = UINT32_MAX;  // more than any number of an array

uint64_t cursor_in(const char *headers) {
  uint64_t cursor;
  std::memcpy(&cursor, headers + sizeof(DynHdr_t) + TSLB_POOL_CURSOR_AT, sizeof cursor);
  return cursor;
}

void append_number(std::string &text, uint64_t number) {
  char bytes[MAX_NUMBER_BYTES];
  size_t n_bytes = 0;
  for (; number >= 0x80; number >>= 7) bytes[n_bytes++] = static_cast<char>(number | 0x80);
  bytes[n_bytes++] = static_cast<char>(number);
  text.append(bytes, n_bytes);
}

void append_position(std::string &body, const LogPosition &position) {
  append_number(body, POSITION_SECTION);
  append_number(body, position.epoch);
  append_number(body, position.number);
}

// Reads a body. After a fault all reads return nothing, and is_sound() is false.
class BodyReader {
 public:
  explicit BodyReader(std::string_view body) : rest_(body) {}

  uint64_t number() {
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      if (rest_.empty()) break;
      const auto byte = static_cast<unsigned char>(rest_.front());
      rest_.remove_prefix(1);
      value |= uint64_t{byte & 0x7Fu} << shift;
      if ((byte & 0x80) == 0) return value;
    }
    is_sound_ = false;
    return 0;
  }

  uint32_t number32() {
    const uint64_t value = number();
    if (value > UINT32_MAX) is_sound_ = false;
    return is_sound_ ? static_cast<uint32_t>(value) : 0;
  }

  std::string_view bytes(uint64_t count) {
    if (count > rest_.size()) is_sound_ = false;
    if (!is_sound_) return {};
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }

  bool is_sound() const { return is_sound_; }
  size_t n_left() const { return rest_.size(); }

 private:
  std::string_view rest_;
  bool is_sound_ = true;
};

// Applies bytes at a position of the flat image. Returns why they do not fit.
std::string apply_bytes(const ReplayTarget &target, uint64_t position, std::string_view bytes, uint32_t max_slots) {
  DynArrHandle_t *const array = target.array;
  const redo_args_t record = {
      NO_TRANSACTION, TSLB_REDO_SLOT, array->ctx_name, std::strlen(array->ctx_name),       array->tbl_id,
      position,       NO_AUX,         bytes.data(),    static_cast<uint32_t>(bytes.size())};
  char why[256];
  const uint8_t kind = is_pool(target.kind) ? ARRAY_LOAD_POOL : ARRAY_LOAD_ANY;
  if (redo_apply(array, &record, kind, max_slots, why, sizeof why) == 0) return {};
  expect_memory(why);
  return fmt::format("array \"{}\": {}", array->ctx_name, why);
}

// Writes ranges to slots that exist. A journal has millions of short ranges, and most of them follow one in the same slot.
class RangeWriter {
 public:
  RangeWriter(DynArrHandle_t *array, uint32_t max_slots)
      : array_(array), geometry_(array), n_slots_(std::min(tslb_da_get_size(array), max_slots)) {}

  const Geometry &geometry() const { return geometry_; }

  // Returns false, and writes nothing, if apply_bytes must say why the range does not fit.
  bool write(const Range &range, std::string_view bytes) {
    if (range.idx >= n_slots_ || bytes.empty() || bytes.size() > geometry_.slot_bytes - range.offset) return false;
    if (slot_ == nullptr || range.idx != idx_) {
      char *const record = static_cast<char *>(tslb_da_get_ptr(array_, range.idx));
      if (record == nullptr) return false;
      slot_ = record - geometry_.shift;
      idx_ = range.idx;
    }
    std::memcpy(slot_ + range.offset, bytes.data(), bytes.size());
    return true;
  }

 private:
  DynArrHandle_t *const array_;
  const Geometry geometry_;
  const uint32_t n_slots_;
  uint32_t idx_ = 0;  // of slot_
  char *slot_ = nullptr;
};

LogPosition read_position(BodyReader &reader) {
  const uint64_t epoch = reader.number();
  return {epoch, reader.number()};
}

std::string apply_section(BodyReader &reader, const std::vector<ReplayTarget> &targets, LogPosition &position,
                          uint32_t max_slots) {
  const uint64_t number = reader.number();
  if (reader.is_sound() && number == POSITION_SECTION) {
    position = read_position(reader);
    return reader.is_sound() && position.number != 0 ? "" : "a position that is cut";
  }
  const uint64_t header_bytes = reader.number();
  const uint64_t n_ranges = reader.number();
  if (!reader.is_sound() || number >= targets.size() || n_ranges > reader.n_left()) return "a section of no array";
  const ReplayTarget &target = targets[number];
  std::vector<Range> ranges(n_ranges);
  uint32_t idx = 0;
  for (Range &range : ranges) {
    idx += reader.number32();
    const uint32_t offset = reader.number32();
    range = {0, idx, offset, reader.number32()};
  }
  const std::string_view headers = reader.bytes(header_bytes);
  if (!reader.is_sound()) return "a section that is cut";
  std::string why = headers.empty() ? "" : apply_bytes(target, 0, headers, max_slots);
  RangeWriter writer(target.array, max_slots);
  const Geometry &geometry = writer.geometry();
  const uint32_t n_slots = tslb_da_get_size(target.array);  // the headers of a group name all ids
  for (const Range &range : ranges) {
    const std::string_view bytes = reader.bytes(range.bytes);
    if (!why.empty()) break;
    if (!reader.is_sound() || range.offset >= geometry.slot_bytes) return "a range outside of its slot, or cut";
    if (range.idx >= n_slots) return "a range of a slot that does not exist";
    if (writer.write(range, bytes)) continue;
    const uint64_t at = tslb_stored_slot_at(geometry.header_bytes, geometry.slot_bytes, range.idx);
    why = apply_bytes(target, at + range.offset, bytes, max_slots);
  }
  return why;
}

}  // namespace

LoggedArray::LoggedArray(DynArrHandle_t *array, tslb_array_kind_t kind, uint32_t number)
    : array_(array), geometry_(array), is_pool_(tslb_durable::is_pool(kind)), number_(number) {
  headers_are_logged();
}

void LoggedArray::headers_are_logged() {
  logged_headers_.assign(static_cast<const char *>(array_->arr_base), geometry_.header_bytes);
}

bool LoggedArray::are_headers_changed() const {
  const char *const headers = static_cast<const char *>(array_->arr_base);
  const uint32_t skipped_at = n_alloc_at(array_);
  const uint32_t after = skipped_at + sizeof(uint32_t);
  return std::memcmp(headers, logged_headers_.data(), skipped_at) != 0 ||
         std::memcmp(headers + after, logged_headers_.data() + after, geometry_.header_bytes - after) != 0;
}

uint32_t LoggedArray::n_logged() const {
  uint32_t n_used;
  std::memcpy(&n_used, logged_headers_.data() + n_alloc_at(array_) + sizeof(uint32_t), sizeof n_used);
  return n_used;
}

void LoggedArray::add_counters(uint32_t declaration, std::vector<Range> &ranges) const {
  if (!is_pool_ || !are_headers_changed()) return;
  const auto add = [&](uint32_t idx) {
    ranges.push_back({declaration, idx, geometry_.shift, TSLB_MEM_SLOT_HDR_BYTES});
  };
  const char *const headers = static_cast<const char *>(array_->arr_base);
  for (const uint64_t cursor : {cursor_in(headers), cursor_in(logged_headers_.data())})
    if (tslb_stored_cursor_slot(cursor) != TSLB_DA_NIL_IDX) add(tslb_stored_cursor_slot(cursor));
  for (uint32_t idx = n_logged(); idx < tslb_da_get_size(array_); ++idx) add(idx);
}

namespace {

bool is_before(const Range &a, const Range &b) {
  return a.idx != b.idx ? a.idx < b.idx : a.offset < b.offset;
}

// Sorts the ranges of one array. Batches often end with many ranges in order, those of all records or chunks that they have
// changed: only what comes before them is sorted.
void sort_ranges(std::span<Range> ranges) {
  size_t first = ranges.size();  // of the ranges in order at the end
  while (first > 0 && (first == ranges.size() || !is_before(ranges[first], ranges[first - 1]))) --first;
  const auto middle = ranges.begin() + static_cast<ptrdiff_t>(first);
  if (first > ranges.size() / 2) return std::sort(ranges.begin(), ranges.end(), is_before);
  std::sort(ranges.begin(), middle, is_before);
  std::inplace_merge(ranges.begin(), middle, ranges.end(), is_before);
}

}  // namespace

void normalize(const std::vector<LoggedArray> &arrays, std::vector<Range> &ranges) {
  // By array first, in the order in which they were named.
  std::vector<size_t> begins(arrays.size() + 1);
  for (const Range &range : ranges) ++begins[range.array + 1];
  std::partial_sum(begins.begin(), begins.end(), begins.begin());
  std::vector<Range> sorted(ranges.size());
  std::vector<size_t> ends(begins.begin(), begins.end() - 1);
  for (const Range &range : ranges) sorted[ends[range.array]++] = range;
  for (size_t i = 0; i < arrays.size(); ++i) sort_ranges({sorted.data() + begins[i], begins[i + 1] - begins[i]});
  ranges.swap(sorted);
  std::vector<Range> joined;
  joined.reserve(ranges.size());
  const auto add = [&joined](const Range &range) {
    if (!joined.empty()) {
      Range &last = joined.back();
      if (last.array == range.array && last.idx == range.idx && range.offset <= last.offset + last.bytes) {
        last.bytes = std::max(last.offset + last.bytes, range.offset + range.bytes) - last.offset;
        return;
      }
    }
    joined.push_back(range);
  };
  for (size_t i = 0; i < ranges.size(); ++i) {
    const Range &range = ranges[i];
    const LoggedArray &array = arrays[range.array];
    // The ranges of a slot are in the order of their offsets: first its node, then its counters, then chunks.
    const bool is_first_after_node = array.is_pool() && range.offset >= array.geometry().shift &&
                                     (i == 0 || ranges[i - 1].array != range.array || ranges[i - 1].idx != range.idx ||
                                      ranges[i - 1].offset < array.geometry().shift);
    if (is_first_after_node) add({range.array, range.idx, array.geometry().shift, TSLB_MEM_SLOT_HDR_BYTES});
    add(range);
    const bool is_last_of_slot =
        i + 1 == ranges.size() || ranges[i + 1].array != range.array || ranges[i + 1].idx != range.idx;
    if (array.is_pool() && is_last_of_slot && range.offset < array.geometry().shift)
      add({range.array, range.idx, array.geometry().shift, TSLB_MEM_SLOT_HDR_BYTES});
  }
  ranges.swap(joined);
}

void append_body(std::vector<LoggedArray> &arrays, const std::vector<Range> &ranges, const std::string *payload,
                 const LogPosition &position, std::string &body) {
  append_number(body, payload != nullptr ? payload->size() + 1 : 0);
  if (payload != nullptr) body += *payload;
  struct Section {
    size_t first, last;
    bool has_headers;
  };
  std::vector<Section> sections(arrays.size());
  size_t n_sections = 0, at = 0;
  for (uint32_t i = 0; i < arrays.size(); ++i) {
    const size_t first = at;
    while (at < ranges.size() && ranges[at].array == i) ++at;
    sections[i] = {first, at, arrays[i].are_headers_changed()};
    n_sections += first != at || sections[i].has_headers ? 1 : 0;
  }
  append_number(body, n_sections + (position.number != 0 ? 1 : 0));
  if (position.number != 0) append_position(body, position);
  for (uint32_t i = 0; i < arrays.size(); ++i) {
    LoggedArray &array = arrays[i];
    const Section &section = sections[i];
    if (section.first == section.last && !section.has_headers) continue;
    const Geometry &geometry = array.geometry();
    append_number(body, array.number());
    append_number(body, section.has_headers ? geometry.header_bytes : 0);
    append_number(body, section.last - section.first);
    size_t n_bytes = section.has_headers ? geometry.header_bytes : 0;
    for (size_t k = section.first, before = 0; k < section.last; before = ranges[k++].idx) {
      append_number(body, ranges[k].idx - before);
      append_number(body, ranges[k].offset);
      append_number(body, ranges[k].bytes);
      n_bytes += ranges[k].bytes;
    }
    body.reserve(body.size() + n_bytes);
    if (section.has_headers) {
      body.append(static_cast<const char *>(array.array()->arr_base), geometry.header_bytes);
      array.headers_are_logged();
    }
    for (size_t k = section.first; k < section.last; ++k)
      body.append(slot_start(array.array(), geometry, ranges[k].idx) + ranges[k].offset, ranges[k].bytes);
  }
}

std::string body_of_position(const LogPosition &position) {
  std::string body;
  append_number(body, 0);  // no payload
  append_number(body, 1);
  append_position(body, position);
  return body;
}

std::optional<LogPosition> position_in(std::string_view body) {
  BodyReader reader(body);
  if (const uint64_t payload_size = reader.number(); payload_size != 0) reader.bytes(payload_size - 1);
  if (reader.number() == 0 || reader.number() != POSITION_SECTION) return std::nullopt;
  const LogPosition position = read_position(reader);
  return reader.is_sound() ? std::optional(position) : std::nullopt;
}

std::string apply_body(std::string_view body, const std::vector<ReplayTarget> &targets, std::string &payload,
                       bool &has_payload, LogPosition &position, uint32_t max_slots) {
  BodyReader reader(body);
  const uint64_t payload_size = reader.number();
  if (payload_size != 0) {
    payload = reader.bytes(payload_size - 1);
    has_payload = true;
  }
  const uint64_t n_sections = reader.number();
  for (uint64_t i = 0; i < n_sections && reader.is_sound(); ++i)
    if (std::string why = apply_section(reader, targets, position, max_slots); !why.empty()) return why;
  return reader.is_sound() && reader.n_left() == 0 ? "" : "a body of another length";
}

Difference first_difference(DynArrHandle_t *array, DynArrHandle_t *replica) {
  const Geometry geometry(array);
  const auto byte_of = [](const char *a, const char *b, size_t count) {
    return static_cast<size_t>(std::mismatch(a, a + count, b).first - a);
  };
  const auto describe = [](const char *a, const char *b, size_t at) {
    return fmt::format("{:#04x} in the array, {:#04x} in the journal", static_cast<unsigned char>(a[at]),
                       static_cast<unsigned char>(b[at]));
  };
  const auto *const headers = static_cast<const char *>(array->arr_base);
  const auto *const logged = static_cast<const char *>(replica->arr_base);
  for (uint32_t at = 0; at < geometry.header_bytes; ++at) {
    if (headers[at] == logged[at] || (at >= n_alloc_at(array) && at < n_alloc_at(array) + sizeof(uint32_t))) continue;
    return {fmt::format("byte {} of the headers: {}", at, describe(headers, logged, at))};
  }
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx) {
    const char *const slot = slot_start(array, geometry, idx);
    const char *const copy = slot_start(replica, geometry, idx);
    if (std::memcmp(slot, copy, geometry.slot_bytes) == 0) continue;
    const size_t at = byte_of(slot, copy, geometry.slot_bytes);
    const bool is_in_record = at >= geometry.shift && at < geometry.shift + geometry.record_bytes;
    return {fmt::format("slot {}, {}: {}", idx,
                        is_in_record ? fmt::format("byte {} of the record", at - geometry.shift)
                                     : fmt::format("byte {}, in a list node", at),
                        describe(slot, copy, at))};
  }
  return {};
}

}  // namespace tslb_durable
