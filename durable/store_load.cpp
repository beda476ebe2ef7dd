#include "store_load.h"

#include <fmt/format.h>
#include <tslb/array_check.h>
#include <tslb/array_loader.h>
#include <tslb/array_settle.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <thread>
#include <tuple>
#include <utility>

#include "beside.h"
#include "changes.h"
#include "store_error.h"
#include "stream_source.h"

namespace tslb_durable {
namespace {

constexpr uint64_t MIN_PARALLEL_BYTES = 1 << 20;
constexpr int MAX_TRIES = 10;  // of a reader whose files are replaced

uint8_t load_kind_of(tslb_array_kind_t kind) {
  return is_pool(kind) ? ARRAY_LOAD_POOL : ARRAY_LOAD_ANY;
}

void expect_file(const std::string &path, const FileSum &found, const StoredFile &expected) {
  if (found.bytes != expected.bytes)
    throw damaged(path, fmt::format("has {} bytes, expected {}", found.bytes, expected.bytes));
  if (found.crc32c != expected.crc32c)
    throw damaged(path, fmt::format("has the checksum {:08x}, expected {:08x}", found.crc32c, expected.crc32c));
}

std::string stream_path(const std::string &folder, const StoredArrayEntry &entry) {
  return folder + "/" + stream_name(entry.name);
}

// One stored array. The checksum of a long file is computed beside the loading.
Array load_array(const File &file, const StoredArrayEntry &entry) {
  const std::string &path = file.path();
  std::future<FileSum> sum = run_beside(entry.file.bytes > MIN_PARALLEL_BYTES, [&file] { return sum_of(file); });
  array_load_options_t options = {};
  options.ctx_name = entry.name.c_str();
  options.tbl_id = entry.tbl_id;
  options.mem_type = MPOOL_TYPE_DRAM;
  options.kind = load_kind_of(entry.kind);
  options.rec_version = entry.rec_version;
  options.record_size = entry.record_bytes;
  char why[256];
  StreamSource source(file, entry.is_compressed);
  Array array(array_load_stream(source.fd(), &options, why, sizeof why));
  source.finish();
  expect_file(path, sum.get(), entry.file);
  if (!array) expect_memory(why);
  if (!array) throw damaged(path, why);
  if (array->daflag != entry.daflag || tslb_da_get_size(array.get()) != entry.n_slots ||
      array->n_direct != entry.n_direct)
    throw damaged(path, "is not the array that the manifest describes");
  return array;
}

// Loads one generation with its journals.
class Loading {
 public:
  Loading(std::string folder, const LoadOptions &options, LoadedStore &loaded)
      : folder_(std::move(folder)), options_(options), loaded_(loaded) {}

  void load_generation(uint64_t number, const std::vector<JournalState> &journals);
  void load_journals(const std::vector<JournalState> &journals);
  void check_arrays();

 private:
  void hold(const std::string &path);
  void read_payload(const std::string &folder);
  void load_arrays(const std::string &folder);
  void scan(const JournalState &journal);
  bool is_left_out(std::string_view body);
  void count_bytes();
  void report_done(uint64_t bytes);

