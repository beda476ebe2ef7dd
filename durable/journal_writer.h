// Writes a journal file. Threads: one at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "files.h"
#include "journal_format.h"

namespace tslb_durable {

class JournalWriter {
 public:
  // Creates a file, which must not exist. It gets its name when its head is written and synced. Throws StoreError.
  JournalWriter(const std::string &path, const JournalName &name);
  // Continues an existing file. Bytes after the place are removed, and those before it are synced. Throws StoreError.
  JournalWriter(const std::string &path, const JournalName &name, const JournalPlace &place);

  const std::string &path() const { return file_.path(); }
  const JournalPlace &place() const { return place_; }
  bool has_groups() const { return has_groups_; }

  // Appends a group. `body` is the stored form. Throws StoreError; then cut() follows.
  void append_group(const Frame &frame, std::string_view body);
  // Waits until everything is on the disk. Throws StoreError; the content of the disk is unknown then.
  void sync();
  // Removes what was appended after the last mark(). Throws StoreError; the content of the disk is unknown then. Fails
  // if a sync failed that should have covered bytes before the mark.
  void cut();
  // Everything that was appended so far stays.
  void mark();

  // Reserves disk space for at least so many bytes. Returns for how many there is space; the maximum if the file system
  // cannot reserve space. Throws StoreError if there is none.
  uint64_t reserve_space(uint64_t bytes);
  uint64_t reserved_bytes() const;

  // Marks that the journal was continued after a cut, so that a reader cannot combine removed bytes with new ones.
  void append_opened();
  // Appends the last frame, syncs, and releases reserved space.
  void seal();

 private:
  static constexpr uint64_t RESERVE_BYTES = 4 << 20;
  static constexpr uint64_t MIN_ZERO_BYTES = 64 << 10;
  static constexpr uint64_t MAX_ZERO_BYTES = 1 << 20;

  JournalWriter(File file, const JournalName &name, const JournalPlace &place);
  void append(const Frame &frame, std::string_view body);
  void sync_with(void (File::*method)() const);
  void write_zeros();

  const File file_;
  const JournalName name_;
  JournalPlace place_;   // after the last frame
  JournalPlace marked_;  // place of the last mark
  uint64_t durable_;     // end of the synced part
  uint64_t reserved_end_ = 0;
  bool can_reserve_ = true;
  uint64_t zeros_end_ = 0;  // end of the zeros after the last frame
  bool has_groups_ = false;
  bool is_lost_ = false;  // a sync of marked bytes failed
  std::string buffer_;
};

// Writes the bytes of a journal from `place.synced` to the place again, and syncs the file. If a sync failed before, the
// system can give bytes to a reader that are not on the disk, and not write them at the next sync. Throws StoreError.
void sync_again(const File &file, const JournalPlace &place);

}  // namespace tslb_durable
