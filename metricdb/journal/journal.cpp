#include "journal/journal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace metricdb {
namespace {

JournalPlace place_after_mark(JournalPlace place) {
  return {place.generation, place.position + sizeof(MarkHead), place.next_sequence + 1};
}

std::string mark_at(JournalPlace place, EntryKind kind) {
  std::string mark;
  add_mark(mark, place, kind, place.position, {});
  return mark;
}

// The file is written under a temporary name first, so a file with the final name always has a complete head.
File make_file(const std::string &path, uint64_t generation) {
  if (access(path.c_str(), F_OK) == 0) throw FileError(path + ": already exists");
  const std::string temporary = path + ".new";
  remove_file(temporary);
  {
    const File file = File::create(temporary);
    const JournalHead head = make_head(generation);
    file.write(std::string(reinterpret_cast<const char *>(&head), sizeof head) +
               mark_at(place_after_head(generation), EntryKind::opened));
    file.sync();
  }
  rename_file(temporary, path);
  File::folder(folder_of(path)).sync();
  return File::open_to_write(path);
}

// The truncation is synced before the mark is written. Otherwise removed bytes could reappear after the mark.
File open_file(const std::string &path, const JournalPlace &place) {
  File file = File::open_to_write(path);
  file.truncate(place.position);
  file.sync();
  file.write_at(place.position, mark_at(place, EntryKind::opened));
  file.sync_data();
  return file;
}

}  // namespace

// ---- Creating and closing -------------------------------------------------------------------------------------------

Journal::Journal(const std::string &path, uint64_t generation, Sync sync)
    : Journal(make_file(path, generation), place_after_mark(place_after_head(generation)), sync) {}

Journal::Journal(const std::string &path, const JournalPlace &place, Sync sync)
    : Journal(open_file(path, place), place_after_mark(place), sync) {}

Journal::Journal(File file, const JournalPlace &place, Sync sync)
    : file_(std::move(file)),
      event_(File::event()),
      sync_(sync),
      next_(place),
      settled_place_(place),
      durable_(place.position),
      writer_([this] { run(); }) {}

Journal::~Journal() {
  try {
    close();
  } catch (const FileError &) {
    // All settled batches are in the file; only the last mark is missing.
  }
}

void Journal::close() {
  {
    const std::lock_guard guard(mutex_);
    if (closed_) return;
    closed_ = true;
  }
  work_.notify_one();
  writer_.join();
  if (broken_) throw FileError(failed_);
  const uint64_t at = settled_place_.position;
  // Everything before the mark must be on the disk before the mark is.
  if (durable_ < at) file_.sync_data();
  try {
    file_.write_at(at, mark_at(settled_place_, EntryKind::closed));
  } catch (const FileError &) {
    file_.truncate(at);
    throw;
  }
  file_.truncate(place_after_mark(settled_place_).position);
  file_.sync();
}

// ---- Batches -------------------------------------------------------------------------------------------------------

void Journal::append(const redo_args_t &record) noexcept {
  const std::lock_guard guard(mutex_);
  if (closed_ || !failed_.empty() || !batch_failure_.empty()) return;
  // These texts fit a std::string without allocation.
  if (record.ctx_name_len > MAX_NAME_BYTES || record.data_sz > MAX_DATA_BYTES) {
    batch_failure_ = "record too long";
    return;
  }
  const size_t bytes_before = batch_.size();
  try {
    add_redo(batch_, next_, record);
  } catch (const std::bad_alloc &) {
    batch_.resize(bytes_before);
    batch_failure_ = "no memory";
  }
}

uint64_t Journal::commit(std::string_view payload) {
  if (payload.size() > MAX_PAYLOAD_BYTES) throw std::length_error("the payload of a commit mark is too long");
  std::unique_lock lock(mutex_);
  settled_moved_.wait(lock, [this] { return unsettled_bytes_ <= MAX_UNSETTLED_BYTES || !failed_.empty(); });
  reserve_memory(payload.size());
  const uint64_t ticket = ++last_ticket_;
  if (failed_.empty()) {
    enqueue(ticket, payload);
    lock.unlock();
    work_.notify_one();
  } else {
    add_refused(ticket, failed_);
    set_settled(ticket);
  }
  return ticket;
}

