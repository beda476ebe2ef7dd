#include "layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <set>
#include <sstream>
#include <tuple>

#include "render.h"

namespace inspect {
namespace {

constexpr size_t MAX_FIELDS = 4096;
constexpr size_t MAX_NAME_CHARS = 128;

struct base_type_t {
  std::string_view name;
  field_kind_t kind;
  uint32_t bytes;
};
constexpr base_type_t BASE_TYPES[] = {
    {"u8", field_kind_t::UNSIGNED, 1},  {"u16", field_kind_t::UNSIGNED, 2}, {"u32", field_kind_t::UNSIGNED, 4},
    {"u64", field_kind_t::UNSIGNED, 8}, {"i8", field_kind_t::SIGNED, 1},    {"i16", field_kind_t::SIGNED, 2},
    {"i32", field_kind_t::SIGNED, 4},   {"i64", field_kind_t::SIGNED, 8},   {"f32", field_kind_t::REAL, 4},
    {"f64", field_kind_t::REAL, 8},     {"char", field_kind_t::TEXT, 1},    {"bytes", field_kind_t::BYTES, 1}};

bool is_name(std::string_view name) {
  return !name.empty() && name.size() <= MAX_NAME_CHARS &&
         std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7F; });
}

// Takes a number from the front of the text. Only the shortest form is one.
bool take_number(std::string_view *text, uint32_t *value) {
  const auto [end, fault] = std::from_chars(text->data(), text->data() + text->size(), *value);
  const size_t length = static_cast<size_t>(end - text->data());
  if (fault != std::errc() || (length > 1 && text->front() == '0')) return false;
  text->remove_prefix(length);
  return true;
}

bool take(std::string_view *text, char c) {
  if (text->empty() || text->front() != c) return false;
  text->remove_prefix(1);
  return true;
}

bool take_base(std::string_view *text, field_type_t *type) {
  const std::string_view name = text->substr(0, text->find_first_of("[:"));
  for (const base_type_t &base : BASE_TYPES) {
    if (base.name != name) continue;
    type->kind = base.kind;
    type->bytes = base.bytes;
    text->remove_prefix(name.size());
    return true;
  }
  return false;
}

bool take_bits(std::string_view *text, field_type_t *type) {
  type->has_bits = true;
  return type->kind == field_kind_t::UNSIGNED && take(text, ':') && take_number(text, &type->first_bit) &&
         take(text, '-') && take_number(text, &type->last_bit) && type->first_bit <= type->last_bit &&
         type->last_bit < 8 * type->bytes;
}

}  // namespace

// ---- Types ---------------------------------------------------------------------------------------------------------

std::optional<field_type_t> parse_type(std::string_view text) {
  field_type_t type;
  if (!take_base(&text, &type)) return std::nullopt;
  if (text.starts_with('[')) {
    if (!take(&text, '[') || !take_number(&text, &type.count) || type.count == 0 || !take(&text, ']'))
      return std::nullopt;
  } else if (type.kind == field_kind_t::TEXT || type.kind == field_kind_t::BYTES) {
    return std::nullopt;
  } else if (text.starts_with(':') && !take_bits(&text, &type)) {
    return std::nullopt;
  }
  return text.empty() ? std::optional(type) : std::nullopt;
}

std::string type_text(const field_type_t &type) {
  const auto *const base = std::find_if(std::begin(BASE_TYPES), std::end(BASE_TYPES), [&](const base_type_t &other) {
    return other.kind == type.kind && other.bytes == type.bytes;
  });
  if (type.has_bits) return fmt::format("{}:{}-{}", base->name, type.first_bit, type.last_bit);
  return type.count == 0 ? std::string(base->name) : fmt::format("{}[{}]", base->name, type.count);
}

// ---- Layouts -------------------------------------------------------------------------------------------------------

namespace {

auto order_of(const layout_field_t &field) {
  return std::tie(field.offset, field.type.first_bit, field.name);
}

bool is_before(const layout_field_t &left, const layout_field_t &right) {
  return order_of(left) < order_of(right);
}

}  // namespace

std::string fault_of(const layout_t &layout) {
  if (!is_name(layout.name)) return "the name of the layout is not 1 to 128 printable ASCII characters";
  if (layout.fields.size() > MAX_FIELDS) return fmt::format("more than {} fields", MAX_FIELDS);
  std::set<std::string_view> names;
  for (const layout_field_t &field : layout.fields) {
    if (!is_name(field.name)) return "the name of a field is not 1 to 128 printable ASCII characters";
    if (!names.insert(field.name).second) return fmt::format("two fields \"{}\"", field.name);
    if (field.offset + field.type.total_bytes() > layout.record_bytes)
      return fmt::format("field \"{}\" ends at byte {} of {}", field.name, field.offset + field.type.total_bytes(),
                         layout.record_bytes);
  }
  if (!std::is_sorted(layout.fields.begin(), layout.fields.end(), is_before))
    return "the fields are not in the order of their offsets";
  return "";
}

