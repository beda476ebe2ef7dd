// How the tools end with a line on stderr.
#ifndef TOOLS_REFUSAL_H
#define TOOLS_REFUSAL_H

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

// Ends the run with its line on stderr.
struct refused_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] inline void refuse_with_errno(const std::string &path, const char *what) {
  const int error = errno;
  throw refused_t(fmt::format("{}: {}: {}", path, what, std::strerror(error)));
}

// A report that did not arrive must not look like success.
inline void print(const std::string &text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
    refuse_with_errno("stdout", "cannot be written");
}

#endif
