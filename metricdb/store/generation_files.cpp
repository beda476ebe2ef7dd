#include "store/generation_files.h"

#include <fmt/format.h>
#include <tslb/array_loader.h>
#include <tslb/block_files.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "journal/log.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

namespace fs = std::filesystem;

constexpr size_t MAX_DIGITS = 18;  // so that the next number fits 64 bits too
constexpr size_t MAX_MANIFEST_BYTES = 64 << 20;
constexpr uint64_t MAX_HEADER_BYTES = 1 << 17;  // of block 0: more than any user header
constexpr int TABLES[] = {CATALOGUE_TABLE, KEYS_TABLE, POINTS_TABLE};

std::string file_name(StoreKind kind, const StoredArray &array, size_t number, uint64_t block) {
  return kind == StoreKind::snapshot ? stream_name(number) : block_name(array.table, block);
}

// The manifest must name exactly the files that are read, so that no file is unchecked.
void expect_files(const std::string &folder, const Manifest &manifest) {
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    const StoredArray &array = manifest.arrays[i];
    const auto refuse = [&](const std::string &what) {
      throw DatabaseError(fmt::format("{}/{}: array {}: {}", folder, MANIFEST, ARRAY_NAMES[i], what));
    };
    if (array.table != TABLES[i]) refuse(fmt::format("table {}, expected {}", array.table, TABLES[i]));
    const uint64_t n_files = manifest.kind == StoreKind::snapshot ? 1 : n_block_files(array);
    if (array.files.size() != n_files) refuse(fmt::format("{} files, expected {}", array.files.size(), n_files));
    for (uint64_t block = 0; block < n_files; ++block) {
      const std::string name = file_name(manifest.kind, array, i, block);
      if (array.files[block].name != name) refuse(fmt::format("file \"{}\", not {}", array.files[block].name, name));
    }
  }
}

void expect_sum(const std::string &path, const FileSum &sum, const StoredFile &expected) {
  if (sum.bytes != expected.bytes)
    throw DatabaseError(fmt::format("{}: {} bytes long, the manifest says {}", path, sum.bytes, expected.bytes));
  if (sum.crc32c != expected.crc32c)
    throw DatabaseError(
        fmt::format("{}: its CRC-32C is {:08x}, the manifest says {:08x}", path, sum.crc32c, expected.crc32c));
}

}  // namespace

void ArrayFiles::add(const FileSum &sum) {
  ++n_files;
  bytes += sum.bytes;
  allocated_bytes += sum.allocated_bytes;
}

uint64_t GenerationInfo::bytes() const {
  uint64_t sum = manifest_bytes;
  for (const ArrayFiles &files : arrays) sum += files.bytes;
  return sum;
}

uint64_t GenerationInfo::allocated_bytes() const {
  uint64_t sum = 0;
  for (const ArrayFiles &files : arrays) sum += files.allocated_bytes;
  return sum;
}

// ---- Names ----

std::optional<uint64_t> number_of(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix)) return std::nullopt;
  const std::string_view digits = name.substr(prefix.size());
  uint64_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (digits.size() > MAX_DIGITS || std::to_string(number) != digits) return std::nullopt;
  return number;
}

std::string generation_path(const std::string &folder, uint64_t number) {
  return fmt::format("{}/{}{}", folder, GENERATION_PREFIX, number);
}

std::string stream_name(size_t array) {
  return fmt::format("{}.stream", ARRAY_NAMES[array]);
}

std::string block_name(int32_t table, uint64_t block) {
  char name[64];
  tslb_stored_block_file_name(name, sizeof name, table, static_cast<int32_t>(block));
  return fmt::format("{}/{}", CONTEXT, name);
}

uint64_t n_block_files(const StoredArray &array) {
  return uint64_t{1} + tslb_stored_n_blocks(array.n_slots, array.n_direct);
}

std::string file_of_slot(const Manifest &manifest, size_t array, uint32_t index) {
  const StoredArray &stored = manifest.arrays[array];
  const bool is_in_block_0 = index == StoreDamaged::NO_SLOT || index < stored.n_direct;
  return file_name(manifest.kind, stored, array, is_in_block_0 ? 0 : tslb_stored_block_num(index - stored.n_direct));
}

void for_each_name(const std::string &folder, const std::function<void(const std::string &name)> &visit) {
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    visit(it->path().filename().string());
  if (error) throw FileError(fmt::format("{}: cannot be read: {}", folder, error.message()));
}

void remove_unused(const std::string &path) {
  try {
    remove_tree(path);
  } catch (const FileError &error) {
    TSLB_DLOG(LOG_PROGRESS, "%s", error.what());
  }
}

// ---- Reading ----

Manifest read_manifest_file(const std::string &folder, uint64_t &bytes) {
  const File file = File::open(folder + "/" + MANIFEST);
  const std::string text = text_of(file, MAX_MANIFEST_BYTES);
  bytes = text.size();
  Manifest manifest;
  try {
    manifest = read_manifest(text);
  } catch (const ManifestError &error) {
    throw DatabaseError(fmt::format("{}: {}", file.path(), error.what()));
  }
  expect_files(folder, manifest);
  return manifest;
}

Array load_array(const std::string &folder, const Manifest &manifest, size_t number, ArrayFiles &found) {
  const StoredArray &expected = manifest.arrays[number];
  array_load_options_t options = {};
  options.ctx_name = CONTEXT;
  options.tbl_id = expected.table;
  options.mem_type = MPOOL_TYPE_DRAM;
  options.kind = number == 0 ? ARRAY_LOAD_ANY : ARRAY_LOAD_POOL;
  options.rec_version = number == 0 ? manifest.config.layout : POOL_RECORD_VERSION;
  options.record_size =
      number == 0 ? static_cast<uint32_t>(series_record_bytes(manifest.config.layout)) : ARRAY_LOAD_ANY_SIZE;
  options.max_block_bytes =
      MAX_HEADER_BYTES + uint64_t{expected.slot_bytes} * std::max(expected.n_direct, TSLB_SLOTS_PER_BLOCK);

  char why[512];
  Array array;
  for (const StoredFile &stored : expected.files) {
    const File file = File::open(folder + "/" + stored.name);
    const FileSum sum = sum_of(file);
    expect_sum(file.path(), sum, stored);
    found.add(sum);
    if (manifest.kind == StoreKind::shm) continue;
    array.reset(array_load_stream(file.fd(), &options, why, sizeof why));
    if (!array) throw DatabaseError(fmt::format("{}: {}", file.path(), why));
  }
  if (manifest.kind == StoreKind::shm) {
    array.reset(array_load_block_files(folder.c_str(), &options, why, sizeof why));
    if (!array) throw DatabaseError(why);  // begins with the path of the file
  }
  const uint32_t n_slots = tslb_da_get_size(array.get());
  const uint32_t slot_bytes = tslb_da_get_slotsz(array.get(), nullptr);
  if (n_slots != expected.n_slots || array->n_direct != expected.n_direct || slot_bytes != expected.slot_bytes)
    throw DatabaseError(fmt::format("{}/{}: {} slots of {} bytes, {} of them direct; the manifest says {} of {}, {}",
                                    folder, expected.files[0].name, n_slots, slot_bytes, array->n_direct,
                                    expected.n_slots, expected.slot_bytes, expected.n_direct));
  TSLB_DLOG(LOG_DETAILS, "%s: %s, %u slots in %llu files, %llu bytes", folder.c_str(), ARRAY_NAMES[number], n_slots,
            static_cast<unsigned long long>(found.n_files), static_cast<unsigned long long>(found.bytes));
  return array;
}

}  // namespace metricdb
