// Generations and backups.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "huge_pages.h"
#include "store.h"
#include "stream_child.h"
#include "stream_writer.h"

using namespace tslb_durable;

namespace {

using Clock = std::chrono::steady_clock;

uint64_t ns_since(Clock::time_point start) {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
}

void remove_unused(const std::string &path) {
  try {
    remove_tree(path);
  } catch (const StoreError &) {
    // Unused files stay. The next generation tries again.
  }
}

// Shortens a file that is removed next. The removal of a large file is one large change of the file system's own journal,
// for which groups would wait, so it becomes a sequence of small ones. Not while a reader has the file: it is then removed
// when the reader closes it.
void shorten(const std::string &path) {
  constexpr uint64_t STEP_BYTES = 4 << 20;
  try {
    const File file = File::open_to_write(path);
    if (!file.try_lock(true)) return;
    for (uint64_t bytes = file.bytes(); bytes > STEP_BYTES;) {
      bytes -= STEP_BYTES;
      file.truncate(bytes);
      file.sync();
    }
  } catch (const StoreError &) {
    // It is removed whole.
  }
}

void remove_journal(const std::string &path) {
  shorten(path);
  remove_unused(path);
}

void remove_generation(const std::string &folder) {
  try {
    for_each_name(folder, [&folder](const std::string &name) { shorten(folder + "/" + name); });
  } catch (const StoreError &) {
    // The streams are removed whole.
  }
  remove_unused(folder);
}

}  // namespace

struct tslb_store_t::NewGeneration {
  NewGeneration(const tslb_store_t &store, uint64_t number);
  ~NewGeneration() {
    if (!is_in_place) remove_unused(folder);
  }

  const uint64_t number;
  const std::string final_folder;
  const std::string folder;
  std::vector<File> streams;
  std::vector<StreamResult> results;
  std::vector<uint32_t> n_slots;
  std::vector<uint32_t> numbers;  // of the arrays in the manifest
  std::vector<uint8_t> payload;
  bool has_payload = false;
  LogPosition position = {};
  std::unique_ptr<JournalWriter> journal;  // that begins with the generation
  StreamWriter writer;
  bool is_in_place = false;
};

tslb_store_t::NewGeneration::NewGeneration(const tslb_store_t &store, uint64_t the_number)
    : number(the_number),
      final_folder(generation_path(store.folder_, number)),
      folder(final_folder + std::string(UNFINISHED_SUFFIX)),
      results(store.decls_.size()),
      n_slots(store.decls_.size()),
      numbers(store.decls_.size()),
      writer(store.options_.bytes_per_s, std::any_of(store.decls_.begin(), store.decls_.end(),
                                                     [](const ArrayDecl &decl) { return decl.compresses; })) {
  for_each_name(store.folder_, [&store](const std::string &name) {
    if (name.starts_with(GENERATION_PREFIX) && name.ends_with(UNFINISHED_SUFFIX))
      remove_unused(store.folder_ + "/" + name);
  });
  remove_tree(folder);  // again, to report a failure: it must not exist
  // Of a process that ended before it wrote a state with this generation, in an upgrade or while it adopted a copy.
  remove_tree(final_folder);
  make_folder(folder);
  for (const ArrayDecl &decl : store.decls_) streams.push_back(File::create(folder + "/" + stream_name(decl.name)));
}

// Writes all streams. No thread changes the arrays, or this is a child process.
void tslb_store_t::write_streams(NewGeneration &next) {
  for (size_t i = 0; i < decls_.size(); ++i)
    next.results[i].error = next.writer.write(arrays_[i].get(), decls_[i], next.streams[i].fd(), next.results[i].file);
}

