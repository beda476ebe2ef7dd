// A replica of a database (tslb/replica.h): its store, its part, and the snapshots that it publishes while it leads.
//
// A replica is opened as a follower. It leads after `promote`, and ends when another one does. In the folder of the store the
// file `led_epoch` has the last epoch that this replica has begun: a leader that is started again leads at once if no other
// has led since.
//
// Threads: any, except for `close`.
#pragma once

#include <tslb/durable.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "store/database_error.h"
#include "store/ingest.h"

// Of tslb/replica.h, which a build without replicas lacks.
struct tslb_replica_t;

namespace metricdb {

// Whether the program was built with libnats.
extern const bool KNOWS_REPLICAS;

struct ReplicaOptions {
  std::string name = {};     // of the log
  std::string servers = {};  // URLs with commas between them
  enum class Mode { both, async, stream } mode = Mode::both;
  uint32_t n_copies = 1;  // of a log that is created
  bool leads = false;     // leads from the opening on, unless another has led since it did
  uint64_t snapshot_bytes =
      256ull << 20;          // of the log, or as many as the last snapshot has if these are more; 0: never
  uint32_t patience_ms = 0;  // as in tslb/replica.h
  std::chrono::milliseconds heartbeat{10'000};    // a leader without points writes an empty batch after this time
  std::chrono::milliseconds asked_every{10'000};  // a leader asks for the size of the log
};

// Another replica leads, or this one cannot.
class ReplicaRefused : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

class Replica {
 public:
  // Opens a store that exists. `store.log` is ignored. Throws DatabaseError; also in a program without replicas.
  Replica(const std::string &folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
          const tslb_store_options_t &store, const ReplicaOptions &options);
  ~Replica();
  Replica(const Replica &) = delete;
  Replica &operator=(const Replica &) = delete;

  tslb_store_t *store() const { return store_; }
  const std::string &name() const { return options_.name; }

  // At most a quarter of a second old, so it never waits for a snapshot that is taken over. With `now` it can.
  ReplicaFigures figures(bool now = false) const;

  // Applies the rest of the log, and begins the next epoch. Throws ReplicaRefused if another replica leads, and DatabaseError
  // if the log does not answer. One at a time.
  //
  // unless_led  refuses it if another replica has led since this one.
  void promote(bool unless_led);
  // From here on snapshots are published.
  void begin_snapshots();

  // Throws DatabaseError; the store is closed all the same.
  void close();

 private:
  void watch();
  void publish_snapshots();
  void publish_if_long(uint64_t &snapshot_bytes);
  ReplicaFigures asked() const;
  uint64_t led_epoch() const;
  void remember_epoch(uint64_t epoch) const;
  bool rests(std::chrono::milliseconds time);
  void stop();

  const std::string folder_;
  const ReplicaOptions options_;
  tslb_replica_t *replica_ = nullptr;
  tslb_store_t *store_ = nullptr;
  mutable std::mutex mutex_;  // guards the following members
  std::condition_variable ending_;
  bool is_ending_ = false;
  mutable ReplicaFigures figures_;
  std::thread watch_, snapshots_;
};

}  // namespace metricdb
