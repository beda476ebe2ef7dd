#include "store/database_set.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "codec/printable.h"
#include "store/folder_sync.h"
#include "store/log.h"

namespace metricdb {
namespace {

namespace fs = std::filesystem;

constexpr size_t MAX_NAME_BYTES = 128;
// Names that no database has.
constexpr std::string_view NEW_PREFIX = ".new-", DROPPED_PREFIX = ".dropped-";

bool is_database_name(std::string_view name) {
  const auto is_good = [](char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '_' || byte == '.';
  };
  return !name.empty() && name.size() <= MAX_NAME_BYTES && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), is_good);
}

[[noreturn]] void fail(const std::string &path) {
  const int error = errno;
  throw DatabaseError(fmt::format("{}: {}", path, std::strerror(error)));
}

// Errors are not important: what is left has a name that no database has, and is removed by the next start.
void remove_quietly(const std::string &path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

}  // namespace

DatabaseSet::DatabaseSet(const std::string &folder, const WriterOptions &options)
    : folder_(folder),
      options_(options),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      events_(epoll_create1(EPOLL_CLOEXEC)) {
  try {
    epoll_event event = {};
    event.events = EPOLLIN;
    if (wake_ < 0 || events_ < 0 || epoll_ctl(events_, EPOLL_CTL_ADD, wake_, &event) != 0) fail(folder_);
    lock_folder();
    open_all();
  } catch (...) {
    for (const int fd : {lock_, events_, wake_}) ::close(fd);
    throw;
  }
}

DatabaseSet::~DatabaseSet() {
  batches_.clear();
  members_.clear();
  dropped_.clear();
  for (const int fd : {lock_, events_, wake_}) ::close(fd);
}

void DatabaseSet::lock_folder() {
  std::error_code error;
  fs::create_directories(folder_, error);
  if (error) throw DatabaseError(fmt::format("{}: {}", folder_, error.message()));
  if (stored_parameters(folder_)) throw DatabaseError(folder_ + ": is a database, not a folder of databases");
  const std::string path = path_of(".lock");
  lock_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock_ < 0) fail(path);
  if (flock(lock_, LOCK_EX | LOCK_NB) != 0)
    throw DatabaseError(folder_ + ": another process writes to these databases");
}

void DatabaseSet::open_all() {
  std::vector<std::string> names;
  for (const auto &entry : fs::directory_iterator(folder_)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(NEW_PREFIX) || name.starts_with(DROPPED_PREFIX)) {
      remove_quietly(entry.path());
    } else if (name[0] != '.' && name != "lost+found") {
      if (!is_database_name(name) || !entry.is_directory())
        throw DatabaseError(fmt::format("{}: {}: is not a database", folder_, printable(name)));
      if (!stored_parameters(entry.path())) throw DatabaseError(entry.path().string() + ": holds no database");
      names.push_back(name);
    }
  }
  WriterOptions existing = options_;
  existing.forgetting.retain_ns.reset();
  std::sort(names.begin(), names.end());
  for (const std::string &name : names) add(name, existing);
}

void DatabaseSet::add(const std::string &name, const WriterOptions &options) {
  auto member = std::make_shared<Member>();
  member->name = name;
  member->writer = std::make_shared<DatabaseWriter>(path_of(name), options);
  if (const std::string &warnings = member->writer->warnings(); !warnings.empty() && warnings_.empty())
    warnings_ = warnings;
  epoll_event event = {};
  event.events = EPOLLIN;
  if (epoll_ctl(events_, EPOLL_CTL_ADD, member->writer->settled_fd(), &event) != 0) fail(path_of(name));
  const std::lock_guard lock(mutex_);
  members_.emplace(name, std::move(member));
}

