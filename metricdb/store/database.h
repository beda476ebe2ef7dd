// A database in a folder: the content of a store on the disk.
//
//   DIR/generation.7/            one whole state of the database; the one with the highest number is valid
//     manifest                   describes the other files (manifest.h)
//     catalogue.stream           store snapshot: the arrays' snapshot streams
//     keys.stream
//     points.stream
//     metricdb/1.0.darr          store shm, instead of the streams: the arrays' block files
//     ...
//   DIR/journal.7                the batches committed since then (journal.h); none if there is no such file
//   DIR/generation.8.new/        a generation that is being written, or that an ended process did not finish
//
// A generation is written to a temporary folder, its files and folders are synced, and then the folder is renamed. So a
// reader sees the previous generation or the new one, and each is complete. Then older generations and their journals
// are removed; the new generation includes their content. One process writes at a time. Any number of processes read.
// Readers take no lock, and start again if the generation that they read is removed meanwhile.
//
// A store of block files is one whose arrays were filled in block files. The library cannot attach to existing block
// files, so they are loaded into process memory like streams, and the next generation is written as streams.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "journal/files.h"
#include "journal/journal_reader.h"
#include "store/generation_files.h"
#include "store/manifest.h"
#include "store/store.h"

namespace metricdb {

// A database in process memory.
struct LoadedDatabase {
  Store store;
  GenerationInfo generation;
  std::optional<ScanResult> journal;  // none: there is no journal of this generation
  std::string skipped;                // with `salvage`: one line about newer generations that are damaged

  uint64_t n_batches() const { return journal ? journal->n_batches : 0; }
  // One line for each irregularity that was found. Empty if there was none.
  std::string warnings() const;
};

struct OpenOptions {
  // Uses a damaged journal up to the damage. If the newest generation is damaged, uses an older one with the following
  // journals, if it still exists.
  bool salvage = false;
  // Converts the catalogue to this layout, which may not be newer than that of the database. In memory: the next
  // generation is written with it.
  std::optional<uint8_t> layout = {};
};

class Database {
 public:
  enum class Use {
    read,    // of an existing folder; changes nothing
    write,   // of an existing folder; keeps other writers out
    create,  // like write, but creates a missing folder, and removes it again if no generation is written
  };

  // Throws FileError or DatabaseError, as all operations do.
  Database(std::string folder, Use use);
  ~Database();
  Database(const Database &) = delete;
  Database &operator=(const Database &) = delete;

  const std::string &folder() const { return folder_; }

  // Number of the valid generation; none in a folder without a generation.
  std::optional<uint64_t> newest() const;

  // Returns whether the folder contains nothing of a database, so that one can be created. Throws DatabaseError for a
  // journal without its generation.
  bool is_empty() const;

  // Loads the newest generation and its journal into process memory. Checks everything first: files against the
  // manifest, entries against their checksums, arrays against the rules of the library, and the store against itself.
  LoadedDatabase open(const OpenOptions &options = {}) const;

  // Path of the journal of a generation.
  std::string journal_path(uint64_t generation) const;

 private:
  friend class NewGeneration;

  // Result of opening one generation: the database, or the reason why it cannot be opened.
  struct OpenOutcome {
    std::optional<LoadedDatabase> database;
    std::string failure = {};
    bool is_journal_damaged = false;
  };

  std::vector<uint64_t> generations() const;
  void expect_no_orphan(uint64_t newest) const;
  OpenOutcome open_generation(uint64_t number, const OpenOptions &options) const;
  OpenOutcome load_generation(uint64_t number, const OpenOptions &options) const;
  LoadedDatabase open_older(uint64_t newest, const OpenOptions &options, const std::string &why) const;
  std::optional<ScanResult> replay(uint64_t number, bool salvage, const StoreArrays &arrays, StoreConfig &config,
                                   StoreState &state) const;

  std::string folder_;
  std::optional<File> lock_;
  bool may_be_removed_ = false;
};

// The next generation of a database that was opened for writing.
class NewGeneration {
 public:
  // Removes unfinished generations of other processes.
  explicit NewGeneration(Database &database);
  // Removes the generation unless it is in place.
  ~NewGeneration();
  NewGeneration(const NewGeneration &) = delete;
  NewGeneration &operator=(const NewGeneration &) = delete;

  // Sets the library's base path to the generation's folder. Called before a store of MPOOL_TYPE_SHM is created.
  void set_block_file_path() const;

  uint64_t number() const { return number_; }
  // Returns whether the next opening uses this generation.
  bool is_in_place() const { return in_place_; }

  // Both write the missing files and put the generation in place. One of them is called, once. A store whose block
  // files were sealed is read-only from then on. After an exception the generation can be in place without being
  // synced.
  GenerationInfo write_streams(const Store &store);
  GenerationInfo seal_block_files(const Store &store);

 private:
  void finish(const Manifest &manifest, GenerationInfo &info);

  Database &database_;
  const uint64_t number_;
  const std::string folder_;
  bool in_place_ = false;
};

}  // namespace metricdb
