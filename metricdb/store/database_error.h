// The errors of databases in folders.
#pragma once

#include <stdexcept>

namespace metricdb {

class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace metricdb
