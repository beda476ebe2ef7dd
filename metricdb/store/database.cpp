#include "store/database.h"

#include <fmt/format.h>
#include <sys/file.h>
#include <tslb/array_settle.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "journal/log.h"
#include "store/layout.h"
#include "store/replay.h"

namespace metricdb {
namespace {

// Chunks that an incomplete batch reserved in the current slot of a pool are dead. They are marked deleted, so that the
// slot can be released later.
void settle(const StoreArrays &arrays, const std::string &folder) {
  for (DynArrHandle_t *const pool : {arrays.keys.get(), arrays.points.get()})
    if (array_settle(pool) != 0)
      throw DatabaseError(fmt::format("{}: the cursor of a pool names a slot without memory", folder));
}

void convert_layout(uint8_t layout, StoreArrays &arrays, StoreConfig &config) {
  if (layout > config.layout)
    throw DatabaseError(fmt::format("the catalogue has layout {}, and cannot be converted to the newer layout {}",
                                    config.layout, layout));
  if (layout == config.layout) return;
  arrays.catalogue = convert_catalogue(arrays.catalogue.get(), layout);
  config.layout = layout;
}

}  // namespace

std::string LoadedDatabase::warnings() const {
  std::string lines;
  for (const std::string &line : {skipped, journal ? journal->warning() : ""})
    if (!line.empty()) lines += line + "\n";
  return lines;
}

Database::Database(std::string folder, Use use) : folder_(std::move(folder)) {
  while (folder_.size() > 1 && folder_.back() == '/') folder_.pop_back();
  if (use == Use::create) {
    const bool is_new = make_folder_if_missing(folder_);
    if (is_new) File::folder(folder_of(folder_)).sync();
    may_be_removed_ = is_new;
  }
  File opened = File::folder(folder_);
  if (use == Use::read) return;
  if (flock(opened.fd(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) throw DatabaseError(folder_ + ": another process is writing to it");
    fail_file(folder_, "cannot be locked");
  }
  lock_.emplace(std::move(opened));
}

Database::~Database() {
  if (!may_be_removed_) return;
  try {
    remove_folder_if_empty(folder_);
  } catch (const FileError &) {
    // The empty folder stays, and can be used later.
  }
}

std::vector<uint64_t> Database::generations() const {
  std::vector<uint64_t> numbers;
  for_each_name(folder_, [&numbers](const std::string &name) {
    if (const std::optional<uint64_t> number = number_of(name)) numbers.push_back(*number);
  });
  std::sort(numbers.rbegin(), numbers.rend());
  return numbers;
}

std::optional<uint64_t> Database::newest() const {
  const std::vector<uint64_t> numbers = generations();
  return numbers.empty() ? std::nullopt : std::optional(numbers.front());
}

bool Database::is_empty() const {
  if (newest()) return false;
  expect_no_orphan(0);
  return true;
}

std::string Database::journal_path(uint64_t generation) const {
  return fmt::format("{}/{}{}", folder_, JOURNAL_PREFIX, generation);
}

// A journal without its generation cannot be used, but must not be ignored: it contains acknowledged batches.
void Database::expect_no_orphan(uint64_t newest) const {
  for_each_name(folder_, [this, newest](const std::string &name) {
    const std::optional<uint64_t> number = number_of(name, JOURNAL_PREFIX);
    if (number && *number > newest)
      throw DatabaseError(fmt::format("{}: its generation is missing", journal_path(*number)));
  });
}

LoadedDatabase Database::open(const OpenOptions &options) const {
  for (bool is_retry = false;; is_retry = true) {
    const std::optional<uint64_t> number = newest();
    if (!number) {
      expect_no_orphan(0);
      throw DatabaseError(folder_ + ": holds no database");
    }
    OpenOutcome outcome = open_generation(*number, options);
    // A writer has put the next generation in place, and has removed files of this one, perhaps before they were read.
    if (newest() != number) continue;
    if (outcome.database) return std::move(*outcome.database);
    // A writer that withdraws a refused batch overwrites the end of the journal. Real damage is there on the second
    // read.
    if (outcome.is_journal_damaged && !is_retry) continue;
    if (!options.salvage) throw DatabaseError(outcome.failure);
    return open_older(*number, options, outcome.failure);
  }
}

// A generation has the content of its predecessor and that one's journal, so an older generation leads to the same
// state.
LoadedDatabase Database::open_older(uint64_t newest, const OpenOptions &options, const std::string &why) const {
  for (const uint64_t number : generations()) {
    if (number >= newest) continue;
    OpenOutcome outcome = open_generation(number, options);
    if (!outcome.database) continue;
    outcome.database->skipped = fmt::format("{}; generation {} and the following journals were opened", why, number);
    return std::move(*outcome.database);
  }
  throw DatabaseError(why);
}

// Applies the journal of a generation; with `salvage` also those of the following generations.
std::optional<ScanResult> Database::replay(uint64_t number, bool salvage, const StoreArrays &arrays,
                                           StoreConfig &config, StoreState &state) const {
  const uint64_t last = salvage ? newest().value_or(number) : number;
  auto scan = replay_journal(journal_path(number), number, salvage, arrays, config, state);
  while (number < last && (!scan || scan->fault.empty())) {
    ++number;
    scan = replay_journal(journal_path(number), number, salvage, arrays, config, state);
  }
  return scan;
}

// Every reason why a generation cannot be opened becomes an outcome here.
Database::OpenOutcome Database::open_generation(uint64_t number, const OpenOptions &options) const {
  OpenOutcome outcome;
  try {
    outcome = load_generation(number, options);
  } catch (const std::runtime_error &error) {
    outcome.failure = error.what();
  }
  if (!outcome.database && options.salvage) TSLB_DLOG(LOG_REFUSALS, "%s", outcome.failure.c_str());
  return outcome;
}

Database::OpenOutcome Database::load_generation(uint64_t number, const OpenOptions &options) const {
  if (!options.salvage) expect_no_orphan(number);
  const std::string folder = generation_path(folder_, number);
  GenerationInfo info;
  info.number = number;
  const Manifest manifest = read_manifest_file(folder, info.manifest_bytes);
  info.kind = manifest.kind;
  info.layout = manifest.config.layout;
  StoreArrays arrays;
  arrays.catalogue = load_array(folder, manifest, 0, info.arrays[0]);
  arrays.keys = load_array(folder, manifest, 1, info.arrays[1]);
  arrays.points = load_array(folder, manifest, 2, info.arrays[2]);
  StoreConfig config = manifest.config;
  StoreState state = manifest.state;
  const std::optional<ScanResult> journal = replay(number, options.salvage, arrays, config, state);
  if (journal && journal->end == JournalEnd::damaged && !options.salvage) return {{}, journal->fault, true};
  settle(arrays, folder);
  if (options.layout) convert_layout(*options.layout, arrays, config);
  try {
    Store store(config, std::move(arrays), state);
    TSLB_DLOG(LOG_PROGRESS, "%s: opened, %u series, %llu points", folder.c_str(), store.n_series(),
              static_cast<unsigned long long>(store.n_points()));
    return {LoadedDatabase{std::move(store), info, journal, {}}};
  } catch (const StoreDamaged &damage) {
    const bool is_array = damage.where() != StoreDamaged::Where::state;
    const auto array = static_cast<size_t>(damage.where());
    // After a replay the fault is not in one file.
    if (journal && journal->n_batches != 0)
      return {{},
              fmt::format("{} with {}: {}{}", folder, journal_path(number),
                          is_array ? fmt::format("{}: ", ARRAY_NAMES[array]) : "", damage.what())};
    const std::string file = is_array ? file_of_slot(manifest, array, damage.slot_index()) : MANIFEST;
    return {{}, fmt::format("{}/{}: {}", folder, file, damage.what())};
  }
}

}  // namespace metricdb
