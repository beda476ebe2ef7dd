// Opening, closing and questions.
#include "store.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sys/file.h>
#include <tslb/tslb_settings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <utility>

using namespace tslb_durable;

namespace {

constexpr int DEFAULT_LEVEL = 1;
constexpr uint32_t MAX_LEVEL = 9;
constexpr std::chrono::seconds MAX_LOCK_WAIT{10};
constexpr std::chrono::milliseconds LOCK_RETRY{2};

bool has(const tslb_store_options_t &options, uint32_t flag) {
  return (options.flags & flag) != 0;
}

int level_of(const tslb_store_options_t &options) {
  if (options.journal_level == 0) return DEFAULT_LEVEL;
  return options.journal_level <= MAX_LEVEL ? static_cast<int>(options.journal_level) : 0;
}

// Returns the process that a lock file names; 0 if it names none.
pid_t named_writer(const File &lock) {
  pid_t writer = 0;
  const ssize_t got = pread(lock.fd(), &writer, sizeof writer, 0);
  return got == static_cast<ssize_t>(sizeof writer) && writer > 0 ? writer : 0;
}

bool has_writer_ended(const File &lock) {
  const pid_t writer = named_writer(lock);
  return writer != 0 && kill(writer, 0) != 0 && errno == ESRCH;
}

// A program that opens a store twice looks for another process in vain. A child has the locks of its parent until it executes
// another program, also after the parent has closed the store.
std::string holder_of(const File &lock) {
  const pid_t writer = named_writer(lock);
  if (writer == 0) return "another writer has the store";
  return writer == getpid() ? "another writer has the store: this process, or a child of it"
                            : fmt::format("another writer has the store: process {}", writer);
}

std::string without_slash(std::string folder) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

std::string absolute_path(const std::string &folder) {
  std::error_code error;
  std::string path = std::filesystem::absolute(folder, error);
  if (!error) return path;
  throw StoreError(TSLB_DURABLE_IO, folder + ": the working folder: " + error.message(), folder, 0, error.value());
}

std::atomic<uint32_t> n_forks{0};

}  // namespace

uint32_t tslb_durable::forks_of_process() noexcept {
  [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, [] { ++n_forks; });
  return n_forks.load(std::memory_order_relaxed);
}

tslb_store_t::tslb_store_t(const std::string &folder, std::vector<ArrayDecl> decls, const tslb_store_options_t &options)
    : folder_(without_slash(folder)),
      decls_(std::move(decls)),
      options_(options),
      is_reader_(has(options, TSLB_STORE_READ_ONLY)),
      is_bulk_(has(options, TSLB_STORE_BULK)),
      log_(options.log != nullptr ? std::optional(*options.log) : std::nullopt),
      level_(level_of(options)),
      event_(File::event()) {
  spare_batches_.reserve(Gate::MAX_INSIDE);
  try {
    open_or_create();
  } catch (...) {
    stop_threads();
    unregister_store(this);
    throw;
  }
}

tslb_store_t::~tslb_store_t() {
  stop_threads();
  unregister_store(this);
}

// ---- Opening -------------------------------------------------------------------------------------------------------

void tslb_store_t::open_or_create() {
  if (is_reader_ && (has(options_, TSLB_STORE_CREATE) || is_bulk_))
    throw StoreError(TSLB_DURABLE_INVALID, "TSLB_STORE_READ_ONLY with TSLB_STORE_CREATE or TSLB_STORE_BULK");
  if (is_bulk_ && has(options_, TSLB_STORE_DETACH))
    throw StoreError(TSLB_DURABLE_INVALID, "TSLB_STORE_BULK with TSLB_STORE_DETACH");
  if (log_ && (is_reader_ || is_bulk_ || has(options_, TSLB_STORE_DETACH)))
    throw StoreError(TSLB_DURABLE_INVALID, "a log with TSLB_STORE_READ_ONLY, TSLB_STORE_BULK or TSLB_STORE_DETACH");
  is_follower_ = log_.has_value();
  if (has(options_, TSLB_STORE_CREATE)) {
    made_folder_ = make_folder_if_missing(folder_);
    if (made_folder_) File::folder(folder_of(folder_)).sync();
    create_store();
  }
  if (!is_reader_) {
    read_state(folder_);  // a folder that is no store gets no lock file
    take_lock();
  }
  if (info_.was_created == 0 || !is_bulk_) load();
  bind_arrays();
  if (is_reader_) return;
  expect_log_is_used();
  folder_ = absolute_path(folder_);
  register_policies();
  if (is_bulk_) return;
  continue_journal();
  register_store(this);
  start_threads();
}