  const std::string folder_;
  const LoadOptions &options_;
  LoadedStore &loaded_;
  std::map<std::string, File> files_;  // streams and journals, by path
  std::vector<ReplayTarget> targets_;
  std::string payload_;  // of the journals
  bool has_payload_ = false;
  uint64_t done_bytes_ = 0;  // for the callback of the host
  uint64_t all_bytes_ = 0;
  bool is_gap_ = false;  // a journal ended without a seal
  bool leaves_out_ = false;
};

// Opens a file before the first one is read, and keeps it: a writer can replace the generation meanwhile, and removes the
// names. The lock keeps it from shortening the file.
void Loading::hold(const std::string &path) {
  const File &file = files_.emplace(path, File::open(path)).first->second;
  if (!file.try_lock(false)) throw StoreError(TSLB_DURABLE_IO, path + ": is being removed", path);
}

void Loading::read_payload(const std::string &folder) {
  if (!loaded_.manifest.payload) return;
  const std::string path = folder + "/" + PAYLOAD;
  const File file = File::open(path);
  expect_file(path, sum_of(file), *loaded_.manifest.payload);
  const std::string text = text_of(file, MAX_PAYLOAD_BYTES);
  loaded_.payload.assign(text.begin(), text.end());
  loaded_.has_payload = true;
}

void Loading::count_bytes() {
  for (const auto &[path, file] : files_) all_bytes_ += file.bytes();
}

void Loading::report_done(uint64_t bytes) {
  done_bytes_ = std::min(all_bytes_, done_bytes_ + bytes);
  if (options_.progress) options_.progress(done_bytes_, all_bytes_);
}

void Loading::load_generation(uint64_t number, const std::vector<JournalState> &journals) {
  const std::string folder = generation_path(folder_, number);
  loaded_.generation = number;
  loaded_.manifest = read_manifest(folder);
  const Manifest &manifest = loaded_.manifest;
  const std::string path = folder + "/" + MANIFEST;
  if (manifest.identity != loaded_.state.identity) throw damaged(path, "is the generation of another store");
  if (manifest.generation != number) throw damaged(path, fmt::format("is generation {}", manifest.generation));
  loaded_.position = manifest.position;
  for (const StoredArrayEntry &entry : manifest.arrays) hold(stream_path(folder, entry));
  for (const JournalState &journal : journals)
    if (const std::string journal_file = journal_path(folder_, journal.number); access(journal_file.c_str(), F_OK) == 0)
      hold(journal_file);
  read_payload(folder);
  count_bytes();
  load_arrays(folder);
}

// Several arrays at a time. The fault of the first one is reported.
void Loading::load_arrays(const std::string &folder) {
  const std::vector<StoredArrayEntry> &entries = loaded_.manifest.arrays;
  const size_t n_at_once = std::max(std::thread::hardware_concurrency(), 1u);
  std::vector<std::future<Array>> loads;
  for (size_t i = 0; i < entries.size(); ++i) {
    for (; loads.size() < std::min(entries.size(), i + n_at_once);) {
      const StoredArrayEntry &entry = entries[loads.size()];
      const File &file = files_.at(stream_path(folder, entry));
      loads.push_back(
          run_beside(entry.file.bytes > MIN_PARALLEL_BYTES, [&file, &entry] { return load_array(file, entry); }));
    }
    loaded_.arrays.push_back(loads[i].get());
    targets_.push_back({loaded_.arrays.back().get(), entries[i].kind});
    report_done(entries[i].file.bytes);
  }
}

// Returns whether the caller does not want this group or one before it.
bool Loading::is_left_out(std::string_view body) {
  const auto position = options_.keeps ? position_in(body) : std::nullopt;
  if (!position || options_.keeps(body, *position)) return leaves_out_;
  if (!leaves_out_)
    loaded_.warn(
        fmt::format("{}: the groups from {} of epoch {} on are left out", folder_, position->number, position->epoch));
  loaded_.is_salvaged = leaves_out_ = true;
  return true;
}

// Applies a journal. Throws StoreError if it is damaged, or is not the one that the state describes.
void Loading::scan(const JournalState &journal) {
  const std::string path = journal_path(folder_, journal.number);
  const auto held = files_.find(path);
  if (held == files_.end()) throw damaged(path, "is missing");
  uint64_t done_at = 0;
  const ScanResult scan = scan_journal(held->second, {loaded_.state.identity, journal.number},
                                       [&](std::string_view body, uint64_t position) {
                                         // The arrays lack the end of the journal before, so later groups do not fit them.
                                         if (is_gap_) return std::string("a group after a journal without a seal");
                                         report_done(position - std::exchange(done_at, position));
                                         if (is_left_out(body)) return std::string();
                                         return apply_body(body, targets_, payload_, has_payload_, loaded_.position);
                                       });
  report_done(scan.bytes - done_at);
  loaded_.journals.push_back({scan.place, scan.is_sealed && scan.bytes == scan.place.position});
  loaded_.is_sealed = scan.is_sealed;
  loaded_.journal_bytes += scan.place.position;
  loaded_.n_batches += scan.n_batches;
  loaded_.cut_bytes += scan.bytes_cut;
  is_gap_ |= !scan.is_sealed;
  const bool must_be_whole = journal.is_sealed;
  if (scan.end == JournalEnd::damaged || (must_be_whole && !scan.fault.empty()))
    throw StoreError(TSLB_DURABLE_DAMAGED, scan.fault, path, scan.fault_at);
  if (must_be_whole && scan.bytes != journal.bytes)
    throw damaged(path, fmt::format("has {} bytes, but was sealed with {}", scan.bytes, journal.bytes));
  if (must_be_whole && (!scan.is_sealed || scan.place.crc32c != journal.crc32c))
    throw damaged(path, "is not the journal that was sealed");
  if (!scan.fault.empty()) loaded_.warn(fmt::format("{}; {} bytes were cut", scan.fault, scan.bytes_cut));
}

void Loading::load_journals(const std::vector<JournalState> &journals) {
  try {
    for (const JournalState &journal : journals) scan(journal);
  } catch (const StoreError &error) {
    if (error.code() != TSLB_DURABLE_DAMAGED || !options_.salvage) throw;
    loaded_.is_salvaged = loaded_.is_damaged = true;
    loaded_.warn(fmt::format("{}; what follows is lost", error.what()));
  }
  if (!has_payload_) return;
  loaded_.payload.assign(payload_.begin(), payload_.end());
  loaded_.has_payload = true;
}

// The arrays are checked as wholes after the last group: lists and counters are consistent at the end of a group only.
void Loading::check_arrays() {
  for (const ReplayTarget &target : targets_) {
    char why[256];
    if (array_check(target.array, load_kind_of(target.kind), why, sizeof why) != 0) {
      expect_memory(why);
      throw StoreError(TSLB_DURABLE_DAMAGED, fmt::format("{}: array \"{}\": {}", folder_, target.array->ctx_name, why),
                       folder_);
    }
    if (is_pool(target.kind) && array_settle(target.array) != 0)
      throw StoreError(
          TSLB_DURABLE_DAMAGED,
          fmt::format("{}: array \"{}\": the cursor names a slot without memory", folder_, target.array->ctx_name),
          folder_);
  }
}

LoadedStore load_from(const std::string &folder, const StoreState &state, uint64_t generation,
                      const std::vector<JournalState> &journals, const LoadOptions &options, std::string warning = {}) {
  LoadedStore loaded;
  loaded.state = state;
  loaded.warning = std::move(warning);
  Loading loading(folder, options, loaded);
  loading.load_generation(generation, journals);
  loading.load_journals(journals);
  loading.check_arrays();
  return loaded;
}

// Returns whether the journals of one generation fit the arrays of the other.
bool have_same_arrays(const Manifest &one, const Manifest &other) {
  return std::equal(
      one.arrays.begin(), one.arrays.end(), other.arrays.begin(), other.arrays.end(),
      [](const StoredArrayEntry &a, const StoredArrayEntry &b) {
        return std::tie(a.name, a.kind, a.has_compat, a.tbl_id, a.rec_version, a.daflag, a.record_bytes, a.n_direct) ==
               std::tie(b.name, b.kind, b.has_compat, b.tbl_id, b.rec_version, b.daflag, b.record_bytes, b.n_direct);
      });
}

// The journals since a generation, and why later ones are not among them.
struct Chain {
  std::vector<JournalState> journals;
  std::string end;
};

// The chain ends at a missing journal, and at a generation with other arrays, to which no journal leads.
Chain chain_since(const std::string &folder, const StoreState &state, uint64_t generation) {
  Chain chain;
  const Manifest manifest = read_manifest(generation_path(folder, generation));
  for (uint64_t number = generation; number <= state.journals.back().number; ++number) {
    const std::string journal = journal_path(folder, number), next = generation_path(folder, number);
    if (access(journal.c_str(), F_OK) != 0) chain.end = journal + ": is missing";
    try {
      if (access(next.c_str(), F_OK) == 0 && !have_same_arrays(manifest, read_manifest(next)))
        chain.end = next + ": has other arrays than the generation before";
    } catch (const StoreError &) {
      // This can be the damage. A generation to which no journal leads replaces all older ones when it is written.
    }
    if (!chain.end.empty()) break;
    chain.journals.push_back({number, false, 0, 0});
  }
  return chain;
}

// An older generation with the journals since then leads to the same state, if none of them is missing.
std::optional<LoadedStore> load_older(const std::string &folder, const StoreState &state, const LoadOptions &options,
                                      const std::string &why) {
  std::vector<uint64_t> generations;
  for_each_name(folder, [&](const std::string &name) {
    if (const auto number = number_of(name, GENERATION_PREFIX)) generations.push_back(*number);
  });
  std::sort(generations.rbegin(), generations.rend());
  for (const uint64_t generation : generations) {
    if (generation >= state.generation) continue;
    try {
      const Chain chain = chain_since(folder, state, generation);
      LoadedStore loaded =
          load_from(folder, state, generation, chain.journals, options,
                    fmt::format("{}; generation {} and the journals since it were used", why, generation));
      loaded.is_salvaged = loaded.is_damaged = true;
      if (!chain.end.empty()) loaded.warn(chain.end + "; what follows is lost");
      return loaded;
    } catch (const StoreError &) {
      // The next one may be sound.
    }
  }
  return std::nullopt;
}

StoreState read_complete_state(const std::string &folder) {
  const StoreState state = read_state(folder);
  if (state.generation == 0)
    throw StoreError(TSLB_DURABLE_NO_STORE, folder + ": the creation of this store did not end", folder);
  return state;
}

bool is_about_files(const StoreError &error) {
  return error.code() == TSLB_DURABLE_IO || error.code() == TSLB_DURABLE_DAMAGED;
}

// Returns whether a failure can be due to a writer that has replaced the generation, or withdraws a refused batch. Real
// damage is there on the second read.
bool can_be_repeated(const std::string &folder, const StoreState &state, int n_tries) {
  return n_tries < MAX_TRIES && (n_tries == 1 || read_state(folder).generation != state.generation);
}

}  // namespace

Manifest read_newest_manifest(const std::string &folder) {
  for (int n_tries = 1;; ++n_tries) {
    const StoreState state = read_complete_state(folder);
    try {
      return read_manifest(generation_path(folder, state.generation));
    } catch (const StoreError &error) {
      if (!is_about_files(error) || !can_be_repeated(folder, state, n_tries)) throw;
    }
  }
}

LoadedStore load_store(const std::string &folder, const LoadOptions &options) {
  for (int n_tries = 1;; ++n_tries) {
    const StoreState state = read_complete_state(folder);
    try {
      return load_from(folder, state, state.generation, state.journals, options);
    } catch (const StoreError &error) {
      if (is_about_files(error) && can_be_repeated(folder, state, n_tries)) continue;
      if (!options.salvage || !is_about_files(error)) throw;
      if (std::optional<LoadedStore> older = load_older(folder, state, options, error.what())) return std::move(*older);
      throw;
    }
  }
}

}  // namespace tslb_durable
