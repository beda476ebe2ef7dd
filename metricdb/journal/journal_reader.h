// Reads a journal: the batches that count, in order, and what stands behind the last of them.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "journal/journal_format.h"

namespace metricdb {

// "path: byte 1234: what". The file is not what a journal can be, even after a crash.
class JournalDamaged : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// How a file ends.
enum class JournalEnd {
  clean,    // with a mark
  torn,     // with what a crash leaves: bytes that were never synced, or a batch without its mark
  damaged,  // a fault ahead of bytes that were on the disk
};

struct ScanResult {
  JournalPlace place;  // behind the last mark that counts, where a writer goes on; 0 if the head is damaged
  uint64_t n_batches = 0;
  uint64_t n_records = 0;  // of those batches
  uint64_t bytes_cut = 0;  // behind the place
  JournalEnd end = JournalEnd::clean;
  bool closed = false;  // the last mark says that the writer came to its end
  std::string what;     // one line about a tail that is cut; empty if there is none
};

// What becomes of what is read. Views are good until the call returns. What they throw ends the scan.
struct JournalVisitor {
  std::function<void(const RedoRecord &)> record;
  std::function<void(std::string_view payload, uint64_t position)> commit;  // position: behind the mark
};

// Reads the whole file, which stays as it is; a writer can go on meanwhile, and the end is where the file ended at the
// start of the call. A batch is given when its commit mark was read whole; it is in memory until then. Throws
// FileError, and JournalDamaged for a file that is no journal, or for a fault that no crash explains: an entry is
// wrong, and a mark behind it says that the disk had it. By then the batches ahead of the fault were given. With
// `salvage` those are what is returned, as `damaged`, and the line says how much is lost.
ScanResult scan_journal(const std::string &path, const JournalVisitor &visitor, bool salvage = false);

}  // namespace metricdb
