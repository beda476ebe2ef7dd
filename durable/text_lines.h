// Text files of a store: lines of words, and a last line with the CRC-32C of all lines before it. Each content has
// exactly one text, so a reader can compare what it read with what it would write.
#pragma once

#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace tslb_durable {

// Reads the words of a text. A fault is reported as StoreError with TSLB_DURABLE_DAMAGED and the line.
class Words {
 public:
  // Checks the last line. `path` is for messages.
  Words(std::string_view text, const std::string &path);

  std::string_view next();
  // The rest of the line, which can have blanks.
  std::string_view rest_of_line();
  void expect(std::string_view word);
  // Returns whether the next word is this one, and takes it then.
  bool take(std::string_view word);
  bool at_end() const { return rest_.empty(); }
  [[noreturn]] void fail(const std::string &what) const;

  template <class Number>
  Number number(int base = 10) {
    const std::string_view word = next();
    Number value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (error != std::errc() || end != word.data() + word.size()) fail_number(word);
    return value;
  }

 private:
  [[noreturn]] void fail_number(std::string_view word) const;

  std::string_view rest_;
  const std::string &path_;
  uint64_t line_ = 1;
  uint64_t next_line_ = 1;
};

// Appends the last line.
void append_checksum(std::string &text);

}  // namespace tslb_durable
