#include "net/backup_api.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <nlohmann/json.hpp>

#include "store/durable_arrays.h"
#include "store/log.h"

namespace metricdb {
namespace {

constexpr size_t MAX_BACKUP_NAME_BYTES = 128;

bool is_backup_name(const std::string &name) {
  const auto is_allowed = [](unsigned char byte) {
    return std::isalnum(byte) != 0 || byte == '_' || byte == '-' || byte == '.';
  };
  return !name.empty() && name.size() <= MAX_BACKUP_NAME_BYTES && name.front() != '.' && !name.ends_with(".partial") &&
         std::all_of(name.begin(), name.end(), is_allowed);
}

QueryAnswer backup_json(http_status status, const nlohmann::ordered_json &json) {
  return {status, "application/json",
          json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n"};
}

QueryAnswer backup_error(http_status status, const std::string &reason) {
  TSLB_DLOG(LOG_REFUSALS, "no backup: %s", reason.c_str());
  return backup_json(status, {{"error", reason}});
}

}  // namespace

QueryAnswer answer_backup(const std::string &folder, const std::string &name, const BackupFunction &write) {
  if (!is_backup_name(name))
    return backup_error(
        HTTP_STATUS_BAD_REQUEST,
        "the parameter \"name\" of a backup has 1 to 128 letters, digits, '_', '-' and '.', does not begin "
        "with '.' and does not end with \".partial\"");
  const std::string path = folder + "/" + name;
  if (access(path.c_str(), F_OK) == 0) return backup_error(HTTP_STATUS_CONFLICT, path + ": exists already");
  const auto begin = std::chrono::steady_clock::now();
  try {
    const BackupInfo info = write(path);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    TSLB_DLOG(LOG_PROGRESS, "backup %s: generation %llu, %llu bytes, %.3f s", path.c_str(),
              static_cast<unsigned long long>(info.generation), static_cast<unsigned long long>(info.bytes), seconds);
    return backup_json(
        HTTP_STATUS_OK,
        {{"backup", path}, {"generation", info.generation}, {"bytes", info.bytes}, {"seconds", seconds}});
  } catch (const std::exception &error) {
    return backup_error(HTTP_STATUS_INTERNAL_SERVER_ERROR, error.what());
  }
}

}  // namespace metricdb