// Allocates everything before the first change, so that a commit that throws std::bad_alloc can be repeated.
void Journal::reserve_memory(size_t payload_bytes) {
  const size_t batch_bytes = batch_.size() + sizeof(MarkHead) + payload_bytes;
  batch_.reserve(batch_bytes);
  if (!queue_.bytes.empty()) queue_.bytes.reserve(queue_.bytes.size() + batch_bytes);
  if (queue_.batches.size() == queue_.batches.capacity()) queue_.batches.reserve(2 * queue_.batches.size() + 1);
  if (refused_.size() == refused_.capacity()) refused_.reserve(2 * refused_.size() + 1);
}

void Journal::enqueue(uint64_t ticket, std::string_view payload) {
  add_mark(batch_, next_, EntryKind::commit, durable_, payload);
  queue_.batches.push_back({ticket, batch_.size(), next_, std::exchange(batch_failure_, {})});
  unsettled_bytes_ += batch_.size();
  if (queue_.bytes.empty())
    std::swap(queue_.bytes, batch_);
  else
    queue_.bytes += batch_;
  batch_.clear();
}

uint64_t Journal::settled() const {
  const std::lock_guard guard(mutex_);
  return settled_;
}

std::string Journal::failure(uint64_t ticket) const {
  const std::lock_guard guard(mutex_);
  const auto next = std::upper_bound(refused_.begin(), refused_.end(), ticket,
                                     [](uint64_t value, const RefusedRange &range) { return value < range.first; });
  if (next == refused_.begin() || std::prev(next)->last < ticket) return {};
  return std::prev(next)->reason;
}

void Journal::wait(uint64_t ticket) const {
  std::unique_lock lock(mutex_);
  settled_moved_.wait(lock, [this, ticket] { return settled_ >= ticket; });
}

uint64_t Journal::end() const {
  const std::lock_guard guard(mutex_);
  return next_.position;
}

uint64_t Journal::settled_end() const {
  const std::lock_guard guard(mutex_);
  return settled_place_.position;
}

// ---- Failure -------------------------------------------------------------------------------------------------------

bool Journal::is_failed() const {
  const std::lock_guard guard(mutex_);
  return !failed_.empty();
}

bool Journal::is_broken() const {
  const std::lock_guard guard(mutex_);
  return broken_;
}

void Journal::restart() {
  const std::lock_guard guard(mutex_);
  if (broken_) throw FileError(failed_);
  if (failed_.empty()) return;
  batch_.clear();
  batch_failure_.clear();
  failed_.clear();
  next_ = settled_place_;
  // The mark shifts the following entries. So a reader that has read a part of the refused entries cannot combine them
  // with the new ones.
  add_mark(batch_, next_, EntryKind::opened, durable_, {});
}

bool Journal::reserve(uint64_t bytes, std::string *why) {
  uint64_t from, min_end, n_cuts;
  {
    const std::lock_guard guard(mutex_);
    if (!failed_.empty()) {
      if (why != nullptr) *why = failed_;
      return false;
    }
    min_end = next_.position + bytes;
    if (min_end <= reserved_end_) return true;
    from = std::max(reserved_end_, settled_place_.position);
    n_cuts = n_cuts_;
  }
  // Without the lock, so that append does not wait for the file system.
  uint64_t to = (min_end + RESERVE_BYTES - 1) / RESERVE_BYTES * RESERVE_BYTES;
  int error = file_.reserve(from, to - from);
  if (error == ENOSPC || error == EDQUOT || error == EFBIG) error = file_.reserve(from, (to = min_end) - from);
  if (error == EOPNOTSUPP || error == ENOSYS) return true;
  if (error != 0) {
    if (why != nullptr) *why = fmt::format("{}: no space for {} bytes: {}", path(), bytes, std::strerror(error));
    return false;
  }
  const std::lock_guard guard(mutex_);
  if (n_cuts == n_cuts_) reserved_end_ = std::max(reserved_end_, to);
  return true;
}