void tslb_store_t::load() {
  LoadOptions load_options = options_of_loading();
  load_options.salvage = has(options_, TSLB_STORE_SALVAGE);
  if (options_.progress != nullptr)
    load_options.progress = [this](uint64_t done, uint64_t all) {
      options_.progress(options_.progress_arg, done, all);
    };
  loaded_.emplace(load_store(folder_, load_options));
  adopt(*loaded_);
}

// Creates the files of an empty store. Its state is written first, with generation 0, so a folder in which the creation
// did not end is known as such.
void tslb_store_t::create_store() {
  StoreState state;
  try {
    state = read_state(folder_);
    if (state.generation != 0) return;
  } catch (const StoreError &error) {
    if (error.code() != TSLB_DURABLE_NO_STORE) throw;
    if (!has(options_, TSLB_STORE_IN_ANY)) expect_empty_folder();
  }
  take_lock();
  // Another process can have created the store meanwhile.
  try {
    state = read_state(folder_);
    if (state.generation != 0) return;
  } catch (const StoreError &error) {
    if (error.code() != TSLB_DURABLE_NO_STORE) throw;
    state.identity = new_identity();
    write_state(folder_, state);
  }
  state_ = state;
  for (const ArrayDecl &decl : decls_) arrays_.push_back(create_array(decl));
  info_.was_created = 1;
  if (is_bulk_) return;
  write_generation_alone(FIRST_GENERATION);
  arrays_.clear();
  journal_.reset();
}

void tslb_store_t::expect_empty_folder() const {
  for_each_name(folder_, [this](const std::string &name) {
    if (name == "lock" || name == "store.new") return;  // of a creation that did not end
    throw StoreError(TSLB_DURABLE_NOT_EMPTY,
                     fmt::format("{}: is not a store and has other content, such as \"{}\"", folder_, name), folder_);
  });
}

