#include "store/database.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "store/figures.h"
#include "store/log.h"

namespace metricdb {
namespace {

constexpr uint64_t STAT_BLOCK_BYTES = 512;

tslb_store_options_t store_options(const OpenOptions &options, OpenDatabase::Use use) {
  tslb_store_options_t chosen = {};
  chosen.flags = use == OpenDatabase::Use::read ? TSLB_STORE_READ_ONLY : TSLB_STORE_CREATE | TSLB_STORE_BULK;
  if (options.salvage) chosen.flags |= TSLB_STORE_SALVAGE;
  return chosen;
}

struct stat stat_of(const std::string &path) {
  struct stat about;
  if (stat(path.c_str(), &about) != 0) throw DatabaseError(fmt::format("{}: {}", path, std::strerror(errno)));
  return about;
}

std::string without_slash(std::string folder) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

}  // namespace

uint64_t GenerationInfo::bytes() const {
  uint64_t bytes = manifest_bytes;
  for (const ArrayFiles &files : arrays) bytes += files.bytes;
  return bytes;
}

uint64_t GenerationInfo::allocated_bytes() const {
  uint64_t bytes = 0;
  for (const ArrayFiles &files : arrays) bytes += files.allocated_bytes;
  return bytes;
}

GenerationInfo generation_info(const std::string &folder, uint64_t number) {
  GenerationInfo info;
  info.number = number;
  const std::string path = fmt::format("{}/generation.{}", folder, number);
  for (uint32_t i = 0; i < N_ARRAYS; ++i) {
    const struct stat about = stat_of(fmt::format("{}/{}.stream", path, ARRAY_NAMES[i]));
    info.arrays[i] = {static_cast<uint64_t>(about.st_size), static_cast<uint64_t>(about.st_blocks) * STAT_BLOCK_BYTES};
  }
  info.manifest_bytes = static_cast<uint64_t>(stat_of(path + "/manifest").st_size);
  return info;
}

ArrayParameters parameters_of(const std::string &folder, const std::optional<uint8_t> &layout,
                              const std::optional<StoreConfig> &new_config) {
  std::optional<ArrayParameters> parameters = stored_parameters(folder);
  if (!parameters) {
    if (!new_config) throw DatabaseError(folder + ": holds no database");
    return {layout.value_or(new_config->layout), new_config->key_slot_bytes, new_config->point_slot_bytes};
  }
  if (layout && *layout > parameters->layout)
    throw DatabaseError(fmt::format("{}: the catalogue has layout {}, and cannot be converted to the newer layout {}",
                                    folder, parameters->layout, *layout));
  parameters->layout = layout.value_or(parameters->layout);
  return *parameters;
}

Store store_of(const std::string &folder, const DurableArrays &durable, const StoreConfig &new_config) {
  StoreConfig config = new_config;
  StoreState state;
  const StoreArrays arrays = durable.arrays();
  try {
    const std::string figures = durable.payload();
    if (!figures.empty()) read_figures(figures, config, state);
    config.layout = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(arrays.catalogue.get()))->rec_version;
    return Store(config, durable.arrays(), state);
  } catch (const FiguresError &error) {
    throw DatabaseError(fmt::format("{}: payload: {}", folder, error.what()));
  } catch (const StoreDamaged &damage) {
    const bool is_array = damage.where() != StoreDamaged::Where::state;
    throw DatabaseError(fmt::format(
        "{}: {}: {}", folder, is_array ? ARRAY_NAMES[static_cast<size_t>(damage.where())] : "figures", damage.what()));
  }
}

IngestFigures figures_of(const Store &store, const tslb_store_info_t &info) {
  const PoolBytes keys = store.key_bytes(), points = store.point_bytes();
  IngestFigures figures;
  figures.series = store.n_series();
  figures.inactive_series = store.n_inactive();
  figures.points = store.n_points();
  figures.key_bytes = keys.used;
  figures.max_key_bytes = keys.max;
  figures.point_bytes = points.used;
  figures.max_point_bytes = points.max;
  figures.memory_bytes = store.bytes_reserved();
  figures.journal_bytes = info.journal_bytes;
  figures.generation = info.generation;
  figures.snapshots = info.n_snapshots;
  figures.snapshot_pause_ns = info.snapshot_pause_ns;
  figures.snapshot_failure = info.snapshot_failure;
  return figures;
}

OpenDatabase::OpenDatabase(const std::string &folder, const OpenOptions &options, Use use,
                           const std::optional<StoreConfig> &config)
    : folder_(without_slash(folder)),
      durable_(folder_, parameters_of(folder_, options.layout, config), store_options(options, use)) {
  store_.emplace(store_of(folder_, durable_, config.value_or(StoreConfig())));
  const tslb_store_info_t info = durable_.info();
  n_batches_ = info.n_batches_found;
  warnings_ = info.warning;
  generation_ = info.generation;
  TSLB_DLOG(LOG_PROGRESS, "%s: opened, generation %llu, %u series, %llu points", folder_.c_str(),
            static_cast<unsigned long long>(info.generation), store_->n_series(),
            static_cast<unsigned long long>(store_->n_points()));
}

GenerationInfo OpenDatabase::write() {
  durable_.set_payload(figures_text(store_->config(), store_->state()));
  durable_.snapshot();
  const GenerationInfo written = generation_info(folder_, durable_.info().generation);
  store_.reset();
  durable_.close();
  return written;
}

}  // namespace metricdb
