#include "digest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include <tslb/block_files.h>
#include "checksum.h"
#include "render.h"
#include "store.h"
#include "store_load.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using tslb_durable::Array;
using tslb_durable::Digest;

constexpr size_t ERROR_BYTES = 512;

std::string line_of(const Digest &digest, const std::string &name) {
  return fmt::format("{:08x} {:>12} {}\n", digest.crc32c, digest.bytes, printable(name));
}

array_load_options_t any_array(uint8_t kind) {
  array_load_options_t options = {};
  options.mem_type = MPOOL_TYPE_DRAM;
  options.kind = kind;
  options.rec_version = ARRAY_LOAD_ANY_VERSION;
  return options;
}

Array load_stream(const std::string &path, uint8_t kind) {
  const array_load_options_t options = any_array(kind);
  char error[ERROR_BYTES] = "";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Array array(fd < 0 ? nullptr : array_load_stream(fd, &options, error, sizeof error));
  if (fd >= 0) close(fd);
  if (array == nullptr) throw unreadable_t(fmt::format("{}: {}", path, error));
  return array;
}

// The loader of block files makes their paths of a root, the name of a context and a table.
Array load_block_files(const fs::path &file_0, uint8_t kind) {
  const fs::path folder = fs::absolute(file_0).lexically_normal().parent_path();
  const std::string root = folder.parent_path(), ctx_name = folder.filename();
  array_load_options_t options = any_array(kind);
  options.ctx_name = ctx_name.c_str();
  options.tbl_id = std::atoi(file_0.filename().c_str());
  char error[ERROR_BYTES] = "";
  Array array(array_load_block_files(root.c_str(), &options, error, sizeof error));
  if (array == nullptr) throw unreadable_t(error);
  return array;
}

}  // namespace

std::string digest_of_file(const std::string &path, uint8_t kind) {
  const auto store = open_store(path);
  const Array array = store->is_stream() ? load_stream(path, kind) : load_block_files(store->name(), kind);
  return line_of(tslb_durable::digest_of(array.get()), path);
}

std::string digests_of_store(const std::string &folder) {
  try {
    const tslb_durable::LoadedStore store = tslb_durable::load_store(folder, {});
    std::string lines;
    for (size_t i = 0; i < store.arrays.size(); ++i)
      lines += line_of(tslb_durable::digest_of(store.arrays[i].get()), store.manifest.arrays[i].name);
    if (store.has_payload)
      lines += line_of({tslb_durable::crc32c(store.payload.data(), store.payload.size()), store.payload.size()},
                       "(payload)");
    return lines;
  } catch (const tslb_durable::StoreError &error) {
    throw unreadable_t(error.what());
  }
}

}  // namespace inspect
