#include "text_lines.h"

#include <fmt/format.h>

#include "checksum.h"
#include "store_error.h"

namespace tslb_durable {
namespace {

constexpr std::string_view CHECKSUM = "crc32c ";
constexpr size_t CHECKSUM_LINE_BYTES = CHECKSUM.size() + 8 + 1;

std::string checksum_line(std::string_view text) {
  return fmt::format("{}{:08x}\n", CHECKSUM, crc32c(text.data(), text.size()));
}

}  // namespace

Words::Words(std::string_view text, const std::string &path) : path_(path) {
  if (text.size() < CHECKSUM_LINE_BYTES) throw damaged(path, "unexpected end");
  rest_ = text.substr(0, text.size() - CHECKSUM_LINE_BYTES);
  if (text.substr(rest_.size()) != checksum_line(rest_)) throw damaged(path, "wrong checksum, or unexpected end");
}

std::string_view Words::next() {
  const size_t end = rest_.find_first_of(" \n");
  if (end == rest_.npos) throw damaged(path_, "unexpected end");
  const std::string_view word = rest_.substr(0, end);
  line_ = next_line_;
  next_line_ += rest_[end] == '\n' ? 1 : 0;
  rest_.remove_prefix(end + 1);
  return word;
}

std::string_view Words::rest_of_line() {
  const size_t end = rest_.find('\n');
  if (end == rest_.npos) throw damaged(path_, "unexpected end");
  const std::string_view line = rest_.substr(0, end);
  line_ = next_line_++;
  rest_.remove_prefix(end + 1);
  return line;
}

void Words::expect(std::string_view word) {
  const std::string_view found = next();
  if (found != word) fail(fmt::format("\"{}\", expected \"{}\"", found, word));
}

bool Words::take(std::string_view word) {
  const size_t end = rest_.find_first_of(" \n");
  if (end == rest_.npos || rest_.substr(0, end) != word) return false;
  next();
  return true;
}

void Words::fail(const std::string &what) const {
  throw damaged(path_, fmt::format("line {}: {}", line_, what));
}

void Words::fail_number(std::string_view word) const {
  fail(fmt::format("number \"{}\"", word));
}

void append_checksum(std::string &text) {
  text += checksum_line(text);
}

}  // namespace tslb_durable
