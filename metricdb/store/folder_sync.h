// The names in a folder.
#pragma once

#include <string>

namespace metricdb {

// Makes the names in a folder durable. Throws DatabaseError.
void sync_folder(const std::string &folder);

}  // namespace metricdb
