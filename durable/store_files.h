// The files of a store's folder.
//
//   DIR/store            state of the store: its generation and journals. Replaced as a whole
//   DIR/lock             locked by the writer
//   DIR/generation.7/    one state of all arrays
//     manifest           describes the other files
//     NAME.stream        snapshot stream of an array
//     payload            the last payload, if there is one
//   DIR/journal.7        groups since that generation was begun
//   DIR/generation.8.new/  a generation that is being written, or that an ended process did not finish
//
// Journal 8 begins when generation 8 begins to be written. Until that generation is complete, the store is generation 7
// with the journals 7 and 8.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files.h"
#include "journal_format.h"
#include "stored_array.h"

namespace tslb_durable {

inline constexpr uint64_t FIRST_GENERATION = 1;
inline constexpr std::string_view GENERATION_PREFIX = "generation.";
inline constexpr std::string_view JOURNAL_PREFIX = "journal.";
inline constexpr std::string_view UNFINISHED_SUFFIX = ".new";

std::string generation_path(const std::string &folder, uint64_t number);
std::string journal_path(const std::string &folder, uint64_t number);
std::string state_path(const std::string &folder);
std::string lock_path(const std::string &folder);

// Returns 7 for "generation.7" with that prefix, and nothing for a name that is not the prefix and a decimal number.
std::optional<uint64_t> number_of(std::string_view name, std::string_view prefix);

std::string text_of_identity(const Identity &identity);

// ---- State ---------------------------------------------------------------------------------------------------------
//
//   tslb-store 1                              version of the format of the following lines
//   identity 00112233445566778899aabbccddeeff
//   generation 7                              0: the store is being created
//   journal 7 sealed bytes 4711 crc32c 1a2b3c4d
//   journal 8 open                            the last one is written, or was not closed
//   crc32c 5e6f7a8b                           of all lines above

struct JournalState {
  uint64_t number = 0;
  bool is_sealed = false;
  uint64_t bytes = 0;   // if it is sealed: of the whole file
  uint32_t crc32c = 0;  // likewise
};

struct StoreState {
  Identity identity = {};
  uint64_t generation = 0;
  std::vector<JournalState> journals;  // in order
};

// Throw StoreError: _NO_STORE if the folder has no state, _DAMAGED if the state is damaged.
StoreState read_state(const std::string &folder);
void write_state(const std::string &folder, const StoreState &state);

// Returns a random identity.
Identity new_identity();

// ---- Manifest ------------------------------------------------------------------------------------------------------
//
//   tslb-generation 3                         version of the format of the following lines
//   identity 00112233445566778899aabbccddeeff
//   generation 7
//   library 0.1.0 lib_version 2 byte_order little
//   clock factor 1 origin 0 offset 0 at 1795677865
//   payload 0                                 or: payload 1 bytes 12 crc32c 1a2b3c4d
//   position 2 4711                           epoch and number in a log; only of a store that has one
//   arrays 2
//   array events kind slots compat 0 table 5 rec_version 1 daflag 3 record_bytes 64 slots 1000 direct 64 bytes 81948 crc32c ...
//                                             with " zstd" at its end if the stream is compressed, and then the version is 4
//   description TEXT                          of the array above; can be empty
//   ...
//   crc32c 5e6f7a8b                           of all lines above

struct StoredFile {
  uint64_t bytes = 0;
  uint32_t crc32c = 0;
};

struct StoredArrayEntry {
  std::string name;
  tslb_array_kind_t kind = TSLB_ARRAY_RECORDS;
  bool has_compat = false;  // compaction headers
  int32_t tbl_id = 0;
  uint8_t rec_version = 0;
  uint8_t daflag = 0;
  uint32_t record_bytes = 0;
  uint32_t n_slots = 0;
  uint32_t n_direct = 0;
  StoredFile file;
  std::string description;
  bool is_compressed = false;
};

struct Manifest {
  Identity identity = {};
  uint64_t generation = 0;
  std::string environment;  // the lines "library" and "clock", as they were written
  std::optional<StoredFile> payload;
  tslb_log_position_t position = {};
  std::vector<StoredArrayEntry> arrays;
};

// Returns the lines "library" and "clock" of this process.
std::string current_environment();

std::string manifest_text(const Manifest &manifest);
// Throws StoreError. `folder` is that of the generation.
Manifest read_manifest(const std::string &folder);

inline constexpr const char *MANIFEST = "manifest";
inline constexpr const char *PAYLOAD = "payload";
std::string stream_name(const std::string &array);

}  // namespace tslb_durable
