// POST /backup?name=NAME&db=NAME: writes a backup of a served database to the folder for backups, and answers when it is durable.
#pragma once

#include <functional>
#include <string>

#include "net/query_workers.h"
#include "store/backup.h"

namespace metricdb {

// Writes a backup to that path. Throws DatabaseError.
using BackupFunction = std::function<BackupInfo(const std::string &to)>;

// Returns the answer to a request for a backup: 200 with generation, bytes and seconds as JSON; 400 for a name that is not
// 1 to 128 letters, digits, '_', '-' and '.', begins with '.' or ends with ".partial"; 409 if there is such a backup; 500
// with the reason if it cannot be written. Takes as long as the backup.
QueryAnswer answer_backup(const std::string &folder, const std::string &name, const BackupFunction &write);

}  // namespace metricdb