// Completes the folder of a generation whose streams are written, and puts it in place.
void tslb_store_t::finish_generation(NewGeneration &next) {
  Manifest manifest;
  manifest.identity = state_.identity;
  manifest.generation = next.number;
  manifest.environment = current_environment();
  manifest.position = next.position;
  manifest.arrays.resize(decls_.size());
  for (size_t i = 0; i < decls_.size(); ++i) {
    const ArrayDecl &decl = decls_[i];
    if (const int error = next.results[i].error; error != 0) {
      errno = error;
      fail_file(next.streams[i].path(), "cannot be written");
    }
    next.streams[i].sync();
    // The numbers stay those of the generation before, because groups of the next journal must fit both.
    StoredArrayEntry &entry = manifest.arrays[next.numbers[i]];
    entry = {decl.name,        decl.kind,         decl.has_compat, decl.tbl_id,          decl.rec_version,
             decl.daflag,      decl.record_bytes, next.n_slots[i], arrays_[i]->n_direct, next.results[i].file,
             decl.description, decl.compresses};
  }
  if (next.has_payload) {
    const File file = File::create(next.folder + "/" + PAYLOAD);
    file.write({reinterpret_cast<const char *>(next.payload.data()), next.payload.size()});
    file.sync();
    const FileSum sum = sum_of(file);
    manifest.payload = {sum.bytes, sum.crc32c};
  }
  {
    const File file = File::create(next.folder + "/" + MANIFEST);
    file.write(manifest_text(manifest));
    file.sync();
  }
  File::folder(next.folder).sync();
  rename_file(next.folder, next.final_folder);
  next.is_in_place = true;
  File::folder(folder_).sync();
}

void tslb_store_t::use_journal(std::unique_ptr<JournalWriter> journal) {
  journal_ = std::move(journal);
  reserved_left_ = 0;  // until the next group or reservation
}

// Writes a generation and begins its journal, while no batch can be open: at creation and after an upgrade. The numbers of
// the arrays in it are kept for a log, whose groups have them too. `n_older` generations are kept: none, except after a
// salvage, since no journal leads from them to this one.
void tslb_store_t::write_generation_alone(uint64_t number, bool keeps_numbers, uint32_t n_older) {
  remove_file(journal_path(folder_, number));  // an ended process can have left it
  NewGeneration next(*this, number);
  for (uint32_t i = 0; i < arrays_.size(); ++i) {
    next.n_slots[i] = tslb_da_get_size(arrays_[i].get());
    next.numbers[i] = keeps_numbers ? logged_[i].number() : i;
  }
  next.payload = durable_payload_;
  next.has_payload = has_durable_payload_;
  next.position = position_;
  write_streams(next);
  finish_generation(next);
  auto journal = std::make_unique<JournalWriter>(journal_path(folder_, number), JournalName{state_.identity, number});
  StoreState state = state_;
  state.generation = number;
  state.journals = {{number, false, 0, 0}};
  write_state(folder_, state);
  state_ = std::move(state);
  use_journal(std::move(journal));
  journals_before_ = 0;
  info_.generation = number;
  for (uint32_t i = 0; i < logged_.size(); ++i) {
    logged_[i].set_number(next.numbers[i]);
    logged_[i].headers_are_logged();
  }
  remove_older_generations(n_older);
}

// Removes what the state does not need, except for some older generations and the journals since them. What cannot be
// removed stays, and the next generation tries again.
void tslb_store_t::remove_older_generations(uint32_t n_kept) noexcept {
  try {
    std::vector<uint64_t> generations;
    for_each_name(folder_, [&](const std::string &name) {
      if (const auto number = number_of(name, GENERATION_PREFIX); number && *number < state_.generation)
        generations.push_back(*number);
    });
    std::sort(generations.rbegin(), generations.rend());
    const uint64_t oldest_kept = n_kept == 0 || generations.empty()
                                     ? state_.generation
                                     : generations[std::min<size_t>(n_kept, generations.size()) - 1];
    for_each_name(folder_, [&](const std::string &name) {
      const auto generation = number_of(name, GENERATION_PREFIX), journal = number_of(name, JOURNAL_PREFIX);
      if (generation && *generation < oldest_kept) remove_generation(folder_ + "/" + name);
      if (journal && *journal < oldest_kept) remove_journal(folder_ + "/" + name);
    });
  } catch (const std::exception &) {
    // The state is written: the generation is the current one.
  }
}

// Removes the journal that a failed attempt to write a generation has left. The stored state can name this journal, so
// the state is written anew first.
void tslb_store_t::remove_attempt(uint64_t number) {
  const std::string path = journal_path(folder_, number);
  if (access(path.c_str(), F_OK) != 0) return;
  write_state(folder_, state_);
  remove_file(path);
}

