// Certificates of a test's own, by the program openssl.
#pragma once

#include <fmt/format.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include "system_support.h"

namespace metricdb {

// Writes NAME.crt, which is its own authority and valid for 127.0.0.1, and NAME.key.
inline void make_certificate(const fs::path &folder, const std::string &name) {
  const std::string command = fmt::format(
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN={0} "
      "-addext subjectAltName=IP:127.0.0.1 -keyout {1}/{0}.key -out {1}/{0}.crt 2>{1}/openssl.log",
      name, folder.string());
  ASSERT_EQ(std::system(command.c_str()), 0);
}

}  // namespace metricdb
