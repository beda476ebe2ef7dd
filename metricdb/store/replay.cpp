#include "store/replay.h"

#include <fmt/format.h>
#include <tslb/array_check.h>
#include <tslb/array_loader.h>
#include <tslb/redo_applier.h>
#include <unistd.h>

#include <array>

#include "journal/journal_reader.h"
#include "journal/log.h"
#include "store/manifest.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

// An array that records name by its table.
struct Target {
  const char *name;
  uint32_t table;
  DynArrHandle_t *array;
  uint8_t kind;
  uint32_t most_slots;
};

constexpr uint32_t MOST_SERIES = 1u << 28;

class Replay {
 public:
  Replay(std::string path, const StoreArrays &arrays)
      : path_(std::move(path)),
        targets_{
            {{"catalogue", CATALOGUE_TABLE, arrays.catalogue.get(), ARRAY_LOAD_ANY, MOST_SERIES},
             {"keys", static_cast<uint32_t>(KEYS_TABLE), arrays.keys.get(), ARRAY_LOAD_POOL, MOST_KEY_SLOTS},
             {"points", static_cast<uint32_t>(POINTS_TABLE), arrays.points.get(), ARRAY_LOAD_POOL, MOST_POINT_SLOTS}}} {
  }

  void apply(const RedoRecord &record) const {
    const redo_args_t plain = {record.txn_id,          record.rec_type, record.ctx_name.data(),
                               record.ctx_name.size(), record.tbl_id,   record.data_off,
                               record.aux_idx,         record.data_ptr, record.data_sz};
    for (const Target &target : targets_) {
      if (target.table != record.tbl_id) continue;
      char why[256];
      if (redo_apply(target.array, &plain, target.kind, target.most_slots, why, sizeof why) == 0) return;
      throw ReplayFailed(fmt::format("{}: a record of the {} does not go with it: {}", path_, target.name, why));
    }
    throw ReplayFailed(fmt::format("{}: a record of table {}, which is none of ours", path_, record.tbl_id));
  }

  void check() const {
    for (const Target &target : targets_) {
      char why[256];
      if (array_check(target.array, target.kind, why, sizeof why) != 0)
        throw ReplayFailed(fmt::format("{}: leaves damaged {}: {}", path_, target.name, why));
    }
  }

 private:
  const std::string path_;
  const std::array<Target, 3> targets_;
};

}  // namespace

Replayed replay_journal(const std::string &path, uint64_t generation, bool salvage, const StoreArrays &arrays,
                        StoreConfig &config, StoreState &state) {
  Replayed replayed;
  if (access(path.c_str(), F_OK) != 0) return replayed;
  const Replay replay(path, arrays);
  const JournalVisitor visitor = {
      .record = [&](const RedoRecord &record) { replay.apply(record); },
      .commit =
          [&](std::string_view figures, uint64_t position) {
            try {
              read_figures(figures, config, state);
            } catch (const ManifestError &error) {
              throw ReplayFailed(fmt::format("{}: the commit mark ahead of byte {}: {}", path, position, error.what()));
            }
          },
  };
  const ScanResult scanned = scan_journal(path, visitor, salvage);
  // Of a head that cannot be read there is no number to compare, and nothing that was applied.
  const bool has_head = scanned.end != JournalEnd::damaged || scanned.n_batches != 0;
  if (has_head && scanned.place.generation != generation)
    throw ReplayFailed(fmt::format("{}: follows generation {}, not {}", path, scanned.place.generation, generation));
  replay.check();
  TSLB_DLOG(LOG_PROGRESS, "%s: %llu batches, %llu records, %llu bytes cut", path.c_str(),
            static_cast<unsigned long long>(scanned.n_batches), static_cast<unsigned long long>(scanned.n_records),
            static_cast<unsigned long long>(scanned.bytes_cut));
  return {true,
          scanned.place,
          scanned.n_batches,
          scanned.n_records,
          scanned.bytes_cut,
          scanned.end == JournalEnd::damaged,
          scanned.what};
}

}  // namespace metricdb