// The same after a failure, as far as possible.
void tslb_store_t::withdraw_attempt(uint64_t number) noexcept {
  try {
    remove_attempt(number);
  } catch (const std::exception &) {
    // The next attempt, or the end, tries again.
  }
}

// Makes the journal of the next generation, and names it in the stored state before it gets a group.
void tslb_store_t::begin_next_journal(NewGeneration &next) {
  remove_attempt(next.number);
  next.journal =
      std::make_unique<JournalWriter>(journal_path(folder_, next.number), JournalName{state_.identity, next.number});
  StoreState with_next = state_;
  with_next.journals.push_back({next.number, false, 0, 0});
  write_state(folder_, with_next);
}

// Seals the journal, and goes on with that of the next generation. flush_mutex_ is held.
void tslb_store_t::switch_journal(NewGeneration &next) {
  state_.journals.reserve(state_.journals.size() + 1);  // after the seal no memory may be refused
  try {
    journal_->seal();
  } catch (const std::exception &error) {
    // Groups must not follow a seal of which a part may be missing on the disk.
    try {
      journal_->cut();
    } catch (const std::exception &cut_error) {
      std::string both;
      set_reason(both, "{}; {}", reason_of(error), reason_of(cut_error));
      refuse(both, true);
    }
    throw;
  }
  state_.journals.back() = sealed_state();
  state_.journals.push_back({next.number, false, 0, 0});
  journals_before_ += journal_->place().position;
  use_journal(std::move(next.journal));
}

// The moment of a snapshot. Without an open batch, the pending group is copied and the process forks: the child has the
// arrays as they are then. Later groups go to the next journal.
void tslb_store_t::freeze(NewGeneration &next, StreamChild &child) {
  const std::lock_guard flushing(flush_mutex_);
  CopiedGroup group;
  std::exception_ptr failure;
  int fork_error = 0;
  uint64_t fork_ns = 0;
  const auto start = Clock::now();
  {
    const GateClosed closed(gate_);
    copy_group(group);
    for (size_t i = 0; i < arrays_.size(); ++i) {
      next.n_slots[i] = tslb_da_get_size(arrays_[i].get());
      next.numbers[i] = logged_[i].number();
    }
    const auto before_fork = Clock::now();
    if (forks()) {
      fork_error = child.start(next.results, lock_->fd(), [this, &next] { write_streams(next); });
      fork_ns = ns_since(before_fork);
    } else {
      try {
        write_streams(next);
      } catch (const std::exception &) {
        failure = std::current_exception();  // the group is written first
      }
    }
  }
  const uint64_t pause_ns = ns_since(start);
  if (group.n_batches != 0) write_group(group);
  if (failure) std::rethrow_exception(failure);
  {
    const std::lock_guard lock(mutex_);
    info_.fork_ns = fork_ns;
    info_.snapshot_pause_ns = pause_ns;
    info_.max_pause_ns = std::max(info_.max_pause_ns, pause_ns);
    if (!failed_.empty()) throw refusal(failed_);
    next.payload = durable_payload_;
    next.has_payload = has_durable_payload_;
    next.position = position_;
  }
  if (fork_error != 0)
    throw StoreError(TSLB_DURABLE_IO, fmt::format("{}: cannot fork: {}", folder_, std::strerror(fork_error)), folder_,
                     0, fork_error);
  switch_journal(next);
}

// Makes a generation that is in place the current one.
void tslb_store_t::use_generation(uint64_t number) {
  confirm_log();
  StoreState state = state_;
  state.generation = number;
  state.journals = {state_.journals.back()};
  write_state(folder_, state);
  state_ = std::move(state);
  remove_older_generations(options_.keep);
  const std::lock_guard flushing(flush_mutex_);
  journals_before_ = 0;
  const std::lock_guard lock(mutex_);
  info_.generation = number;
  ++info_.n_snapshots;
  info_.journal_bytes = journal_->place().position;
  info_.snapshot_failure[0] = '\0';
  next_snapshot_at_ = options_.snapshot_bytes;
}

