#include "journal_writer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "checksum.h"
#include "store_error.h"

namespace tslb_durable {
namespace {

template <class Head>
std::string_view bytes_of(const Head &head) {
  return {reinterpret_cast<const char *>(&head), sizeof head};
}

// The file is written under a temporary name first, so a file with the final name always has a complete head.
File make_file(const std::string &path, const JournalHead &head) {
  if (access(path.c_str(), F_OK) == 0) throw StoreError(TSLB_DURABLE_IO, path + ": already exists", path);
  const std::string temporary = path + ".new";
  remove_file(temporary);
  {
    const File file = File::create(temporary);
    file.write(bytes_of(head));
    file.sync();
  }
  rename_file(temporary, path);
  File::folder(folder_of(path)).sync();
  return File::open_to_write(path);
}

// The truncation is synced before anything is written. Otherwise removed bytes could reappear after it.
File open_file(const std::string &path, const JournalPlace &place) {
  File file = File::open_to_write(path);
  file.truncate(place.position);
  sync_again(file, place);
  return file;
}

JournalPlace place_after_head(const JournalHead &head) {
  return {sizeof head, 1, crc32c(&head, sizeof head), sizeof head};
}

}  // namespace

void sync_again(const File &file, const JournalPlace &place) {
  constexpr uint64_t STEP_BYTES = 1 << 20;
  std::string bytes;
  for (uint64_t at = place.synced; at < place.position; at += bytes.size()) {
    bytes.resize(std::min(STEP_BYTES, place.position - at));
    bytes.resize(file.read_at(at, bytes.data(), bytes.size()));
    if (bytes.empty()) throw damaged_at(file.path(), at, "the file ends here");
    file.write_at(at, bytes);
  }
  file.sync();
}

JournalWriter::JournalWriter(const std::string &path, const JournalName &name)
    : JournalWriter(make_file(path, make_head(name)), name, place_after_head(make_head(name))) {}

JournalWriter::JournalWriter(const std::string &path, const JournalName &name, const JournalPlace &place)
    : JournalWriter(open_file(path, place), name, place) {
  append_opened();
  has_groups_ = true;
}

JournalWriter::JournalWriter(File file, const JournalName &name, const JournalPlace &place)
    : file_(std::move(file)), name_(name), place_(place), marked_(place), durable_(place.position) {}

void JournalWriter::append(const Frame &frame, std::string_view body) {
  const FrameHead head = make_frame_head(name_, place_, frame, durable_, body);
  buffer_.assign(bytes_of(head)).append(body);
  file_.write_at(place_.position, buffer_);
  place_.crc32c = crc32c(buffer_.data(), buffer_.size(), place_.crc32c);
  place_.position += buffer_.size();
  ++place_.next_sequence;
}

uint64_t JournalWriter::reserved_bytes() const {
  if (!can_reserve_) return UINT64_MAX;
  return reserved_end_ > place_.position ? reserved_end_ - place_.position : 0;
}

uint64_t JournalWriter::reserve_space(uint64_t bytes) {
  if (reserved_bytes() >= bytes) return reserved_bytes();
  const uint64_t from = std::max(reserved_end_, place_.position);
  const uint64_t min_end = place_.position + bytes;
  uint64_t to = (min_end + RESERVE_BYTES - 1) / RESERVE_BYTES * RESERVE_BYTES;
  int error = file_.reserve(from, to - from);
  if (error == ENOSPC || error == EDQUOT || error == EFBIG) error = file_.reserve(from, (to = min_end) - from);
  can_reserve_ = error != EOPNOTSUPP && error != ENOSYS;
  if (!can_reserve_) return UINT64_MAX;
  if (error != 0) {
    errno = error;
    fail_file(path(), fmt::format("no space for {} bytes", bytes));
  }
  reserved_end_ = to;
  return reserved_bytes();
}

void JournalWriter::append_group(const Frame &frame, std::string_view body) {
  // A write into reserved space changes less metadata of the file, so the sync is shorter.
  reserve_space(sizeof(FrameHead) + body.size());
  append(frame, body);
  has_groups_ = true;
}

// Writes zeros after the last frame, which later groups replace. The sync of a group that replaces bytes of the disk
// changes no metadata. Otherwise it would wait for the file system's own journal, and so for other files that are
// written at the same time, such as those of a generation. Without the zeros nothing is wrong, so a failure is ignored.
void JournalWriter::write_zeros() {
  const uint64_t bytes = std::clamp(place_.position, MIN_ZERO_BYTES, MAX_ZERO_BYTES);
  file_.write_zeros(place_.position, bytes);
  zeros_end_ = place_.position + bytes;
}

void JournalWriter::sync_with(void (File::*method)() const) {
  try {
    (file_.*method)();
  } catch (const StoreError &) {
    is_lost_ |= durable_ < marked_.position;
    throw;
  }
}

void JournalWriter::sync() {
  if (place_.position > zeros_end_) write_zeros();
  sync_with(&File::sync_data);
  durable_ = place_.position;
}

void JournalWriter::mark() {
  marked_ = place_;
}

void JournalWriter::cut() {
  if (is_lost_) throw StoreError(TSLB_DURABLE_IO, path() + ": a sync failed", path());
  file_.truncate(marked_.position);
  sync_with(&File::sync);
  place_ = marked_;
  reserved_end_ = 0;
  can_reserve_ = true;
  zeros_end_ = 0;
}

void JournalWriter::append_opened() {
  append({FrameKind::opened}, {});
  sync_with(&File::sync);
  durable_ = place_.position;
  mark();
}

void JournalWriter::seal() {
  // Everything before the seal must be on the disk before the seal is.
  sync_with(&File::sync_data);
  append({FrameKind::sealed}, {});
  file_.truncate(place_.position);
  sync_with(&File::sync);
  durable_ = place_.position;
  mark();
}

}  // namespace tslb_durable