// ---- The writer ----------------------------------------------------------------------------------------------------

void Journal::run() {
  Queue current;
  std::unique_lock lock(mutex_);
  for (;;) {
    work_.wait(lock, [this] { return closed_ || !queue_.batches.empty(); });
    if (queue_.batches.empty()) return;
    std::swap(current, queue_);
    const uint64_t at = settled_place_.position;
    lock.unlock();
    write_queue(current, at);
    current.bytes.clear();
    current.batches.clear();
    lock.lock();
  }
}

bool Journal::write_queue(const Queue &queue, uint64_t at) {
  std::string_view rest = queue.bytes;
  for (size_t first = 0; first < queue.batches.size();) {
    if (const Batch &batch = queue.batches[first]; !batch.failure.empty())
      return cut_and_refuse(at, batch.ticket, fmt::format("{}: {}", path(), batch.failure));
    size_t end = first, bytes = 0;
    do {
      bytes += queue.batches[end++].bytes;
    } while (end < queue.batches.size() && queue.batches[end].failure.empty() && sync_ != Sync::always);
    if (!write_batches(rest.substr(0, bytes), at, queue.batches[first].ticket)) return false;
    settle(queue.batches[end - 1], bytes);
    rest.remove_prefix(bytes);
    at += bytes;
    first = end;
  }
  return true;
}

bool Journal::write_batches(std::string_view bytes, uint64_t at, uint64_t first_ticket) {
  try {
    file_.write_at(at, bytes);
  } catch (const FileError &error) {
    return cut_and_refuse(at, first_ticket, error.what());
  }
  try {
    if (sync_ != Sync::none) file_.sync_data();
  } catch (const FileError &error) {
    refuse(first_ticket, error.what(), true);
    return false;
  }
  return true;
}

// The truncation is synced before the refusal is reported. Otherwise a crash could restore a refused batch.
bool Journal::cut_and_refuse(uint64_t at, uint64_t first_ticket, const std::string &reason) {
  try {
    file_.truncate(at);
    file_.sync();
    refuse(first_ticket, reason, false);
  } catch (const FileError &error) {
    refuse(first_ticket, fmt::format("{}; {}", reason, error.what()), true);
  }
  return false;
}

void Journal::refuse(uint64_t first_ticket, const std::string &reason, bool for_good) {
  const std::lock_guard guard(mutex_);
  failed_ = reason;
  broken_ = for_good;
  queue_ = {};
  unsettled_bytes_ = 0;
  reserved_end_ = 0;
  ++n_cuts_;
  add_refused(first_ticket, reason);
  set_settled(last_ticket_);
}

void Journal::settle(const Batch &last, size_t bytes) {
  const std::lock_guard guard(mutex_);
  settled_place_ = last.next;
  if (sync_ != Sync::none) durable_ = last.next.position;
  unsettled_bytes_ -= bytes;
  set_settled(last.ticket);
}

// Adds all tickets from `first_ticket` on. Consecutive tickets with the same reason are one range.
void Journal::add_refused(uint64_t first_ticket, const std::string &reason) {
  if (!refused_.empty() && refused_.back().last + 1 == first_ticket && refused_.back().reason == reason)
    refused_.back().last = last_ticket_;
  else
    refused_.push_back({first_ticket, last_ticket_, reason});
}

void Journal::set_settled(uint64_t ticket) {
  settled_ = ticket;
  settled_moved_.notify_all();
  const uint64_t one = 1;
  // Fails only if the counter is at its maximum, and then the event is readable.
  [[maybe_unused]] const ssize_t ignored = write(event_.fd(), &one, sizeof one);
}

}  // namespace metricdb
