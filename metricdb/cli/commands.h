// The commands of the program. main.cpp parses their arguments.
//
// Each command prints to standard output and returns the exit code. An exception ends the program with EXIT_ERROR. Then
// no database was changed, except by batches that `ingest` and `serve` had acknowledged.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/server_access.h"
#include "net/nats_options.h"
#include "store/forgetting.h"

namespace metricdb {

inline constexpr int EXIT_GOOD = 0;
inline constexpr int EXIT_ERROR = 1;
inline constexpr int EXIT_SOME_MALFORMED = 2;

inline constexpr int64_t NS_PER_S = 1'000'000'000;

struct LoadArguments {
  std::vector<std::string> files;
  std::string precision = "ns";
  std::string series_pattern;
  bool check = false;
  ForgettingChange forgetting;
  std::string db;  // empty: the arrays exist in this process only
};

struct CheckArguments {
  std::string db;
  std::vector<std::string> files;
  std::string precision = "ns";
};

struct SeriesArguments {
  std::string db;
  bool salvage = false;
  std::string pattern = "*";
};

struct QueryArguments {
  std::string db;
  ServerAccess server;    // in place of db
  std::string database;   // its name, with `server`
  std::string statement;  // InfluxQL, in place of a key and a function
  bool salvage = false;
  std::string key;
  std::string from, to;  // texts for time_text.h; empty: no limit
  std::string every;     // text for time_text.h; empty: the points themselves
  std::string fn = "mean";
  std::string format = "table";
};

struct RecordArguments {
  int seconds = 0;
  int interval_ms = 1000;
  std::string out;
  std::string host = "local";
};

// The common arguments of `ingest` and `serve`.
struct WriteArguments {
  std::string db;
  std::string sync = "batch";
  double snapshot_mb = 256;  // 0: snapshots only on request
  bool salvage = false;
  std::optional<int> layout;
  ForgettingChange forgetting;
};

struct IngestArguments {
  WriteArguments write;
  std::vector<std::string> files;
  std::string precision = "ns";
  uint64_t batch_lines = 5000;
  bool acks = false;
};

struct ReplicaArguments {  // as in ReplicaOptions
  std::string name, servers;
  std::string mode = "both";
  uint32_t n_copies = 1;
  double snapshot_mb = 256;
  bool leads = false;
};

struct ServeArguments {
  WriteArguments write;
  ReplicaArguments replica;
  std::string data;  // the folder of several databases, in place of write.db
  std::string graphite_database = "graphite";
  std::string address = "127.0.0.1";
  std::optional<int> influx_port;  // 0: any free port
  std::optional<int> graphite_port;
  std::string tls_certificate_file, tls_key_file, user_file;  // as in ServerOptions
  bool insecure = false;                                      // other machines can connect without TLS or users
  int64_t max_future_s = 600;
  size_t max_key_bytes = 1024;
  uint64_t max_new_series = 50'000;
  bool drop_strings = false;
  std::string backup_folder;  // empty: no backups
  NatsOptions nats;
  int nats_ack_wait_s = 60;
  std::string nats_password_file;  // with nats.user
};

struct BackupArguments {
  std::string db;
  ServerAccess server;   // in place of db
  std::string database;  // its name, with `server`
  std::string to;        // folder; with a server its name in the server's folder for backups
};

struct PromoteArguments {
  ServerAccess server;
};

struct RestoreArguments {
  std::string from;
  std::string db;
};

struct SnapshotArguments {
  std::string db;
  bool salvage = false;
  std::optional<int> layout;
};

struct VerifyArguments {  // also for `stat`
  std::string db;
  bool salvage = false;
};

int load(const LoadArguments &arguments);
int check(const CheckArguments &arguments);
int snapshot(const SnapshotArguments &arguments);
int ingest(const IngestArguments &arguments);
int serve(const ServeArguments &arguments);
int verify(const VerifyArguments &arguments);
int query(const QueryArguments &arguments);
int stat(const VerifyArguments &arguments);
int series(const SeriesArguments &arguments);
int export_points(const SeriesArguments &arguments);
int backup(const BackupArguments &arguments);
int promote(const PromoteArguments &arguments);
int restore(const RestoreArguments &arguments);
int record(const RecordArguments &arguments);

}  // namespace metricdb
