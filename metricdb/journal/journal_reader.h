// Reads a journal: its complete batches in order, and the state of the bytes after them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "journal/journal_format.h"

namespace metricdb {

// How a file ends.
enum class JournalEnd {
  clean,    // after a mark
  torn,     // with a tail as a crash leaves it: bytes that were never synced, or a batch without its mark
  damaged,  // with a fault before bytes that are known to have been on the disk, which no crash explains
};

struct ScanResult {
  JournalPlace place;      // after the last valid mark, where a writer continues; position 0 if the head is damaged
  uint64_t n_batches = 0;  // before the place
  uint64_t n_records = 0;  // of those batches
  uint64_t bytes_cut = 0;  // after the place
  JournalEnd end = JournalEnd::clean;
  bool is_closed = false;  // the last mark is that of a writer that was closed
  std::string fault;       // the first fault, "path: byte 1234: reason"; empty if the end is clean

  // One line: the fault, and the number of bytes that are cut or lost. Empty if the end is clean.
  std::string warning() const;
};

// Callbacks of scan_journal. Views and pointers are valid during the call. An exception ends the scan.
struct JournalVisitor {
  std::function<void(const redo_args_t &)> record;
  std::function<void(std::string_view payload, uint64_t position)> commit;  // position: after the mark
};

// Reads the whole file, without changing it. A writer can append meanwhile; the scan ends where the file ended at the
// start of the call. The records of a batch are passed to the visitor after its commit mark was read, and are in memory
// until then. The scan of a damaged file ends at the fault. Throws FileError.
ScanResult scan_journal(const std::string &path, const JournalVisitor &visitor);

}  // namespace metricdb
