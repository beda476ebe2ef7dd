// The text of a sidecar NAME.tslb: what the files of an array do not say of themselves, and checksums over them. Each
// content has exactly one text (docs/formats.md).
#ifndef TSLB_INSPECT_SIDECAR_H
#define TSLB_INSPECT_SIDECAR_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "layout.h"

namespace inspect {

constexpr size_t MAX_SIDECAR_BYTES = size_t{1} << 30;  // of 8 million block files

enum class form_t { STREAM, CUT_STREAM, BLOCKS };
const char *form_text(form_t form);

// Addresses that a pool issued. WIDE: maddr64_t.
enum class address_t { NONE, BIG_BUFFER, BIT_VECTOR, WIDE };

// Settings of the library's clock (tslb_util.h) in the process that wrote the files.
struct clock_settings_t {
  double factor = 1;
  int64_t origin = 0, offset = 0;

  bool operator==(const clock_settings_t &) const = default;
};

// What the headers of the array say. A copy, so that a program can plan with the sidecar alone.
struct sealed_headers_t {
  uint32_t lib_version = 0, rec_version = 0, daflag = 0;
  uint64_t header_bytes = 0, record_bytes = 0, slot_bytes = 0, n_direct = 0, n_used = 0;

  bool operator==(const sealed_headers_t &) const = default;
};

struct sealed_file_t {
  uint32_t block_num = 0;  // 0 for a stream
  uint64_t bytes = 0;
  uint32_t crc32c = 0;
  std::string sha256;  // 64 digits

  bool operator==(const sealed_file_t &) const = default;
};

struct sidecar_t {
  form_t form = form_t::STREAM;
  clock_settings_t clock;
  sealed_headers_t headers;
  std::optional<int32_t> table;
  std::optional<std::string> context;
  address_t address = address_t::NONE;
  std::optional<layout_t> layout;
  std::vector<sealed_file_t> files;  // by block number, from 0 on without gaps
  std::string writer;                // program and version
  std::string time;                  // UTC: 2026-11-27T00:50:12Z
};

std::string sidecar_text(const sidecar_t &sidecar);

// Returns the content of a text that sidecar_text can have written. Throws tslb_durable::StoreError with
// TSLB_DURABLE_DAMAGED for any other text. `path` is for messages.
sidecar_t parse_sidecar(std::string_view text, const std::string &path);

}  // namespace inspect

#endif
