#include "store/database.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <tslb/array_loader.h>
#include <tslb/array_settle.h>
#include <tslb/block_files.h>
#include <tslb/tslb_settings.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>

#include "journal/journal_reader.h"
#include "journal/log.h"
#include "store/layout.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view PREFIX = "generation.";
constexpr std::string_view JOURNAL_PREFIX = "journal.";
constexpr std::string_view UNFINISHED = ".new";
constexpr size_t MOST_DIGITS = 18;  // so that the next number is one too
constexpr const char *MANIFEST = "manifest";
constexpr size_t MOST_MANIFEST_BYTES = 64 << 20;
constexpr size_t MOST_BASE_PATH = 1023;  // beyond it the library ends the process
constexpr uint64_t SLOTS_PER_BLOCK = 16;
constexpr uint64_t MOST_HEADER_BYTES = 1 << 17;  // of block 0: more than any user header
constexpr int TABLES[] = {CATALOGUE_TABLE, KEYS_TABLE, POINTS_TABLE};

// "generation.7" has number 7; nothing else with that prefix in a folder has one.
std::optional<uint64_t> number_of(std::string_view name, std::string_view prefix = PREFIX) {
  if (!name.starts_with(prefix)) return std::nullopt;
  const std::string_view digits = name.substr(prefix.size());
  uint64_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (digits.size() > MOST_DIGITS || std::to_string(number) != digits) return std::nullopt;
  return number;
}

std::string generation_path(const std::string &folder, uint64_t number) {
  return fmt::format("{}/{}{}", folder, PREFIX, number);
}

template <class Take>
void for_each_name(const std::string &folder, Take take) {
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    take(it->path().filename().string());
  if (error) throw FileError(fmt::format("{}: cannot be read: {}", folder, error.message()));
}

// What cannot be removed now, the next writer tries again: nothing reads it.
void remove_folder(const std::string &path) {
  try {
    remove_tree(path);
  } catch (const FileError &error) {
    TSLB_DLOG(LOG_PROGRESS, "%s", error.what());
  }
}

// ---- Files of an array ----

std::string stream_name(size_t array) {
  return fmt::format("{}.stream", ARRAY_NAMES[array]);
}

std::string block_name(int32_t table, uint64_t block) {
  return fmt::format("{}/{}.{}.darr", CONTEXT, table, block);
}

// Block 0 and the data blocks that hold slots in use.
uint64_t blocks_of(const StoredArray &array) {
  const uint64_t beyond = array.n_slots > array.n_direct ? array.n_slots - array.n_direct : 0;
  return 1 + (beyond + SLOTS_PER_BLOCK - 1) / SLOTS_PER_BLOCK;
}

std::string file_name(StoreKind kind, const StoredArray &array, size_t number, uint64_t block) {
  return kind == StoreKind::snapshot ? stream_name(number) : block_name(array.table, block);
}

// The file that slot `index` of an array lies in.
std::string file_of_slot(const Manifest &manifest, size_t number, uint32_t index) {
  const StoredArray &array = manifest.arrays[number];
  const bool is_in_block0 = index == StoreDamaged::NO_SLOT || index < array.n_direct;
  return file_name(manifest.kind, array, number, is_in_block0 ? 0 : (index - array.n_direct) / SLOTS_PER_BLOCK + 1);
}

// ---- Reading ----

Manifest manifest_of(const std::string &folder, uint64_t &bytes) {
  const File file = File::open(folder + "/" + MANIFEST);
  const std::string text = text_of(file, MOST_MANIFEST_BYTES);
  bytes = text.size();
  try {
    return read_manifest(text);
  } catch (const ManifestError &error) {
    throw DatabaseError(fmt::format("{}: {}", file.path(), error.what()));
  }
}

