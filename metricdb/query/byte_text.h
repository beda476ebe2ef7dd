// Numbers and texts as bytes of this machine's order, for programs of the same version.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace metricdb {

class BytesDamaged : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <class T>
void put(std::string &bytes, const T &value) {
  static_assert(std::is_trivially_copyable_v<T>);
  bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
}

template <class T>
void put_all(std::string &bytes, const std::vector<T> &values) {
  static_assert(std::is_trivially_copyable_v<T>);
  put(bytes, static_cast<uint64_t>(values.size()));
  bytes.append(reinterpret_cast<const char *>(values.data()), values.size() * sizeof(T));
}

inline void put_text(std::string &bytes, std::string_view text) {
  put(bytes, static_cast<uint64_t>(text.size()));
  bytes += text;
}

// Reads what was put, in the same order. Throws BytesDamaged where it is not there.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

  template <class T>
  T get() {
    T value;
    std::memcpy(&value, take(sizeof value).data(), sizeof value);
    return value;
  }

  std::string_view text() { return take(get<uint64_t>()); }

  // A number of elements that follow, of at least that many bytes each.
  size_t count(size_t element_bytes) {
    const auto n = get<uint64_t>();
    if (n > rest_.size() / element_bytes) fail();
    return n;
  }

  template <class T>
  std::vector<T> all() {
    std::vector<T> values(count(sizeof(T)));
    const std::string_view taken = take(values.size() * sizeof(T));
    if (!taken.empty()) std::memcpy(values.data(), taken.data(), taken.size());
    return values;
  }

  bool is_at_end() const { return rest_.empty(); }

 private:
  [[noreturn]] static void fail() { throw BytesDamaged("the bytes end too early"); }

  std::string_view take(uint64_t n) {
    if (n > rest_.size()) fail();
    const std::string_view taken = rest_.substr(0, n);
    rest_.remove_prefix(n);
    return taken;
  }

  std::string_view rest_;
};

}  // namespace metricdb
