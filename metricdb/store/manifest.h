// The manifest of one generation of a database: a text that describes the other files of the generation.
//
//   metricdb 2                          version of the format of the following lines
//   store snapshot                      or: store shm
//   layout 1                            configuration and figures of the store, one per line
//   ...
//   array catalogue table 1 slots 162 direct 64 slot_bytes 116 files 1
//   file catalogue.stream bytes 9156 crc32c 1a2b3c4d
//   ...                                 three arrays, each with its files
//   crc32c 5e6f7a8b                     of all lines above
//
// Each manifest has exactly one text. A text that differs from the text that manifest_text would write is refused.
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
  std::string name;  // relative to the manifest's folder, without a blank
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
  StoreConfig config;  // without the memory type
  StoreState state;
  std::array<StoredArray, 3> arrays;
};

class ManifestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string manifest_text(const Manifest &manifest);

// Configuration and figures as lines of a manifest; each commit mark of a journal contains them. Reading throws
// ManifestError, and does not change the memory type of the configuration.
std::string figures_text(const StoreConfig &config, const StoreState &state);
void read_figures(std::string_view text, StoreConfig &config, StoreState &state);

// Throws ManifestError with a one-line message without a file name.
Manifest read_manifest(std::string_view text);

}  // namespace metricdb