// The manifest names just the files that its arrays are read from, so that none goes unchecked.
void expect_files(const std::string &folder, const Manifest &manifest) {
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    const StoredArray &array = manifest.arrays[i];
    const auto refuse = [&](const std::string &what) {
      throw DatabaseError(fmt::format("{}/{}: array {}: {}", folder, MANIFEST, ARRAY_NAMES[i], what));
    };
    if (array.table != TABLES[i]) refuse(fmt::format("table {}, which is not {}", array.table, TABLES[i]));
    const uint64_t n_files = manifest.kind == StoreKind::snapshot ? 1 : blocks_of(array);
    if (array.files.size() != n_files) refuse(fmt::format("{} files, and it has {}", array.files.size(), n_files));
    for (uint64_t block = 0; block < n_files; ++block) {
      const std::string name = file_name(manifest.kind, array, i, block);
      if (array.files[block].name != name) refuse(fmt::format("file \"{}\", not {}", array.files[block].name, name));
    }
  }
}

void expect_sum(const std::string &path, const FileSum &sum, const StoredFile &told) {
  if (sum.bytes != told.bytes)
    throw DatabaseError(fmt::format("{}: {} bytes long, the manifest says {}", path, sum.bytes, told.bytes));
  if (sum.crc32c != told.crc32c)
    throw DatabaseError(
        fmt::format("{}: its CRC-32C is {:08x}, the manifest says {:08x}", path, sum.crc32c, told.crc32c));
}

Array load_array(const std::string &folder, const Manifest &manifest, size_t number, ArrayFiles &found) {
  const StoredArray &told = manifest.arrays[number];
  array_load_options_t options = {};
  options.ctx_name = CONTEXT;
  options.tbl_id = told.table;
  options.mem_type = MPOOL_TYPE_DRAM;
  options.kind = number == 0 ? ARRAY_LOAD_ANY : ARRAY_LOAD_POOL;
  options.rec_version = number == 0 ? manifest.config.layout : POOL_RECORD_VERSION;
  options.record_size =
      number == 0 ? static_cast<uint32_t>(series_record_bytes(manifest.config.layout)) : ARRAY_LOAD_ANY_SIZE;
  options.max_block_bytes =
      MOST_HEADER_BYTES + uint64_t{told.slot_bytes} * std::max<uint64_t>(told.n_direct, SLOTS_PER_BLOCK);

  char why[512];
  Array array;
  for (const StoredFile &stored : told.files) {
    const File file = File::open(folder + "/" + stored.name);
    const FileSum sum = sum_of(file);
    expect_sum(file.path(), sum, stored);
    ++found.n_files;
    found.bytes += sum.bytes;
    found.allocated_bytes += sum.allocated_bytes;
    if (manifest.kind == StoreKind::shm) continue;
    array.reset(array_load_stream(file.fd(), &options, why, sizeof why));
    if (!array) throw DatabaseError(fmt::format("{}: {}", file.path(), why));
  }
  if (manifest.kind == StoreKind::shm) {
    array.reset(array_load_block_files(folder.c_str(), &options, why, sizeof why));
    if (!array) throw DatabaseError(why);  // which begins with the file
  }
  const uint32_t n_slots = tslb_da_get_size(array.get());
  const uint32_t slot_bytes = tslb_da_get_slotsz(array.get(), nullptr);
  if (n_slots != told.n_slots || array->n_direct != told.n_direct || slot_bytes != told.slot_bytes)
    throw DatabaseError(fmt::format("{}/{}: {} slots of {} bytes, {} of them direct; the manifest says {} of {}, {}",
                                    folder, told.files[0].name, n_slots, slot_bytes, array->n_direct, told.n_slots,
                                    told.slot_bytes, told.n_direct));
  TSLB_DLOG(LOG_DETAILS, "%s: %s, %u slots in %llu files, %llu bytes", folder.c_str(), ARRAY_NAMES[number], n_slots,
            static_cast<unsigned long long>(found.n_files), static_cast<unsigned long long>(found.bytes));
  return array;
}

// What a batch that was cut off reserved in a pool's current slot is dead. Otherwise the slot would never be released.
void settle(const StoreArrays &arrays, const std::string &folder) {
  for (DynArrHandle_t *const pool : {arrays.keys.get(), arrays.points.get()})
    if (array_settle(pool) != 0)
      throw DatabaseError(fmt::format("{}: the cursor of a pool names a slot without memory", folder));
}

void take_to_layout(uint8_t layout, StoreArrays &arrays, StoreConfig &config) {
  if (layout > config.layout)
    throw DatabaseError(
        fmt::format("the catalogue has layout {}, and none is taken up to layout {}", config.layout, layout));
  if (layout == config.layout) return;
  arrays.catalogue = taken_down(arrays.catalogue.get(), layout);
  config.layout = layout;
}