// The files of the next generation and the next journal are made while batches go on.
void tslb_store_t::snapshot() {
  expect_no_batch_of_this_thread();
  const std::lock_guard snapshots(snapshot_mutex_);
  if (is_bulk_) return snapshot_of_bulk();
  {
    const std::lock_guard lock(mutex_);
    expect_usable();
  }
  NewGeneration next(*this, state_.journals.back().number + 1);
  begin_next_journal(next);
  try {
    if (forks()) use_huge_pages(arrays_);
    StreamChild child(folder_);
    freeze(next, child);
    if (forks() && !child.receive(next.results))
      throw StoreError(TSLB_DURABLE_IO, folder_ + ": the child process that writes a generation ended", folder_);
  } catch (const std::exception &) {
    write_state(folder_, state_);
    throw;
  }
  finish_generation(next);
  use_generation(next.number);
}

// A number is left out, so that no journal leads from an older generation to an import.
uint64_t tslb_store_t::number_of_import() const {
  return state_.journals.empty() ? FIRST_GENERATION : state_.journals.back().number + 2;
}

// The arrays were changed without a journal.
void tslb_store_t::snapshot_of_bulk() {
  const uint64_t number = number_of_import();
  remove_attempt(number);
  try {
    write_generation_alone(number);
  } catch (const std::exception &) {
    withdraw_attempt(number);
    throw;
  }
  ++info_.n_snapshots;
}

void tslb_store_t::run_snapshots() {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      snapshot_work_.wait(lock, [this] { return is_ending_ || is_snapshot_due_; });
      if (!is_snapshot_due_) return;
    }
    std::string failure;
    try {
      snapshot();
    } catch (const std::exception &error) {
      set_reason(failure, "{}", reason_of(error));
    }
    const std::lock_guard lock(mutex_);
    is_snapshot_due_ = false;
    if (failure.empty()) continue;
    next_snapshot_at_ = options_.snapshot_bytes + info_.journal_bytes;
    copy_text(failure, info_.snapshot_failure, sizeof info_.snapshot_failure);
  }
}

// Copies the generation, and the journals up to the last settled group. No generation is removed meanwhile.
void tslb_store_t::backup(const std::string &target) {
  expect_no_batch_of_this_thread();
  const std::lock_guard snapshots(snapshot_mutex_);
  StoreState copy = state_;
  {
    const std::lock_guard lock(mutex_);
    expect_usable();
  }
  {
    const std::lock_guard flushing(flush_mutex_);
    flush();
    const std::lock_guard lock(mutex_);
    expect_usable();
    copy.journals.back().bytes = journal_->place().position;
  }
  if (make_folder_if_missing(target)) File::folder(folder_of(target)).sync();
  expect_backup_folder(target);
  try {
    write_backup(copy, target);
  } catch (...) {
    try {
      remove_content(target);
    } catch (const StoreError &) {
      // The failure is reported. What is left is refused by the next backup.
    }
    throw;
  }
}

// Throws if the folder has content, or is in the store.
void tslb_store_t::expect_backup_folder(const std::string &target) const {
  for_each_name(target, [&](const std::string &name) {
    throw StoreError(TSLB_DURABLE_NOT_EMPTY, fmt::format("{}: has other content, such as \"{}\"", target, name),
                     target);
  });
  if (!is_within(target, folder_)) return;
  remove_folder_if_empty(target);
  throw StoreError(TSLB_DURABLE_INVALID, target + ": is in the folder of the store", target);
}

void tslb_store_t::write_backup(StoreState copy, const std::string &target) const {
  const std::string from = generation_path(folder_, copy.generation);
  const std::string to = generation_path(target, copy.generation);
  make_folder(to);
  for_each_name(from, [&](const std::string &name) {
    const std::string source = from + "/" + name;
    copy_file(source, to + "/" + name, File::open(source).bytes());
  });
  File::folder(to).sync();
  for (const JournalState &journal : copy.journals)
    copy_file(journal_path(folder_, journal.number), journal_path(target, journal.number), journal.bytes);
  // The state must not be there before the files that it names.
  File::folder(target).sync();
  copy.journals.back().bytes = 0;
  write_state(target, copy);
  load_store(target, {});
}