// A child that writes a generation has the lock of its parent until its first steps. If the parent is killed just then,
// the lock is free a moment later. So the file names the writer: while a writer that has ended has the lock, it is tried
// again.
void tslb_store_t::take_lock() {
  if (lock_) return;
  File file = File::open_or_create(lock_path(folder_));
  const auto deadline = std::chrono::steady_clock::now() + MAX_LOCK_WAIT;
  while (flock(file.fd(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) fail_file(file.path(), "cannot be locked");
    if (!has_writer_ended(file) || std::chrono::steady_clock::now() > deadline)
      throw StoreError(TSLB_DURABLE_LOCKED, fmt::format("{}: {}", folder_, holder_of(file)), folder_);
    std::this_thread::sleep_for(LOCK_RETRY);
  }
  // Not with the functions for files that a recovery needs. If it fails, the lock is not tried again.
  const pid_t writer = getpid();
  [[maybe_unused]] const ssize_t ignored = pwrite(file.fd(), &writer, sizeof writer, 0);
  lock_.emplace(std::move(file));
}

// Puts the loaded arrays into the order of the declarations. Creates arrays that the store lacks, and converts those of
// an older version.
void tslb_store_t::adopt(LoadedStore &loaded) {
  state_ = loaded.state;
  for (const StoredArrayEntry &entry : loaded.manifest.arrays) {
    const bool is_declared =
        std::any_of(decls_.begin(), decls_.end(), [&](const ArrayDecl &decl) { return decl.name == entry.name; });
    if (!is_declared)
      throw StoreError(TSLB_DURABLE_MISMATCH,
                       fmt::format("{}: has the array \"{}\", which is not declared", folder_, entry.name), folder_);
  }
  for (const ArrayDecl &decl : decls_) {
    const auto &entries = loaded.manifest.arrays;
    const auto entry =
        std::find_if(entries.begin(), entries.end(), [&](const auto &one) { return one.name == decl.name; });
    if (entry == entries.end()) {
      if (is_reader_)
        throw StoreError(TSLB_DURABLE_MISMATCH, fmt::format("{}: has no array \"{}\"", folder_, decl.name), folder_);
      arrays_.push_back(create_array(decl));
      info_.was_upgraded = 1;
      continue;
    }
    Array array = std::move(loaded.arrays[static_cast<size_t>(entry - entries.begin())]);
    const bool is_convertible = decl.convert != nullptr && !is_pool(decl.kind) &&
                                (entry->rec_version < decl.rec_version || decl.converts_newer);
    const bool is_old = entry->rec_version != decl.rec_version && is_convertible;
    std::string why;
    if (entry->kind != decl.kind)
      why = fmt::format("kind {} is stored, but {} is declared", KIND_NAMES[entry->kind], KIND_NAMES[decl.kind]);
    else if (entry->tbl_id != decl.tbl_id)
      why = fmt::format("table id {} is stored, but {} is declared", entry->tbl_id, decl.tbl_id);
    else if (entry->rec_version != decl.rec_version && !is_old)
      why = fmt::format("rec_version {} is stored, but {} is declared", entry->rec_version, decl.rec_version);
    else
      why = mismatch_of(array.get(), decl, !is_old);
    if (!why.empty())
      throw StoreError(TSLB_DURABLE_MISMATCH, fmt::format("{}: array \"{}\": {}", folder_, decl.name, why), folder_);
    if (is_old) {
      array = converted(array.get(), decl, folder_);
      info_.was_upgraded = 1;
    }
    arrays_.push_back(std::move(array));
  }
  payload_ = std::move(loaded.payload);
  has_payload_ = loaded.has_payload;
  durable_payload_ = payload_;
  has_durable_payload_ = has_payload_;
  position_ = loaded.position;
  info_.generation = loaded.generation;
  next_snapshot_at_ = options_.snapshot_bytes;
  std::memcpy(info_.identity, state_.identity.data(), sizeof info_.identity);
  info_.n_batches_found = loaded.n_batches;
  info_.cut_bytes = loaded.cut_bytes;
  info_.journal_bytes = loaded.journal_bytes;
  info_.was_sealed = loaded.is_sealed ? 1 : 0;
  copy_text(loaded.warning, info_.warning, sizeof info_.warning);
}

void tslb_store_t::register_policies() {
  for (size_t i = 0; i < decls_.size(); ++i) {
    if (!decls_[i].reuse_policy) continue;
    tsdb_mem_pressure_config_t policy = *decls_[i].reuse_policy;
    tslb_da_register_reuse_policy(arrays_[i].get(), &policy);
  }
}

void tslb_store_t::bind_arrays() {
  for (uint32_t i = 0; i < decls_.size(); ++i) {
    logged_.emplace_back(arrays_[i].get(), decls_[i].kind, i);
    rooms_.push_back(is_pool(decls_[i].kind)
                         ? std::make_unique<ChunkRoom>(arrays_[i].get(), decls_[i].kind, decls_[i].max_slots)
                         : nullptr);
    if (has(options_, TSLB_STORE_SHADOW) && !is_reader_) shadows_.push_back(copy_of(arrays_[i].get()));
  }
}

uint32_t tslb_store_t::number_in(const Manifest &manifest, const std::string &name) {
  const auto &entries = manifest.arrays;
  const auto entry = std::find_if(entries.begin(), entries.end(), [&](const auto &one) { return one.name == name; });
  return static_cast<uint32_t>(entry - entries.begin());
}

// Groups of a journal apply to the arrays of its generation. If the arrays in memory are not these arrays with the
// journals applied, a new generation begins.
void tslb_store_t::continue_journal() {
  const LoadedStore loaded = std::move(*loaded_);
  loaded_.reset();
  const bool is_upgraded = info_.was_upgraded != 0;
  for (uint32_t i = 0; i < decls_.size() && !is_upgraded; ++i)
    logged_[i].set_number(number_in(loaded.manifest, decls_[i].name));
  const bool is_detached = has(options_, TSLB_STORE_DETACH) && position_.number != 0;
  if (is_detached) {
    position_ = {};
    state_.identity = new_identity();
    std::memcpy(info_.identity, state_.identity.data(), sizeof info_.identity);
  }
  if (loaded.is_salvaged || is_upgraded || is_detached) {
    write_generation_alone(std::max(loaded.state.generation, loaded.state.journals.back().number) + 1, !is_upgraded,
                           loaded.is_damaged && !is_upgraded ? options_.keep : 0);
    return;
  }
  // A journal before the last one is not continued. It is sealed, if the process ended before it could do so. A journal
  // with a seal is not opened again: the last one has groups, which no crash may leave after a journal without a seal.
  for (size_t i = 0; i + 1 < state_.journals.size(); ++i) {
    JournalState &journal = state_.journals[i];
    JournalPlace place = loaded.journals[i].end;
    if (!loaded.journals[i].ends_with_seal) {
      const JournalName name = {state_.identity, journal.number};
      JournalWriter writer(journal_path(folder_, journal.number), name, place);
      writer.seal();
      place = writer.place();
    } else if (!journal.is_sealed) {
      sync_again(File::open_to_write(journal_path(folder_, journal.number)), place);
    }
    journal = {journal.number, true, place.position, place.crc32c};
    journals_before_ += journal.bytes;
  }
  state_.journals.back() = {state_.journals.back().number, false, 0, 0};
  write_state(folder_, state_);
  const uint64_t last = state_.journals.back().number;
  use_journal(std::make_unique<JournalWriter>(journal_path(folder_, last), JournalName{state_.identity, last},
                                              loaded.journals.back().end));
}

void tslb_store_t::start_threads() {
  journal_thread_ = std::thread([this] { run_journal(); });
  if (options_.snapshot_bytes != 0) snapshot_thread_ = std::thread([this] { run_snapshots(); });
}

// ---- Closing -------------------------------------------------------------------------------------------------------

void tslb_store_t::stop_threads() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
  }
  work_.notify_all();
  snapshot_work_.notify_all();
  if (journal_thread_.joinable()) journal_thread_.join();
  if (snapshot_thread_.joinable()) snapshot_thread_.join();
}

