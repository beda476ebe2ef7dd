// Errors that end a tool with a line on stderr.
#ifndef TOOLS_REFUSAL_H
#define TOOLS_REFUSAL_H

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

// main prints the text to stderr and ends the run.
struct tool_error_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] inline void throw_with_errno(const std::string &path, const char *what) {
  const int error = errno;
  throw tool_error_t(fmt::format("{}: {}: {}", path, what, std::strerror(error)));
}

// Throws if the text was not written completely, so that the exit status reports it.
inline void print(const std::string &text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
    throw_with_errno("stdout", "cannot be written");
}

#endif
