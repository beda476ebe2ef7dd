// Loads the arrays of a store from its folder: the generation, and the groups of the journals since it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "journal_reader.h"
#include "store_files.h"
#include "stored_array.h"

namespace tslb_durable {

// A journal that was read.
struct LoadedJournal {
  JournalPlace end;
  bool ends_with_seal;  // and nothing follows it
};

struct LoadedStore {
  StoreState state;
  uint64_t generation = 0;  // that was loaded; with salvage it can be older than that of the state
  Manifest manifest;
  std::vector<Array> arrays;  // in the order of the manifest
  std::vector<uint8_t> payload;
  bool has_payload = false;
  tslb_log_position_t position = {};

  std::vector<LoadedJournal> journals;  // since the generation
  bool is_sealed = false;               // the last writer ended orderly
  uint64_t journal_bytes = 0;           // of all journals that were read
  uint64_t n_batches = 0;               // in them
  uint64_t cut_bytes = 0;
  bool is_damaged = false;   // a part was lost by damage, or read from an older generation
  bool is_salvaged = false;  // the arrays are not what generation and journals of the state would give
  std::string warning;

  void warn(std::string_view text) { warning.append(warning.empty() ? "" : "; ").append(text); }
};

struct LoadOptions {
  bool salvage = false;
  std::function<void(uint64_t done_bytes, uint64_t all_bytes)> progress;
  // Called with each group that has a position, before it is applied. False: it and all later groups are left out.
  std::function<bool(std::string_view body, const tslb_log_position_t &position)> keeps;
};

// Returns the manifest of the generation of a store. Throws StoreError, as load_store does.
Manifest read_newest_manifest(const std::string &folder);

// Throws StoreError. A reader that runs beside a writer is tried again if the writer replaced files meanwhile.
LoadedStore load_store(const std::string &folder, const LoadOptions &options);

}  // namespace tslb_durable
