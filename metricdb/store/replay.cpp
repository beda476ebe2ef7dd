#include "store/replay.h"

#include <fmt/format.h>
#include <tslb/array_check.h>
#include <tslb/array_loader.h>
#include <tslb/redo_applier.h>
#include <unistd.h>

#include <array>

#include "journal/log.h"
#include "store/manifest.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

// An array, which records name by its table id.
struct Target {
  const char *name;
  uint32_t table;
  DynArrHandle_t *array;
  uint8_t kind;
  uint32_t max_slots;
};

constexpr uint32_t MAX_SERIES = 1u << 28;

class Replay {
 public:
  Replay(std::string path, const StoreArrays &arrays)
      : path_(std::move(path)),
        targets_{
            {{"catalogue", CATALOGUE_TABLE, arrays.catalogue.get(), ARRAY_LOAD_ANY, MAX_SERIES},
             {"keys", static_cast<uint32_t>(KEYS_TABLE), arrays.keys.get(), ARRAY_LOAD_POOL, MAX_KEY_SLOTS},
             {"points", static_cast<uint32_t>(POINTS_TABLE), arrays.points.get(), ARRAY_LOAD_POOL, MAX_POINT_SLOTS}}} {}

  void apply(const redo_args_t &record) const {
    for (const Target &target : targets_) {
      if (target.table != record.tbl_id) continue;
      char why[256];
      if (redo_apply(target.array, &record, target.kind, target.max_slots, why, sizeof why) == 0) return;
      throw ReplayFailed(fmt::format("{}: a record does not fit the {}: {}", path_, target.name, why));
    }
    throw ReplayFailed(fmt::format("{}: a record has the unknown table {}", path_, record.tbl_id));
  }

  void check() const {
    for (const Target &target : targets_) {
      char why[256];
      if (array_check(target.array, target.kind, why, sizeof why) != 0)
        throw ReplayFailed(fmt::format("{}: the {} are damaged after replay: {}", path_, target.name, why));
    }
  }

 private:
  const std::string path_;
  const std::array<Target, 3> targets_;
};

}  // namespace

std::optional<ScanResult> replay_journal(const std::string &path, uint64_t generation, bool salvage,
                                         const StoreArrays &arrays, StoreConfig &config, StoreState &state) {
  if (access(path.c_str(), F_OK) != 0) return std::nullopt;
  const Replay replay(path, arrays);
  const JournalVisitor visitor = {
      .record = [&](const redo_args_t &record) { replay.apply(record); },
      .commit =
          [&](std::string_view figures, uint64_t position) {
            try {
              read_figures(figures, config, state);
            } catch (const ManifestError &error) {
              throw ReplayFailed(fmt::format("{}: commit mark before byte {}: {}", path, position, error.what()));
            }
          },
  };
  ScanResult scan = scan_journal(path, visitor);
  if (scan.end == JournalEnd::damaged && !salvage) return scan;
  // Without a valid head there is no number to compare, and no record was applied.
  const bool has_head = scan.place.position != 0;
  if (has_head && scan.place.generation != generation)
    throw ReplayFailed(fmt::format("{}: is of generation {}, not {}", path, scan.place.generation, generation));
  replay.check();
  TSLB_DLOG(LOG_PROGRESS, "%s: %llu batches, %llu records, %llu bytes cut", path.c_str(),
            static_cast<unsigned long long>(scan.n_batches), static_cast<unsigned long long>(scan.n_records),
            static_cast<unsigned long long>(scan.bytes_cut));
  return scan;
}

}  // namespace metricdb