// ---- Writing ----

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
  ++written.n_files;
  written.bytes += sum.bytes;
  written.allocated_bytes += sum.allocated_bytes;
  return {std::move(name), sum.bytes, sum.crc32c};
}

}  // namespace

uint64_t Stored::bytes() const {
  uint64_t sum = manifest_bytes;
  for (const ArrayFiles &files : arrays) sum += files.bytes;
  return sum;
}

std::string Opened::found() const {
  std::string lines;
  for (const std::string &line : {passed_over, journal.what})
    if (!line.empty()) lines += line + "\n";
  return lines;
}

uint64_t Stored::allocated_bytes() const {
  uint64_t sum = 0;
  for (const ArrayFiles &files : arrays) sum += files.allocated_bytes;
  return sum;
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
    // It stays, empty: the next use of it takes it as it is.
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

// A journal whose generation is gone holds what nobody can use, and is not to be taken for nothing.
void Database::expect_no_orphan(uint64_t newest) const {
  for_each_name(folder_, [this, newest](const std::string &name) {
    const std::optional<uint64_t> number = number_of(name, JOURNAL_PREFIX);
    if (number && *number > newest)
      throw DatabaseError(fmt::format("{}: follows a generation that is not there", journal_path(*number)));
  });
}

Opened Database::open(const OpenOptions &options) const {
  for (bool is_second_try = false;; is_second_try = true) {
    const std::optional<uint64_t> number = newest();
    if (!number) {
      expect_no_orphan(0);
      throw DatabaseError(folder_ + ": holds no database");
    }
    try {
      if (!options.salvage) expect_no_orphan(*number);
      Opened opened = open_generation(*number, options);
      // A writer that put the next one into place meanwhile has taken the journal away, perhaps ahead of us.
      if (newest() == number) return opened;
    } catch (const std::runtime_error &error) {
      if (newest() != number) continue;
      // Beside a writer that takes a refused batch back: what stands still looks the same again.
      if (!is_second_try && dynamic_cast<const JournalDamaged *>(&error) != nullptr) continue;
      if (!options.salvage) throw;
      return open_older(*number, options, error.what());
    }
  }
}

// A generation is its predecessor with the journal behind that one, so an older one leads to the same state.
Opened Database::open_older(uint64_t newest, const OpenOptions &options, const std::string &why) const {
  for (const uint64_t number : generations()) {
    if (number >= newest) continue;
    try {
      Opened opened = open_generation(number, options);
      opened.passed_over = fmt::format("{}; generation {} and what follows it was opened", why, number);
      return opened;
    } catch (const std::runtime_error &error) {
      TSLB_DLOG(LOG_REFUSALS, "%s", error.what());
    }
  }
  throw DatabaseError(why);
}

// The journal behind a generation, and with an older one those that follow.
Replayed Database::replay(uint64_t number, bool salvage, const StoreArrays &arrays, StoreConfig &config,
                          StoreState &state) const {
  const uint64_t last = salvage ? newest().value_or(number) : number;
  Replayed replayed = replay_journal(journal_path(number), number, salvage, arrays, config, state);
  while (number < last && replayed.what.empty()) {
    ++number;
    replayed = replay_journal(journal_path(number), number, salvage, arrays, config, state);
  }
  return replayed;
}

Opened Database::open_generation(uint64_t number, const OpenOptions &options) const {
  const std::string folder = generation_path(folder_, number);
  Stored stored;
  stored.generation = number;
  const Manifest manifest = manifest_of(folder, stored.manifest_bytes);
  stored.kind = manifest.kind;
  stored.layout = manifest.config.layout;
  expect_files(folder, manifest);
  StoreArrays arrays;
  arrays.catalogue = load_array(folder, manifest, 0, stored.arrays[0]);
  arrays.keys = load_array(folder, manifest, 1, stored.arrays[1]);
  arrays.points = load_array(folder, manifest, 2, stored.arrays[2]);
  StoreConfig config = manifest.config;
  StoreState state = manifest.state;
  const Replayed replayed = replay(number, options.salvage, arrays, config, state);
  settle(arrays, folder);
  if (options.layout) take_to_layout(*options.layout, arrays, config);
  try {
    Store store(config, std::move(arrays), state);
    TSLB_DLOG(LOG_PROGRESS, "%s: opened, %u series, %llu points", folder.c_str(), store.n_series(),
              static_cast<unsigned long long>(store.n_points()));
    return {std::move(store), stored, replayed, {}};
  } catch (const StoreDamaged &damage) {
    const bool is_array = damage.where() != StoreDamaged::Where::state;
    // Once a journal has changed the arrays, no file holds what is wrong.
    if (replayed.n_batches != 0)
      throw DatabaseError(fmt::format(
          "{} with {} behind it: {}{}", folder, journal_path(number),
          is_array ? fmt::format("{}: ", ARRAY_NAMES[static_cast<size_t>(damage.where())]) : "", damage.what()));
    const std::string file =
        is_array ? file_of_slot(manifest, static_cast<size_t>(damage.where()), damage.slot_index()) : MANIFEST;
    throw DatabaseError(fmt::format("{}/{}: {}", folder, file, damage.what()));
  }
}

NewGeneration::NewGeneration(Database &database)
    : database_(database),
      number_(database.newest().value_or(0) + 1),
      folder_(generation_path(database.folder(), number_) + std::string(UNFINISHED)) {
  for_each_name(database.folder(), [&database](const std::string &name) {
    std::string_view stem = name;
    if (!stem.ends_with(UNFINISHED)) return;
    stem.remove_suffix(UNFINISHED.size());
    if (number_of(stem)) remove_folder(database.folder() + "/" + name);
  });
  make_folder(folder_);
}

NewGeneration::~NewGeneration() {
  if (!in_place_) remove_folder(folder_);
}

void NewGeneration::take_block_files() const {
  if (folder_.size() > MOST_BASE_PATH)
    throw DatabaseError(fmt::format("{}: block files need a path of at most {} bytes", folder_, MOST_BASE_PATH));
  tslb_set_base_path(folder_.c_str());
}

Stored NewGeneration::write_streams(const Store &store) {
  // The host's way to have the last memory slot of a pool cut where its chunks end.
  tslb_test_mode = 0;
  lib_config.tslb_enable_file_trimming_flag = 1;
  Manifest manifest = manifest_of(store, StoreKind::snapshot);
  DynArrHandle_t *const arrays[] = {store.catalogue(), store.keys(), store.points()};
  Stored stored;
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    const File file = File::create(folder_ + "/" + stream_name(i));
    size_t ignored = 0;
    if (tslb_create_dump_for_dynarr(arrays[i], file.fd(), 0, &ignored) != 0)
      throw DatabaseError(file.path() + ": the snapshot stream cannot be written");
    manifest.arrays[i].files.push_back(sync_and_sum(file, stream_name(i), stored.arrays[i]));
  }
  finish(manifest, stored);
  return stored;
}

Stored NewGeneration::seal_block_files(const Store &store) {
  Manifest manifest = manifest_of(store, StoreKind::shm);
  DynArrHandle_t *const arrays[] = {store.catalogue(), store.keys(), store.points()};
  Stored stored;
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    tslb_syn_shm_dynarr(arrays[i]);
    StoredArray &array = manifest.arrays[i];
    for (uint64_t block = 0; block < blocks_of(array); ++block) {
      const std::string name = block_name(array.table, block);
      // Synced once more by us: the library's sync tells of a failure on stderr only.
      array.files.push_back(sync_and_sum(File::open(folder_ + "/" + name), name, stored.arrays[i]));
    }
  }
  File::folder(fmt::format("{}/{}", folder_, CONTEXT)).sync();
  stored.kind = StoreKind::shm;
  finish(manifest, stored);
  return stored;
}

void NewGeneration::finish(const Manifest &manifest, Stored &stored) {
  stored.generation = number_;
  stored.layout = manifest.config.layout;
  const std::string text = manifest_text(manifest);
  stored.manifest_bytes = text.size();
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
    if (number && *number < number_) remove_folder(database_.folder() + "/" + name);
  });
}

}  // namespace metricdb