void DatabaseSet::wake() const {
  const uint64_t one = 1;
  // Fails only if the counter is at its maximum, and then the event is readable.
  [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
}

// Those that are dropped included.
DatabaseSet::Members DatabaseSet::members() const {
  const std::lock_guard lock(mutex_);
  Members all = dropped_;
  for (const auto &[name, member] : members_) all.push_back(member);
  return all;
}

// ---- Ingest ----

IngestResult DatabaseSet::take(std::string_view, Precision) {
  throw IngestRefused("database is required");
}

IngestResult DatabaseSet::take_for(const std::string &database, std::string_view text, Precision precision) {
  std::shared_ptr<Member> member;
  {
    const std::lock_guard lock(mutex_);
    const auto found = members_.find(database);
    if (found != members_.end()) member = found->second;
  }
  if (!member) throw IngestRefused(fmt::format("database not found: \"{}\"", printable(database)));
  return member->writer->take(text, precision);
}

uint64_t DatabaseSet::commit() {
  Batch batch = {last_ticket_ + 1, {}};
  for (const auto &member : members()) {
    const uint64_t ticket = member->writer->commit();
    if (std::exchange(member->last_ticket, ticket) != ticket) batch.parts.push_back({member, ticket});
  }
  if (batch.parts.empty()) return last_ticket_;
  batches_.push_back(std::move(batch));
  return ++last_ticket_;
}

uint64_t DatabaseSet::settled() {
  uint64_t n_events;
  [[maybe_unused]] const ssize_t got = read(wake_, &n_events, sizeof n_events);
  std::map<const Member *, uint64_t> settled;
  for (const auto &member : members()) settled[member.get()] = member->writer->settled();
  while (!batches_.empty()) {
    const Batch &batch = batches_.front();
    const bool is_settled = std::all_of(batch.parts.begin(), batch.parts.end(),
                                        [&](const Part &part) { return settled[part.member.get()] >= part.ticket; });
    if (!is_settled) break;
    for (const Part &part : batch.parts)
      if (std::string reason = part.member->writer->failure(part.ticket); !reason.empty())
        lost_[batch.ticket].emplace_back(part.member->name, std::move(reason));
    batches_.pop_front();
  }
  return batches_.empty() ? last_ticket_ : batches_.front().ticket - 1;
}

DatabaseSet::Lost DatabaseSet::lost(uint64_t ticket) {
  const auto found = lost_.find(ticket);
  if (found == lost_.end()) return {};
  Lost lost = std::move(found->second);
  lost_.erase(found);
  return lost;
}

std::string DatabaseSet::failure(uint64_t ticket) {
  const Lost all = lost(ticket);
  return all.empty() ? "" : all.front().second;
}

// Changes of databases that are being dropped wait: if a drop is interrupted, they are made.
bool DatabaseSet::work() {
  release_dropped();
  Members kept;
  {
    const std::lock_guard lock(mutex_);
    for (const auto &[name, member] : members_) kept.push_back(member);
  }
  bool has_more = false;
  for (const auto &member : kept) has_more |= member->writer->work();
  return has_more;
}

std::vector<std::pair<std::string, IngestFigures>> DatabaseSet::figures_of_all() {
  std::vector<std::pair<std::string, IngestFigures>> all;
  for (const auto &member : members()) all.emplace_back(member->name, member->writer->figures());
  return all;
}

std::string DatabaseSet::why_not_writable() {
  for (const auto &member : members())
    if (const std::string why = member->writer->why_not_writable(); !why.empty()) return member->name + ": " + why;
  return "";
}

std::string DatabaseSet::close() {
  std::string failed;
  for (const auto &member : members()) {
    const std::string why = member->writer->wait(member->writer->commit());
    if (failed.empty()) failed = why;
    member->writer->close();
  }
  return failed;
}

// ---- Creating and dropping ----

std::vector<std::string> DatabaseSet::names() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto &[name, member] : members_) names.push_back(name);
  return names;
}

std::shared_ptr<DatabaseWriter> DatabaseSet::find(const std::string &name) const {
  const std::lock_guard lock(mutex_);
  const auto found = members_.find(name);
  return found == members_.end() ? nullptr : found->second->writer;
}

void DatabaseSet::create(const std::string &name, std::optional<int64_t> retain_ns) {
  if (!is_database_name(name))
    throw DatabaseError(
        fmt::format("invalid database name \"{}\": 1 to 128 letters, digits, - _ and . (not first)", printable(name)));
  const std::lock_guard alone(changing_);
  if (find(name)) return;
  WriterOptions options = options_;
  if (retain_ns) options.forgetting.retain_ns = retain_ns;
  const std::string fresh = path_of(std::string(NEW_PREFIX) + name);
  remove_quietly(fresh);
  { const DatabaseWriter created(fresh, options); }
  if (rename(fresh.c_str(), path_of(name).c_str()) != 0) fail(fresh);
  try {
    sync_folder(folder_);
    add(name, options);
  } catch (...) {
    // Otherwise the name could not be used until the next start.
    remove_folder(name);
    throw;
  }
  wake();
  TSLB_DLOG(LOG_PROGRESS, "%s: created", path_of(name).c_str());
}

void DatabaseSet::remove_folder(const std::string &name) const {
  const std::string dropped = path_of(std::string(DROPPED_PREFIX) + name);
  remove_quietly(dropped);
  if (rename(path_of(name).c_str(), dropped.c_str()) != 0) fail(path_of(name));
  sync_folder(folder_);
  remove_quietly(dropped);
}

// The thread of the Ingest. Whether a batch is open in the member, which only this thread can end, or batches refer to it.
bool DatabaseSet::is_in_use(const Member &member) const {
  return member.writer->has_open_batch() || std::any_of(batches_.begin(), batches_.end(), [&](const Batch &batch) {
           return std::any_of(batch.parts.begin(), batch.parts.end(),
                              [&](const Part &part) { return part.member.get() == &member; });
         });
}

void DatabaseSet::release_dropped() {
  const std::lock_guard lock(mutex_);
  std::erase_if(dropped_, [&](const std::shared_ptr<Member> &member) {
    if (is_in_use(*member)) return false;
    member->writer->end_changes("the database is dropped");
    epoll_ctl(events_, EPOLL_CTL_DEL, member->writer->settled_fd(), nullptr);
    member->is_released = true;
    released_.notify_all();
    return true;
  });
}

void DatabaseSet::drop(const std::string &name, const std::function<bool()> &is_interrupted) {
  constexpr std::chrono::milliseconds ASKED_EVERY{20};
  const std::lock_guard alone(changing_);
  std::unique_lock lock(mutex_);
  const auto found = members_.find(name);
  if (found == members_.end()) return;
  std::shared_ptr<Member> member = found->second;
  dropped_.push_back(member);
  members_.erase(found);
  wake();
  while (!member->is_released) {
    released_.wait_for(lock, ASKED_EVERY);
    if (member->is_released || !is_interrupted || !is_interrupted()) continue;
    std::erase(dropped_, member);
    members_.emplace(name, member);
    wake();
    throw DatabaseError("interrupted; the database is not dropped");
  }
  // Readers end, because they are interrupted after some time.
  while (member.use_count() > 1 || member->writer.use_count() > 1) released_.wait_for(lock, ASKED_EVERY);
  lock.unlock();
  member.reset();
  remove_folder(name);
  TSLB_DLOG(LOG_PROGRESS, "%s: dropped", path_of(name).c_str());
}

}  // namespace metricdb