namespace {

// Reads a description line by line.
class layout_reader_t {
 public:
  explicit layout_reader_t(const std::string &path) : path_(path) {}

  void read_line(const std::string &line) {
    ++number_;
    std::istringstream items(line.substr(0, line.find('#')));
    const std::vector<std::string> words{std::istream_iterator<std::string>(items), {}};
    if (words.empty()) return;
    if (words[0] == "layout" && words.size() == 4 && words[2] == "bytes" && layout_.name.empty()) {
      layout_.name = words[1];
      layout_.record_bytes = number(words[3]);
    } else if (words[0] == "field" && words.size() == 4 && !layout_.name.empty()) {
      add_field(words);
    } else {
      fail(layout_.name.empty() ? "expected \"layout NAME bytes COUNT\"" : "expected \"field NAME OFFSET TYPE\"");
    }
    const std::string fault = fault_of({layout_.name, layout_.record_bytes, {}});
    if (!fault.empty()) fail(fault);
  }

  layout_t finish() {
    if (layout_.name.empty()) fail("no line \"layout NAME bytes COUNT\"");
    std::sort(layout_.fields.begin(), layout_.fields.end(), is_before);
    const std::string fault = fault_of(layout_);
    if (!fault.empty()) throw layout_error_t(fmt::format("{}: {}", path_, fault));
    return layout_;
  }

 private:
  [[noreturn]] void fail(const std::string &what) const {
    throw layout_error_t(fmt::format("{}: line {}: {}", path_, number_, what));
  }

  uint32_t number(const std::string &word) const {
    std::string_view rest = word;
    uint32_t value = 0;
    if (!take_number(&rest, &value) || !rest.empty()) fail(fmt::format("\"{}\" is not a number", printable(word)));
    return value;
  }

  void add_field(const std::vector<std::string> &words) {
    const auto type = parse_type(words[3]);
    if (!type) fail(fmt::format("unknown type \"{}\"", printable(words[3])));
    if (layout_.fields.size() == MAX_FIELDS) fail(fmt::format("more than {} fields", MAX_FIELDS));
    layout_.fields.push_back({words[1], number(words[2]), *type});
  }

  const std::string path_;
  layout_t layout_;
  size_t number_ = 0;
};

}  // namespace

layout_t parse_layout(const std::string &text, const std::string &path) {
  layout_reader_t reader(path);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) reader.read_line(line);
  return reader.finish();
}

// ---- Values --------------------------------------------------------------------------------------------------------

namespace {

template <class Value>
Value copied(const char *at) {
  Value value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

uint64_t unsigned_at(const char *at, size_t bytes) {
  uint64_t value = 0;  // the low byte is the first one: x86-64
  std::memcpy(&value, at, bytes);
  return value;
}

std::string number_text(const field_type_t &type, const char *at) {
  if (type.kind == field_kind_t::REAL)
    return type.bytes == 4 ? fmt::format("{}", copied<float>(at)) : fmt::format("{}", copied<double>(at));
  uint64_t value = unsigned_at(at, type.bytes);
  if (type.has_bits) {
    value >>= type.first_bit;
    return fmt::format("{}", value & (~uint64_t{0} >> (63 - (type.last_bit - type.first_bit))));
  }
  if (type.kind == field_kind_t::UNSIGNED) return fmt::format("{}", value);
  const unsigned unused_bits = 64 - 8 * type.bytes;
  return fmt::format("{}", static_cast<int64_t>(value << unused_bits) >> unused_bits);
}

}  // namespace

std::string field_text(const layout_field_t &field, std::string_view record) {
  const field_type_t &type = field.type;
  if (field.offset + type.total_bytes() > record.size()) return "";
  const std::string_view bytes = record.substr(field.offset, type.total_bytes());
  if (type.kind == field_kind_t::TEXT) return printable(std::string(bytes.substr(0, bytes.find('\0'))));
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += type.bytes) {
    if (type.kind == field_kind_t::BYTES)
      text += fmt::format("{:02x}", static_cast<unsigned char>(bytes[at]));
    else
      text += (at == 0 ? "" : " ") + number_text(type, bytes.data() + at);
  }
  return text;
}

}  // namespace inspect
