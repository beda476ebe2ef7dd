// Conversions of a host's records, from a shared object (array_convert.h).
#ifndef HOST_CONVERTERS_H
#define HOST_CONVERTERS_H

#include <tslb/array_convert.h>

#include <string>

// Throws tool_error_t where the object or a request is refused. The object stays loaded until the process ends.
class host_converters_t {
 public:
  explicit host_converters_t(const std::string &path);

  // Returns the conversion of a record type from the version that the stream in `fd` has. Does not move the position.
  const array_conversion_t &find(const std::string &name, uint8_t to_version, int fd, const std::string &in) const;
  std::string list() const;

 private:
  void check(const array_conversion_t &conversion, uint32_t row) const;

  std::string path_;
  const array_conversion_t *conversions_ = nullptr;
  uint32_t n_conversions_ = 0;
};

#endif