void tslb_store_t::expect_no_batch_of_this_thread() const {
  if (open_batch_of(this) != nullptr)
    throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": a batch of this thread is open", folder_);
}

void tslb_store_t::close() {
  if (is_reader_) return;
  if (is_bulk_) return close_bulk();
  stop_threads();
  {
    const std::lock_guard flushing(flush_mutex_);
    while (flush()) continue;
  }
  const std::lock_guard lock(mutex_);
  if (!failed_.empty()) throw refusal(failed_);
  seal();
}

// Removes a store that was created for an import and has no generation, with what is left of attempts to write one.
void tslb_store_t::close_bulk() {
  remove_attempt(number_of_import());
  if (state_.generation != 0) return seal();
  const std::string generation = generation_path(folder_, FIRST_GENERATION);
  const std::string journal = journal_path(folder_, FIRST_GENERATION);
  const std::string suffix(UNFINISHED_SUFFIX);
  for (const std::string &path : {generation, generation + suffix, journal + suffix}) remove_tree(path);
  remove_file(state_path(folder_));
  remove_file(lock_path(folder_));
  if (made_folder_) remove_folder_if_empty(folder_);
}

JournalState tslb_store_t::sealed_state() const {
  return {state_.journals.back().number, true, journal_->place().position, journal_->place().crc32c};
}

void tslb_store_t::seal() {
  if (!journal_) return;  // an import that changed nothing
  journal_->seal();
  state_.journals.back() = sealed_state();
  write_state(folder_, state_);
}

// ---- Questions -----------------------------------------------------------------------------------------------------

void tslb_store_t::set_payload_of_import(std::vector<uint8_t> payload) {
  if (!is_bulk_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": was not opened for an import", folder_);
  durable_payload_ = std::move(payload);
  has_durable_payload_ = true;
}

DynArrHandle_t *tslb_store_t::array(uint32_t declaration) const {
  return declaration < arrays_.size() ? arrays_[declaration].get() : nullptr;
}

uint32_t tslb_store_t::declaration_of(const DynArrHandle_t *array) const noexcept {
  uint32_t declaration = 0;
  while (declaration < arrays_.size() && arrays_[declaration].get() != array) ++declaration;
  return declaration;
}

tslb_store_info_t tslb_store_t::info() {
  const std::lock_guard lock(mutex_);
  return info_;
}
