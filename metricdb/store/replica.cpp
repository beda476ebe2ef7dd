#include "store/replica.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "store/log.h"

#ifdef METRICDB_REPLICA
#include <tslb/replica.h>

#include "store/database.h"
#include "store/folder_sync.h"
#endif

namespace metricdb {

#ifdef METRICDB_REPLICA

const bool KNOWS_REPLICAS = true;

namespace {

constexpr std::chrono::milliseconds WATCHED_EVERY{250};
constexpr std::chrono::seconds LOGGED_EVERY{10};

tslb_replica_options_t options_of(const ReplicaOptions &options, const tslb_store_options_t &store) {
  tslb_replica_options_t chosen = {};
  chosen.servers = options.servers.c_str();
  chosen.name = options.name.c_str();
  chosen.mode = options.mode == ReplicaOptions::Mode::both    ? TSLB_REPLICA_BOTH
                : options.mode == ReplicaOptions::Mode::async ? TSLB_REPLICA_ASYNC
                                                              : TSLB_REPLICA_STREAM;
  chosen.n_copies = options.n_copies;
  chosen.patience_ms = options.patience_ms;
  chosen.store = store;
  return chosen;
}

[[noreturn]] void fail_replica(const tslb_error_t &error) {
  if (error.code == TSLB_DURABLE_REFUSED || error.code == TSLB_DURABLE_INVALID) throw ReplicaRefused(error.text);
  throw DatabaseError(error.text);
}

}  // namespace

Replica::Replica(const std::string &folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                 const tslb_store_options_t &store, const ReplicaOptions &options)
    : folder_(folder), options_(options) {
  const tslb_replica_options_t chosen = options_of(options, store);
  tslb_error_t error = {};
  replica_ = tslb_replica_open(folder.c_str(), arrays, n_arrays, &chosen, &error);
  if (replica_ == nullptr) throw DatabaseError(error.text);
  store_ = tslb_replica_store(replica_);
  watch_ = std::thread([this] { watch(); });
}

Replica::~Replica() {
  stop();
  tslb_replica_close(replica_, nullptr);
}

void Replica::stop() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
  }
  ending_.notify_all();
  if (watch_.joinable()) watch_.join();
  if (snapshots_.joinable()) snapshots_.join();
}

void Replica::close() {
  stop();
  tslb_error_t error = {};
  if (tslb_replica_close(std::exchange(replica_, nullptr), &error) != 0) throw DatabaseError(error.text);
}

// Returns false when the end begins.
bool Replica::rests(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex_);
  return !ending_.wait_for(lock, time, [this] { return is_ending_; });
}

// ---- Figures -------------------------------------------------------------------------------------------------------

ReplicaFigures Replica::asked() const {
  tslb_replica_info_t info;
  tslb_replica_get_info(replica_, &info);
  ReplicaFigures figures;
  figures.name = options_.name;
  figures.role = info.role == TSLB_REPLICA_FOLLOWER ? ReplicaFigures::Role::follower
                 : info.role == TSLB_REPLICA_LEADER ? ReplicaFigures::Role::leader
                                                    : ReplicaFigures::Role::ended;
  figures.epoch = info.position.epoch;
  figures.number = info.position.number;
  figures.lag = info.lag;
  figures.lag_s = info.lag_s;
  figures.text = info.text;
  figures.n_bootstraps = info.n_bootstraps;
  figures.n_set_aside = info.n_set_aside;
  figures.set_aside = info.set_aside;
  return figures;
}

ReplicaFigures Replica::figures(bool now) const {
  if (now) {
    ReplicaFigures fresh = asked();
    const std::lock_guard lock(mutex_);
    fresh.n_snapshots = figures_.n_snapshots;
    fresh.snapshot_failure = figures_.snapshot_failure;
    fresh.log_bytes = figures_.log_bytes;
    figures_ = std::move(fresh);
    return figures_;
  }
  const std::lock_guard lock(mutex_);
  return figures_;
}

