// The manifest of one generation of a database: a text that says what lies beside it.
//
//   metricdb 2                          format version; all that follows is of that format
//   store snapshot                      or: store shm
//   layout 1                            what the store was told, and what it keeps beside its arrays, a line each
//   ...
//   array catalogue table 1 slots 162 direct 64 slot_bytes 116 files 1
//   file catalogue.stream bytes 9156 crc32c 1a2b3c4d
//   ...                                 three arrays, each with its files
//   crc32c 5e6f7a8b                     of everything above this line
//
// There is one way to write a manifest: a text that says the same in another way is refused.
#pragma once

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "store/store.h"

namespace metricdb {

inline constexpr uint32_t MANIFEST_VERSION = 2;

enum class StoreKind { snapshot, shm };  // streams of arrays, or block files
inline constexpr const char *STORE_NAMES[] = {"snapshot", "shm"};

struct StoredFile {
  std::string name;  // below the manifest's folder, without a blank
  uint64_t bytes = 0;
  uint32_t crc32c = 0;
};

struct StoredArray {
  int32_t table = 0;
  uint32_t n_slots = 0;
  uint32_t n_direct = 0;
  uint32_t slot_bytes = 0;
  std::vector<StoredFile> files;
};

inline constexpr const char *ARRAY_NAMES[] = {"catalogue", "keys", "points"};

struct Manifest {
  StoreKind kind = StoreKind::snapshot;
  StoreConfig config;  // but for its memory type
  StoreState state;
  std::array<StoredArray, 3> arrays;
};

class ManifestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string manifest_text(const Manifest &manifest);

// The figures alone, lines as they stand in a manifest: what goes with each commit mark of a journal. Reading throws
// ManifestError, and leaves the memory type of the configuration as it was.
std::string figures_text(const StoreConfig &config, const StoreState &state);
void read_figures(std::string_view text, StoreConfig &config, StoreState &state);

// Throws ManifestError: one line about what is wrong, without a file's name.
Manifest read_manifest(std::string_view text);

}  // namespace metricdb
