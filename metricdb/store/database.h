// A database in a folder: what a store holds, kept from one process to the next.
//
//   DIR/generation.7/            one whole state of the database; the one with the highest number counts
//     manifest                   what the others must be (manifest.h)
//     catalogue.stream           store snapshot: the arrays' snapshot streams
//     keys.stream
//     points.stream
//     metricdb/1.0.darr          store shm, in their place: the arrays' block files
//     ...
//   DIR/journal.7                what was committed since then (journal.h); none: nothing
//   DIR/generation.8.new/        one that is being written, or that a process left behind which did not come to its end
//
// A generation is written aside, its files and folders are synced, and then it is renamed into place: whoever reads
// sees the one before it or this one, whole. Afterwards older ones are removed, with the journals that follow them:
// what those hold is in the new one. Only one process writes at a time; readers
// are many, take no lock, and begin again if the generation that they read is removed under them.
//
// A store of block files is one that the arrays were filled in, block by block. The library attaches to no old block
// files: they are read back into process memory like streams, and what goes on from there is written as streams.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "journal/files.h"
#include "store/manifest.h"
#include "store/replay.h"
#include "store/store.h"

namespace metricdb {

class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ArrayFiles {
  uint64_t n_files = 0;
  uint64_t bytes = 0;
  uint64_t allocated_bytes = 0;  // on the disk: less where files have holes
};

// What lies in the folder.
struct Stored {
  uint64_t generation = 0;
  StoreKind kind = StoreKind::snapshot;
  uint8_t layout = NEWEST_LAYOUT;    // of the catalogue
  std::array<ArrayFiles, 3> arrays;  // in the order of ARRAY_NAMES
  uint64_t manifest_bytes = 0;

  uint64_t bytes() const;
  uint64_t allocated_bytes() const;  // without the manifest's
};

struct Opened {
  Store store;
  Stored stored;
  Replayed journal;
  std::string passed_over;  // with `salvage`: one line about newer generations that cannot be opened

  // What is not as it should be, line by line; empty if all is.
  std::string found() const;
};

struct OpenOptions {
  // What damage leaves: a journal is used up to the damage, and where the newest generation is damaged an older one
  // with the journals behind it, if there still is one.
  bool salvage = false;
  // Takes the catalogue to this layout, which is not newer than that of the database. In memory: only the next
  // generation has it.
  std::optional<uint8_t> layout = {};
};

class Database {
 public:
  enum class Use {
    read,    // of a folder that exists; changes nothing
    write,   // likewise, and keeps other writers out
    create,  // makes the folder if there is none, and takes it away again if nothing comes into it
  };

  // Throws FileError or DatabaseError, as all operations do.
  Database(std::string folder, Use use);
  ~Database();
  Database(const Database &) = delete;
  Database &operator=(const Database &) = delete;

  const std::string &folder() const { return folder_; }

  // Number of the generation that counts; none in a folder without one.
  std::optional<uint64_t> newest() const;

  // Whether nothing of a database is there, so that one can be made. Throws DatabaseError for a journal without its
  // generation.
  bool is_empty() const;

  // The newest generation and its journal, as a store in process memory. Everything is checked first: files against the
  // manifest, entries against their checksums, arrays against what the library relies on, and the store against itself.
  Opened open(const OpenOptions &options = {}) const;

  // The journal that follows a generation.
  std::string journal_path(uint64_t generation) const;

 private:
  friend class NewGeneration;

  std::vector<uint64_t> generations() const;
  void expect_no_orphan(uint64_t newest) const;
  Opened open_older(uint64_t newest, const OpenOptions &options, const std::string &why) const;
  Replayed replay(uint64_t number, bool salvage, const StoreArrays &arrays, StoreConfig &config,
                  StoreState &state) const;
  Opened open_generation(uint64_t number, const OpenOptions &options) const;

  std::string folder_;
  std::optional<File> lock_;
  bool may_be_removed_ = false;
};

// The next generation of a database that was opened for writing.
class NewGeneration {
 public:
  // Removes what others left behind half-written.
  explicit NewGeneration(Database &database);
  // Removes it again unless it was put into place.
  ~NewGeneration();
  NewGeneration(const NewGeneration &) = delete;
  NewGeneration &operator=(const NewGeneration &) = delete;

  // Makes the library put block files here: for a store of MPOOL_TYPE_SHM, created next.
  void take_block_files() const;

  uint64_t number() const { return number_; }
  // Whether it is what the next opening takes.
  bool is_in_place() const { return in_place_; }

  // Both write all that is missing and put the generation into place: one of them, once. A store whose block files were
  // sealed is only read from then on. What they throw can come when it is in place and not known to be on the disk.
  Stored write_streams(const Store &store);
  Stored seal_block_files(const Store &store);

 private:
  void finish(const Manifest &manifest, Stored &stored);

  Database &database_;
  const uint64_t number_;
  const std::string folder_;
  bool in_place_ = false;
};

}  // namespace metricdb
