// What the program does, command by command; main.cpp reads the command line for it.
//
// Each returns the program's exit code, prints to standard output, and throws what makes the program end with
// EXIT_ERROR: then no database was changed, but by what `ingest` and `serve` had acknowledged before.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
  std::string db;     // empty: the arrays are gone with the process
  std::string store;  // empty, `snapshot` or `shm`
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
  bool salvage = false;
  std::string key;
  std::string from, to;  // as time_text.h reads them; empty: no limit
  std::string every;     // likewise; empty: the points themselves
  std::string fn = "mean";
  std::string format = "table";
};

struct RecordArguments {
  int seconds = 0;
  int interval_ms = 1000;
  std::string out;
  std::string host = "local";
};

// Of a database that is written to while it is open: what `ingest` and `serve` have in common.
struct WriteArguments {
  std::string db;
  std::string sync = "batch";
  uint64_t snapshot_mb = 256;  // 0: no snapshot but those asked for
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

struct ServeArguments {
  WriteArguments write;
  std::string address = "127.0.0.1";
  std::optional<int> influx_port;  // 0: any that is free
  std::optional<int> graphite_port;
};

struct SnapshotArguments {
  std::string db;
  bool salvage = false;
  std::optional<int> layout;
};

struct VerifyArguments {  // of `stat` too
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
int record(const RecordArguments &arguments);

}  // namespace metricdb