// What a follower waits for is logged when it changes, and not each time that it comes and goes.
void Replica::watch() {
  std::string logged;
  auto next = std::chrono::steady_clock::now();
  do {
    const ReplicaFigures now = figures(true);
    if (now.text.empty() || now.text == logged || std::chrono::steady_clock::now() < next) continue;
    logged = now.text;
    next = std::chrono::steady_clock::now() + LOGGED_EVERY;
    TSLB_DLOG(LOG_REFUSALS, "replica %s: %s", options_.name.c_str(), logged.c_str());
  } while (rests(WATCHED_EVERY));
}

// ---- Leading -------------------------------------------------------------------------------------------------------

void Replica::promote(bool unless_led) {
  tslb_error_t error = {};
  const int result =
      unless_led ? tslb_replica_promote_after(replica_, led_epoch(), &error) : tslb_replica_promote(replica_, &error);
  if (result != 0) fail_replica(error);
  remember_epoch(figures(true).epoch);
}

// 0: none.
uint64_t Replica::led_epoch() const {
  uint64_t epoch = 0;
  std::ifstream(folder_ + "/led_epoch") >> epoch;
  return epoch;
}

// If it fails, the replica leads all the same, but not at once when it is started again.
void Replica::remember_epoch(uint64_t epoch) const {
  const std::string path = folder_ + "/led_epoch", fresh = path + ".new";
  const std::string text = fmt::format("{}\n", epoch);
  const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool is_written =
      fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
  if (fd >= 0) is_written &= ::close(fd) == 0;
  is_written = is_written && std::rename(fresh.c_str(), path.c_str()) == 0;
  try {
    if (is_written) return sync_folder(folder_);
  } catch (const DatabaseError &) {
  }
  TSLB_DLOG(LOG_REFUSALS, "%s: cannot be written; this replica does not lead by itself when it is started again",
            path.c_str());
}

void Replica::begin_snapshots() {
  if (options_.snapshot_bytes != 0 && !snapshots_.joinable()) snapshots_ = std::thread([this] { publish_snapshots(); });
}

void Replica::publish_snapshots() {
  TSLB_DLOG_THREAD_NAME("snapshots");
  uint64_t snapshot_bytes = 0;
  do {
    std::string failure;
    try {
      publish_if_long(snapshot_bytes);
    } catch (const DatabaseError &error) {
      failure = error.what();
    }
    const std::lock_guard lock(mutex_);
    if (!failure.empty() && failure != figures_.snapshot_failure)
      TSLB_DLOG(LOG_REFUSALS, "no snapshot for followers: %s", failure.c_str());
    figures_.snapshot_failure = failure;
  } while (rests(options_.asked_every));
}

// A snapshot costs as much as the database is large. So the log may have as many bytes.
void Replica::publish_if_long(uint64_t &snapshot_bytes) {
  tslb_error_t error = {};
  uint64_t log_bytes = 0;
  if (tslb_replica_get_log_bytes(replica_, &log_bytes, &error) != 0) fail_replica(error);
  {
    const std::lock_guard lock(mutex_);
    figures_.log_bytes = log_bytes;
    if (figures_.role != ReplicaFigures::Role::leader) return;
  }
  if (log_bytes < std::max(options_.snapshot_bytes, snapshot_bytes)) return;
  if (tslb_replica_publish_snapshot(replica_, 1, &error) != 0) fail_replica(error);
  tslb_store_info_t info;
  tslb_store_get_info(store_, &info);
  snapshot_bytes = generation_info(folder_, info.generation).bytes();
  const std::lock_guard lock(mutex_);
  ++figures_.n_snapshots;
  TSLB_DLOG(LOG_PROGRESS, "a snapshot for followers was published, and the log of %llu bytes was cut",
            static_cast<unsigned long long>(log_bytes));
}

#else

const bool KNOWS_REPLICAS = false;

Replica::Replica(const std::string &folder, const tslb_array_decl_t *, uint32_t, const tslb_store_options_t &,
                 const ReplicaOptions &)
    : folder_(folder) {
  throw DatabaseError("this metricdb was built without replicas");
}

// No object exists.
Replica::~Replica() = default;
ReplicaFigures Replica::figures(bool) const {
  return {};
}
void Replica::promote(bool) {}
void Replica::begin_snapshots() {}
void Replica::close() {}

#endif

}  // namespace metricdb
