// Reads a journal: its groups in order, and the state of the bytes after them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "files.h"
#include "journal_format.h"

namespace tslb_durable {

// How a file ends.
enum class JournalEnd {
  clean,    // after a frame, or with zeros
  torn,     // with bytes as a crash leaves them: they were never synced
  damaged,  // with a fault before bytes that are known to have been on the disk, which no crash explains
};

struct ScanResult {
  JournalPlace place;      // after the last valid frame
  uint64_t bytes = 0;      // of the file
  uint64_t n_groups = 0;   // before the place
  uint64_t n_batches = 0;  // in them
  uint64_t bytes_cut = 0;  // after the place; 0 if they are zeros
  JournalEnd end = JournalEnd::clean;
  bool is_sealed = false;  // the last frame is a seal
  uint64_t fault_at = 0;
  std::string fault;  // the first fault, "path: byte 1234: reason"; empty if the end is clean
};

// Receives the body of each group. It is valid during the call. An exception ends the scan. Returns why the body does
// not fit; empty if it does. A group that does not fit is damage.
using GroupVisitor = std::function<std::string(std::string_view body, uint64_t position)>;

// Reads the whole file, without changing it. A writer can append meanwhile; the scan ends where the file ended at the
// start of the call. The scan of a damaged file ends at the fault. Throws StoreError if the file cannot be read, or its
// head is not that of the journal `name`.
ScanResult scan_journal(const File &file, const JournalName &name, const GroupVisitor &visit);

}  // namespace tslb_durable
