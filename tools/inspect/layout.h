// Layouts of a host's records: the fields that a record consists of. Stored arrays have none, so a description gives
// them: a text file, or the sidecar of the array.
//
//   # Temperatures.                 a comment; blank lines and repeated blanks are allowed
//   layout reading bytes 12         name, and bytes of a record without nodes
//   field gatekeeper 0 u32          name, offset in the record, type
//   field state 4 u8:0-2            bits 0 to 2 of a number
//   field place 5 char[3]           text, up to its first zero
//   field celsius 8 f32
//
// Types: u8 u16 u32 u64, i8 i16 i32 i64, f32 f64, each also with [COUNT]; char[BYTES]; bytes[BYTES], shown in
// hexadecimal. Numbers are little-endian. Fields can overlap, as in a union. Bytes without a field have no meaning.
#ifndef TSLB_INSPECT_LAYOUT_H
#define TSLB_INSPECT_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace inspect {

enum class field_kind_t : uint8_t { UNSIGNED, SIGNED, REAL, TEXT, BYTES };

struct field_type_t {
  field_kind_t kind = field_kind_t::UNSIGNED;
  uint32_t bytes = 1;  // of one value; 1 for TEXT and BYTES
  uint32_t count = 0;  // of values in brackets; 0: one value, without brackets
  bool has_bits = false;
  uint32_t first_bit = 0, last_bit = 0;

  bool operator==(const field_type_t &) const = default;
  uint64_t total_bytes() const { return uint64_t{bytes} * (count == 0 ? 1 : count); }
  bool is_number() const { return count == 0; }
};

struct layout_field_t {
  std::string name;
  uint32_t offset = 0;
  field_type_t type;

  bool operator==(const layout_field_t &) const = default;
};

struct layout_t {
  std::string name;
  uint32_t record_bytes = 0;
  std::vector<layout_field_t> fields;  // by offset, then by first bit, then by name

  bool operator==(const layout_t &) const = default;
};

// A description is not one. The text has its file and line.
struct layout_error_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string type_text(const field_type_t &type);
std::optional<field_type_t> parse_type(std::string_view text);

// Returns what is wrong with a layout, or an empty text: names, order, and places of fields.
std::string fault_of(const layout_t &layout);

// Reads the text of a description. `path` is for messages. Throws layout_error_t.
layout_t parse_layout(const std::string &text, const std::string &path);

// Reads a description file: `name` is its path if it has a slash or ends with ".layout", else the name of one of the
// descriptions that are installed with this program. Throws layout_error_t.
layout_t load_layout(const std::string &name);

// Returns the value of a field in a record, for people. Empty if its bytes are missing. Control characters of texts are
// escaped.
std::string field_text(const layout_field_t &field, std::string_view record);

}  // namespace inspect

#endif
