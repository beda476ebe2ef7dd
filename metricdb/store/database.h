// A database in a folder: a store of series (store.h) whose arrays are those of a durable store (tslb/durable.h), which
// keeps them. Each batch has configuration and figures as its payload (figures.h).
//
// One process writes at a time. Any number of processes read. A reader has the last durable state, in its own memory.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "store/durable_arrays.h"
#include "store/ingest.h"
#include "store/store.h"

namespace metricdb {

// The files of one array in a generation.
struct ArrayFiles {
  uint64_t bytes = 0;
  uint64_t allocated_bytes = 0;  // on the disk; fewer if a file has holes
};

// A generation on the disk.
struct GenerationInfo {
  uint64_t number = 0;
  std::array<ArrayFiles, N_ARRAYS> arrays;  // in the order of ARRAY_NAMES
  uint64_t manifest_bytes = 0;

  uint64_t bytes() const;
  uint64_t allocated_bytes() const;  // without the manifest
};

// Returns the sizes of the files of a generation. Throws DatabaseError.
GenerationInfo generation_info(const std::string &folder, uint64_t number);

struct OpenOptions {
  // Uses what precedes damage. If the newest generation is damaged, uses an older one with the following journals, if it
  // still exists.
  bool salvage = false;
  // Converts the catalogue to this layout, which may not be newer than that of the database. In memory: the next
  // generation is written with it.
  std::optional<uint8_t> layout = {};
};

// A database in memory.
class OpenDatabase {
 public:
  enum class Use {
    read,  // of an existing folder; changes nothing
    load,  // changes become durable by write(), all together; creates a missing folder
  };

  // Opens a database, and checks everything: files and groups against their checksums, arrays against the rules of the
  // library, and the store against itself. Throws DatabaseError.
  //
  // config  of a database that is created. Without it there must be one.
  explicit OpenDatabase(const std::string &folder, const OpenOptions &options = {}, Use use = Use::read,
                        const std::optional<StoreConfig> &config = {});

  const std::string &folder() const { return folder_; }
  Store &store() { return *store_; }
  const Store &store() const { return *store_; }
  uint64_t generation() const { return generation_; }
  uint64_t n_batches() const { return n_batches_; }  // in the journals since the generation
  // What was remarkable, one line; empty if nothing was.
  const std::string &warnings() const { return warnings_; }

  // With Use::load: writes a generation with the current content, and closes the database. Throws DatabaseError.
  GenerationInfo write();

 private:
  std::string folder_;
  DurableArrays durable_;
  std::optional<Store> store_;
  uint64_t generation_ = 0;
  uint64_t n_batches_ = 0;
  std::string warnings_;
};

// Restores the store of durable arrays from their payload. Throws DatabaseError. `new_config` is for arrays that were
// never written.
Store store_of(const std::string &folder, const DurableArrays &durable, const StoreConfig &new_config);

// The figures of a store and of its durable arrays, which nobody changes meanwhile.
IngestFigures figures_of(const Store &store, const tslb_store_info_t &info);

// Returns the parameters with which a database is opened. Throws DatabaseError if the layout cannot be.
ArrayParameters parameters_of(const std::string &folder, const std::optional<uint8_t> &layout,
                              const std::optional<StoreConfig> &new_config);

}  // namespace metricdb
