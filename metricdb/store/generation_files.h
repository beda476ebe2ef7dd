// The files of one generation of a database: their names, and loading its arrays from them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "journal/files.h"
#include "store/manifest.h"
#include "store/store.h"

namespace metricdb {

class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ArrayFiles {
  uint64_t n_files = 0;
  uint64_t bytes = 0;
  uint64_t allocated_bytes = 0;  // on the disk; fewer if files have holes

  void add(const FileSum &sum);
};

// A generation on the disk.
struct GenerationInfo {
  uint64_t number = 0;
  StoreKind kind = StoreKind::snapshot;
  uint8_t layout = NEWEST_LAYOUT;    // of the catalogue
  std::array<ArrayFiles, 3> arrays;  // in the order of ARRAY_NAMES
  uint64_t manifest_bytes = 0;

  uint64_t bytes() const;
  uint64_t allocated_bytes() const;  // without the manifest
};

inline constexpr std::string_view GENERATION_PREFIX = "generation.";
inline constexpr std::string_view JOURNAL_PREFIX = "journal.";
inline constexpr std::string_view UNFINISHED_SUFFIX = ".new";
inline constexpr const char *MANIFEST = "manifest";

// Returns 7 for "generation.7" with that prefix, and nothing for a name that is not the prefix and a decimal number.
std::optional<uint64_t> number_of(std::string_view name, std::string_view prefix = GENERATION_PREFIX);
std::string generation_path(const std::string &folder, uint64_t number);
std::string stream_name(size_t array);
std::string block_name(int32_t table, uint64_t block);

// Number of block files of an array: block 0 and the data blocks with slots in use.
uint64_t n_block_files(const StoredArray &array);

// Name of the file that contains slot `index` of an array; StoreDamaged::NO_SLOT: its headers.
std::string file_of_slot(const Manifest &manifest, size_t array, uint32_t index);

// Calls `visit` for each name in the folder. Throws FileError.
void for_each_name(const std::string &folder, const std::function<void(const std::string &name)> &visit);

// Removes a folder that is not used any more. The next writer tries again if this fails.
void remove_unused(const std::string &path);

// These throw FileError or DatabaseError. `folder` is that of the generation.
//
// Reads the manifest, and checks that it names exactly the files of its arrays.
Manifest read_manifest_file(const std::string &folder, uint64_t &bytes);
// Loads an array, after comparing its files with the manifest. Adds them to `found`.
Array load_array(const std::string &folder, const Manifest &manifest, size_t number, ArrayFiles &found);

}  // namespace metricdb
