// Writing a generation of a database.
#include <fmt/format.h>
#include <tslb/tslb_settings.h>

#include <utility>

#include "store/database.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr size_t MAX_BASE_PATH = 1023;  // with a longer path the library ends the process

Manifest manifest_of(const Store &store, StoreKind kind) {
  Manifest manifest;
  manifest.kind = kind;
  manifest.config = store.config();
  manifest.state = store.state();
  DynArrHandle_t *const arrays[] = {store.catalogue(), store.keys(), store.points()};
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    StoredArray &array = manifest.arrays[i];
    array.table = static_cast<int32_t>(arrays[i]->tbl_id);
    array.n_slots = tslb_da_get_size(arrays[i]);
    array.n_direct = arrays[i]->n_direct;
    array.slot_bytes = tslb_da_get_slotsz(arrays[i], nullptr);
  }
  return manifest;
}

StoredFile sync_and_sum(const File &file, std::string name, ArrayFiles &written) {
  file.sync();
  const FileSum sum = sum_of(file);
  written.add(sum);
  return {std::move(name), sum.bytes, sum.crc32c};
}

}  // namespace

NewGeneration::NewGeneration(Database &database)
    : database_(database),
      number_(database.newest().value_or(0) + 1),
      folder_(generation_path(database.folder(), number_) + std::string(UNFINISHED_SUFFIX)) {
  for_each_name(database.folder(), [&database](const std::string &name) {
    std::string_view stem = name;
    if (!stem.ends_with(UNFINISHED_SUFFIX)) return;
    stem.remove_suffix(UNFINISHED_SUFFIX.size());
    if (number_of(stem)) remove_unused(database.folder() + "/" + name);
  });
  make_folder(folder_);
}

NewGeneration::~NewGeneration() {
  if (!in_place_) remove_unused(folder_);
}

void NewGeneration::set_block_file_path() const {
  if (folder_.size() > MAX_BASE_PATH)
    throw DatabaseError(fmt::format("{}: block files need a path of at most {} bytes", folder_, MAX_BASE_PATH));
  tslb_set_base_path(folder_.c_str());
}

GenerationInfo NewGeneration::write_streams(const Store &store) {
  // With these settings the library cuts the stream of a pool after the last chunk.
  tslb_test_mode = 0;
  lib_config.tslb_enable_file_trimming_flag = 1;
  Manifest manifest = manifest_of(store, StoreKind::snapshot);
  DynArrHandle_t *const arrays[] = {store.catalogue(), store.keys(), store.points()};
  GenerationInfo info;
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    const File file = File::create(folder_ + "/" + stream_name(i));
    size_t ignored = 0;
    if (tslb_create_dump_for_dynarr(arrays[i], file.fd(), 0, &ignored) != 0)
      throw DatabaseError(file.path() + ": the snapshot stream cannot be written");
    manifest.arrays[i].files.push_back(sync_and_sum(file, stream_name(i), info.arrays[i]));
  }
  finish(manifest, info);
  return info;
}

GenerationInfo NewGeneration::seal_block_files(const Store &store) {
  Manifest manifest = manifest_of(store, StoreKind::shm);
  DynArrHandle_t *const arrays[] = {store.catalogue(), store.keys(), store.points()};
  GenerationInfo info;
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    tslb_syn_shm_dynarr(arrays[i]);
    StoredArray &array = manifest.arrays[i];
    for (uint64_t block = 0; block < n_block_files(array); ++block) {
      const std::string name = block_name(array.table, block);
      // Synced again here, because the library reports a failed sync only on stderr.
      array.files.push_back(sync_and_sum(File::open(folder_ + "/" + name), name, info.arrays[i]));
    }
  }
  File::folder(fmt::format("{}/{}", folder_, CONTEXT)).sync();
  info.kind = StoreKind::shm;
  finish(manifest, info);
  return info;
}

void NewGeneration::finish(const Manifest &manifest, GenerationInfo &info) {
  info.number = number_;
  info.layout = manifest.config.layout;
  const std::string text = manifest_text(manifest);
  info.manifest_bytes = text.size();
  {
    const File file = File::create(folder_ + "/" + MANIFEST);
    file.write(text);
    file.sync();
  }
  File::folder(folder_).sync();
  const std::string place = generation_path(database_.folder(), number_);
  rename_file(folder_, place);
  in_place_ = true;
  database_.may_be_removed_ = false;
  database_.lock_->sync();
  for_each_name(database_.folder(), [this](const std::string &name) {
    std::optional<uint64_t> number = number_of(name);
    if (!number) number = number_of(name, JOURNAL_PREFIX);
    if (number && *number < number_) remove_unused(database_.folder() + "/" + name);
  });
}

}  // namespace metricdb
