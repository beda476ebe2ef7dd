#include "convert/host_converters.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <tslb/dynamic_array.h>
#include "refusal.h"

host_converters_t::host_converters_t(const std::string &path) : path_(path) {
  // Without a slash, dlopen would search the folders of libraries.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  void *const object = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (object == nullptr) throw tool_error_t(dlerror());
  const auto converters = reinterpret_cast<decltype(&tslb_converters)>(dlsym(object, "tslb_converters"));
  if (converters == nullptr)
    throw tool_error_t(path + ": does not define tslb_converters as <tslb/array_convert.h> declares it");
  conversions_ = converters(&n_conversions_);
  if (conversions_ == nullptr && n_conversions_ != 0) throw tool_error_t(path + ": has no conversions");
  for (uint32_t i = 0; i < n_conversions_; ++i) check(conversions_[i], i);
}

void host_converters_t::check(const array_conversion_t &conversion, uint32_t row) const {
  if (conversion.name == nullptr || conversion.name[0] == '\0')
    throw tool_error_t(fmt::format("{}: conversion {} has no name", path_, row));
  if (conversion.convert == nullptr)
    throw tool_error_t(fmt::format("{}: conversion {}, {}, has no function", path_, row, conversion.name));
  for (uint32_t i = 0; i < row; ++i)
    if (std::string(conversions_[i].name) == conversion.name &&
        conversions_[i].from_version == conversion.from_version && conversions_[i].to_version == conversion.to_version)
      throw tool_error_t(fmt::format("{}: conversions {} and {} are both from version {} of {} to {}", path_, i, row,
                                     conversion.from_version, conversion.name, conversion.to_version));
}

const array_conversion_t &host_converters_t::find(const std::string &name, uint8_t to_version, int fd,
                                                  const std::string &in) const {
  DynHdr_t stored;
  if (pread(fd, &stored, sizeof(stored), 0) != ssize_t{sizeof(stored)})
    throw tool_error_t(fmt::format("{}: shorter than the headers of an array", in));
  bool is_known = false;
  for (uint32_t i = 0; i < n_conversions_; ++i) {
    const array_conversion_t &conversion = conversions_[i];
    if (name != conversion.name) continue;
    is_known = true;
    if (conversion.from_version == stored.rec_version && conversion.to_version == to_version) return conversion;
  }
  if (!is_known) throw tool_error_t(fmt::format("{}: has no conversion of {}; --list shows them", path_, name));
  throw tool_error_t(fmt::format("{}: has version {}, and {} has no conversion of {} from version {} to {}", in,
                                 stored.rec_version, path_, name, stored.rec_version, to_version));
}

std::string host_converters_t::list() const {
  std::string text = fmt::format("{}\n{:<18}  {:>4}  {:>4}  {}\n", path_, "name", "from", "to", "record bytes");
  for (uint32_t i = 0; i < n_conversions_; ++i) {
    const array_conversion_t &conversion = conversions_[i];
    text += fmt::format("{:<18}  {:>4}  {:>4}  {} to {}\n", conversion.name, conversion.from_version,
                        conversion.to_version, conversion.from_bytes, conversion.to_bytes);
  }
  return text;
}
