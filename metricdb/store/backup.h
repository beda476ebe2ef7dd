// Backups of a database, and the way back.
//
// A backup is a folder with a complete database. It is filled under the name TO.partial and renamed when all of it is
// verified and on the disk, so a folder with the name itself is complete. What a killed process leaves has the other
// name, and is removed by hand: until then a backup or a restoration to that name is refused.
#pragma once

#include <tslb/durable.h>

#include <cstdint>
#include <string>

namespace metricdb {

struct BackupInfo {
  uint64_t generation = 0;
  uint64_t bytes = 0;  // of all files
};

// Copies an open store to a missing or empty folder, as of its last durable batch. Batches go on, snapshots wait. The copy
// is loaded to verify it, which needs as much memory as the database. Any thread. Throws DatabaseError; then nothing is left.
BackupInfo write_backup(tslb_store_t *store, const std::string &to);

// The same for a database that no process writes to.
BackupInfo backup_database(const std::string &db, const std::string &to);

// Verifies a backup, copies it to a missing or empty folder, and verifies the copy. Throws as write_backup.
BackupInfo restore_backup(const std::string &from, const std::string &db);

}  // namespace metricdb
