// Steps of scenarios, and the recovery of a folder.
#include <algorithm>

#include "search.h"

namespace powercut {
namespace {

[[noreturn]] void fail(const std::string &what, const tslb_error_t &error) {
  throw Failure{fmt::format("{}: {}", what, error.text)};
}

}  // namespace

void Bounds::apply(const Op &op) {
  const int number = static_cast<int>(op.at);
  switch (op.mark) {
    case MarkKind::begun:
      begun = number;
      break;
    case MarkKind::acknowledged:
      acknowledged = number;
      break;
    case MarkKind::refused:
      refused.push_back(number);
      break;
    case MarkKind::logged:
      logged = number;
  }
}

bool Bounds::allows(int batch) const {
  return batch >= std::min(acknowledged, logged) && batch <= std::min(begun, logged) &&
         std::find(refused.begin(), refused.end(), batch) == refused.end();
}

// ---- Log -----------------------------------------------------------------------------------------------------------

const tslb_store_log_t *Log::functions() {
  static constexpr auto of = [](void *log) { return static_cast<Log *>(log); };
  functions_ = {this, [](void *arg, const tslb_group_t *group, char *, size_t) { return of(arg)->append(*group), 0; },
                [](void *arg, char *, size_t) { return of(arg)->get_all(), 0; },
                [](void *arg, const tslb_group_t *group, char *, size_t) { return of(arg)->has(*group) ? 1 : 0; }};
  return &functions_;
}

void Log::get_all() {
  record_mark(MarkKind::logged, static_cast<uint32_t>(groups.size()));
}

tslb_log_position_t Log::begin_epoch_after(const tslb_log_position_t &last) {
  groups.push_back({{last.epoch + 1, last.number + 1}, {}});
  get_all();
  return groups.back().position;
}

// A group is durable before it is appended.
void Log::append(const tslb_group_t &group) {
  groups.push_back({group.position, {static_cast<const char *>(group.body), group.bytes}});
  if (!is_late) get_all();
  record_mark(MarkKind::acknowledged, static_cast<uint32_t>(groups.size()));
}

bool Log::has(const tslb_group_t &group) const {
  if (group.position.number > groups.size()) return false;
  const auto &[position, body] = groups[group.position.number - 1];
  const std::string_view found(static_cast<const char *>(group.body), group.bytes);
  return position.epoch == group.position.epoch && (body.empty() || body == found);
}

// ---- Stores --------------------------------------------------------------------------------------------------------

std::unique_ptr<TestStore> StoreRun::new_store(Log *its_log) const {
  std::vector<tslb_array_decl_t> decls = {
      decl_of("records", TSLB_ARRAY_RECORDS, 1, 20, 2, 0),
      decl_of("slots", TSLB_ARRAY_SLOTS, 2, sizeof(TestRecord), 2, TSLB_DA_DAFLAG_INLL)};
  if (arrays_ == Arrays::large) decls = test_decls();
  if (arrays_ == Arrays::one) decls.resize(1);
  if (has_added_array) decls.push_back(decl_of("added", TSLB_ARRAY_RECORDS, 9, 20, 2, 0));
  for (tslb_array_decl_t &decl : decls) decl.compresses = compresses;
  auto store = std::make_unique<TestStore>(decls);
  store->options = options;
  if (its_log != nullptr) store->options.log = its_log->functions();
  return store;
}

std::string StoreRun::content_of_store(const TestStore &store, const std::string &payload) const {
  std::string content = payload + ":";
  for (uint32_t i = 0; i < (arrays_ == Arrays::large ? 4u : arrays_ == Arrays::small ? 2u : 1u); ++i)
    content += content_of(store.array(i));
  return content;
}

// Returns whether the content, and the position of the store, are those after the batch.
bool StoreRun::is_batch(const TestStore &store, const std::string &content, int batch) const {
  const auto number = static_cast<size_t>(batch);
  const auto [epoch, n_groups] = tslb_store_position(store.get());
  const uint64_t expected_epoch = has_log && batch != 0 ? log.groups[number - 1].position.epoch : 0;
  return content == contents_[number] && epoch == expected_epoch && n_groups == (has_log ? number : 0);
}

// The same for the same number and content.
void StoreRun::change(TestStore &store, tslb_batch_t *batch, uint32_t number) const {
  if (arrays_ == Arrays::large) {
    std::mt19937 random(static_cast<uint32_t>(seed_ * 10007 + number));
    for (int left = 3; left > 0; --left) store.change(batch, random);
  } else {
    const int32_t id = get_dyn_arr_new_record_id(store.array(RECORDS));
    auto *const record =
        static_cast<char *>(get_dyn_arr_record_position(store.array(RECORDS), static_cast<uint32_t>(id)));
    std::memset(record, static_cast<int>(number), 20);
    tslb_batch_log_record(batch, RECORDS, static_cast<uint32_t>(id));
    if (arrays_ == Arrays::small) {
      const uint32_t idx = store.add_slot(batch, number, 0);
      if (number % 2 == 0) tslb_da_free_idx(store.array(SLOTS), idx);
    }
  }
  const std::string payload = payload_of(static_cast<int>(number));
  tslb_batch_set_payload(batch, payload.data(), payload.size(), nullptr);
}

// ---- Steps ---------------------------------------------------------------------------------------------------------

void StoreRun::acknowledge() {
  if (!marks_backup_only) record_mark(MarkKind::acknowledged, static_cast<uint32_t>(last_));
}

void StoreRun::open(uint32_t flags) {
  store_ = new_store(has_log ? &log : nullptr);
  const std::string folder = store_folder();
  if (has_log) log.get_all();
  if (!attempt([&] { return store_->open(folder, flags | options.flags); })) {
    expect_fault("a store cannot be opened");
    store_ = new_store(has_log ? &log : nullptr);
    if (!store_->open(folder, flags | options.flags)) fail("a store cannot be opened again", store_->error);
  }
  if (contents_.empty()) contents_.push_back(content_of_store(*store_, payload_of(0)));
  if (!is_batch(*store_, content_of_store(*store_, store_->payload()), last_))
    throw Failure{fmt::format("a store without a cut was not opened with batch {}", last_)};
  acknowledge();
}

// Only a fault explains that a step failed.
void StoreRun::expect_fault(const std::string &what, const tslb_error_t &error) const {
  const int code = error.code;
  const bool is_explained = code == TSLB_DURABLE_IO || code == TSLB_DURABLE_NO_MEMORY || code == TSLB_DURABLE_REFUSED ||
                            code == TSLB_DURABLE_BROKEN;
  const bool had_fault = fault_struck() == Struck::fault || (was_memory_refused && was_memory_refused()) ||
                         (can_be_broken_ && code == TSLB_DURABLE_BROKEN);
  if (!had_fault || !is_explained) fail(what, error);
}

bool StoreRun::attempt(const std::function<bool()> &step) {
  return around_step ? around_step(step) : step();
}

int StoreRun::begin_batch() {
  contents_.emplace_back();
  return static_cast<int>(contents_.size()) - 1;
}

void StoreRun::commit() {
  for (bool is_done = false; !is_done;) {
    const int number = begin_batch();
    tslb_batch_t *batch = nullptr;
    attempt([&] { return (batch = store_->begin()) != nullptr; });
    if (batch != nullptr) {
      change(*store_, batch, static_cast<uint32_t>(number));
      contents_.back() = content_of_store(*store_, payload_of(number));
      record_mark(MarkKind::begun, static_cast<uint32_t>(number));
      is_done = attempt([&] { return tslb_batch_commit(batch, &store_->error) == 0; });
    }
    if (is_done) {
      last_ = number;
      if (!is_batch(*store_, content_of_store(*store_, payload_of(number)), number))
        throw Failure{"the end of a batch changed the arrays"};
      if (options.sync != TSLB_SYNC_NONE) acknowledge();
    } else {
      expect_fault("a batch failed");
      if (store_->error.code == TSLB_DURABLE_BROKEN)
        replace_broken(number);
      else if (store_->error.code == TSLB_DURABLE_REFUSED)
        restore(number);
      else if (batch != nullptr)
        fail("a batch is neither there nor refused", store_->error);
    }
  }
}

void StoreRun::refuse() {
  const int number = begin_batch();
  tslb_batch_t *const batch = store_->begin();
  if (batch == nullptr) fail("a batch cannot begin", store_->error);
  change(*store_, batch, static_cast<uint32_t>(number));
  record_mark(MarkKind::begun, static_cast<uint32_t>(number));
  uint64_t ticket = 0;
  attempt([&] { return (ticket = tslb_batch_refuse(batch, "a reason that is longer than a short string")) != 0; });
  if (attempt([&] { return tslb_store_wait(store_->get(), ticket, &store_->error) == 0; }))
    throw Failure{"a batch that was given up is there"};
  if (store_->error.code != TSLB_DURABLE_REFUSED) fail("a batch that was given up is not refused", store_->error);
  restore(number);
}

void StoreRun::restore(int refused) {
  record_mark(MarkKind::refused, static_cast<uint32_t>(refused));
  if (before_restoration) std::exchange(before_restoration, nullptr)();
  if (!attempt([&] { return tslb_store_restore(store_->get(), &store_->error) == 0; })) {
    expect_fault("a store cannot be restored");
    if (store_->error.code == TSLB_DURABLE_BROKEN) return replace_broken(refused);
    if (tslb_store_restore(store_->get(), &store_->error) != 0) {
      if (store_->error.code == TSLB_DURABLE_BROKEN) return replace_broken(refused);
      fail("a store cannot be restored again", store_->error);
    }
  }
  if (content_of_store(*store_, store_->payload()) != contents_[static_cast<size_t>(last_)])
    throw Failure{fmt::format("a store was not restored with batch {}", last_)};
}

// The batch that broke the store can be there or not.
void StoreRun::replace_broken(int number) {
  if (store_->close() == 0) throw Failure{"a broken store was closed without an error"};
  store_ = new_store(has_log ? &log : nullptr);
  can_be_broken_ = false;
  if (!store_->open(store_folder(), options.flags)) fail("a broken store cannot be opened", store_->error);
  const std::string found = content_of_store(*store_, store_->payload());
  if (is_batch(*store_, found, number))
    last_ = number;
  else if (is_batch(*store_, found, last_))
    record_mark(MarkKind::refused, static_cast<uint32_t>(number));
  else
    throw Failure{"a broken store was opened with another content"};
  acknowledge();
}

bool StoreRun::snapshot() {
  const bool is_done = attempt([&] { return tslb_store_snapshot(store_->get(), &store_->error) == 0; });
  if (!is_done) expect_fault("a snapshot cannot be made");
  can_be_broken_ = !is_done;  // if the journal could neither be sealed nor cut
  if (is_done) acknowledge();
  return is_done;
}

void StoreRun::close() {
  const bool is_done = attempt([&] { return store_->close() == 0; });
  if (!is_done) expect_fault("a store cannot be closed");
  if (is_done) acknowledge();
}

void StoreRun::save() {
  saved_ = last_;
  fs::remove_all(root_ + "/saved");
  fs::copy(store_folder(), root_ + "/saved", fs::copy_options::recursive);
}

void StoreRun::use_saved() {
  store_->close();
  fs::remove_all(store_folder());
  fs::rename(root_ + "/saved", store_folder());
  last_ = saved_;
}

void StoreRun::import() {
  const std::string folder = store_folder();
  const auto open = [&] {
    store_ = new_store();
    return attempt([&] { return store_->open(folder, TSLB_STORE_CREATE | TSLB_STORE_BULK); });
  };
  if (!open()) {
    expect_fault("no import");
    if (!open()) fail("no import", store_->error);
  }
  contents_.push_back(content_of_store(*store_, payload_of(0)));
  last_ = begin_batch();
  uint32_t idx;
  auto *const record = static_cast<TestRecord *>(tslb_da_get_newptr(store_->array(SLOTS), &idx));
  *record = {1, 2, {}, 0, {}};
  const std::string payload = payload_of(last_);
  tslb_store_set_payload(store_->get(), payload.data(), payload.size(), nullptr);
  contents_.back() = content_of_store(*store_, payload);
  record_mark(MarkKind::begun, static_cast<uint32_t>(last_));
  if (!snapshot() && !snapshot()) fail("an import cannot be stored again", store_->error);
}

void StoreRun::back_up() {
  const std::string folder = root_ + "/backup";
  const auto copy = [&] {
    return attempt([&] { return tslb_store_backup(store_->get(), folder.c_str(), &store_->error) == 0; });
  };
  if (!copy()) {
    expect_fault("no backup");
    fs::remove_all(folder);
    if (!copy()) fail("no backup after a failure", store_->error);
  }
  record_mark(MarkKind::acknowledged, static_cast<uint32_t>(last_));
}

void StoreRun::read() {
  const std::string folder = store_folder();
  std::unique_ptr<TestStore> reader;
  const auto open = [&] {
    reader = new_store();
    return attempt([&] { return reader->open(folder, TSLB_STORE_READ_ONLY); });
  };
  if (!open()) {
    expect_fault("a reader cannot open the store", reader->error);
    if (!open()) fail("a reader cannot open the store again", reader->error);
  }
  if (content_of_store(*reader, reader->payload()) != contents_[static_cast<size_t>(last_)])
    throw Failure{fmt::format("a reader has not batch {}", last_)};
}

void StoreRun::fill_log(int n_batches) {
  StoreRun leader(arrays_, seed_, root_ + ".leader");
  fs::remove_all(leader.root_);
  fs::create_directory(leader.root_);
  leader.has_log = true;
  leader.open();
  leader.lead();
  for (int left = n_batches; left > 0; --left) leader.commit();
  leader.back_up();
  leader.close();
  log = leader.log;
  contents_ = leader.contents_;
  // Its marks do not concern this store.
  record_mark(MarkKind::begun, 0);
  record_mark(MarkKind::acknowledged, static_cast<uint32_t>(-1));
}

void StoreRun::apply(TestStore &store, const LoggedGroup &next) const {
  const tslb_group_t group = next.view();
  if (tslb_store_apply(store.get(), &group, &store.error) != 0) fail("a group cannot be applied", store.error);
  if (!is_batch(store, content_of_store(store, store.payload()), static_cast<int>(next.position.number)))
    throw Failure{"a store that applied a group has another content"};
}

// Repeats a step until it succeeds. Then the store has the batch.
void StoreRun::advance_to(int batch, const std::string &failure, const std::function<int()> &step) {
  record_mark(MarkKind::begun, static_cast<uint32_t>(batch));
  while (!attempt([&] { return step() == 0; })) {
    expect_fault(failure);
    const std::string found = content_of_store(*store_, store_->payload());
    const bool is_broken = store_->error.code == TSLB_DURABLE_BROKEN;
    if (is_broken && found != contents_[static_cast<size_t>(batch)] && found != contents_[static_cast<size_t>(last_)])
      throw Failure{"readers of a broken follower see parts of two states"};
    if (is_broken)
      replace_broken(batch);
    else
      restore(batch);
  }
  last_ = batch;
  if (!is_batch(*store_, content_of_store(*store_, store_->payload()), batch))
    throw Failure{fmt::format("a store that follows a log has not batch {}", batch)};
  acknowledge();
}

void StoreRun::apply() {
  const int batch = last_ + 1;
  const tslb_group_t group = log.groups[static_cast<size_t>(last_)].view();
  advance_to(batch, "a group cannot be applied",
             [&] { return last_ == batch ? 0 : tslb_store_apply(store_->get(), &group, &store_->error); });
}

void StoreRun::adopt() {
  const auto batch = static_cast<int>(log.groups.size());
  for (int skipped = last_ + 1; skipped < batch; ++skipped)
    record_mark(MarkKind::refused, static_cast<uint32_t>(skipped));
  const std::string copy = root_ + ".leader/backup";
  advance_to(batch, "a copy cannot be adopted",
             [&] { return tslb_store_adopt(store_->get(), copy.c_str(), &store_->error); });
}

void StoreRun::promote(TestStore &store, Log &its_log) const {
  const tslb_log_position_t next = its_log.begin_epoch_after(tslb_store_position(store.get()));
  if (tslb_store_promote(store.get(), &next, &store.error) != 0) fail("a store cannot be promoted", store.error);
}

void StoreRun::lead() {
  contents_.push_back(contents_[static_cast<size_t>(last_)]);
  const tslb_log_position_t next = log.begin_epoch_after(tslb_store_position(store_->get()));
  advance_to(last_ + 1, "a store cannot be promoted",
             [&] { return tslb_store_promote(store_->get(), &next, &store_->error); });
}

// ---- Recovery ------------------------------------------------------------------------------------------------------

int StoreRun::found_in(const TestStore &store, const Bounds &bounds) const {
  const std::string found = content_of_store(store, store.payload());
  for (size_t batch = 0; batch < contents_.size(); ++batch)
    if (bounds.allows(static_cast<int>(batch)) && is_batch(store, found, static_cast<int>(batch)))
      return static_cast<int>(batch);
  std::string what = "that of no batch";
  for (size_t batch = 0; batch < contents_.size(); ++batch)
    if (is_batch(store, found, static_cast<int>(batch))) what = fmt::format("that of batch {}", batch);
  throw Failure{fmt::format("the content is {}; {} is acknowledged, {} begun, {} refused", what, bounds.acknowledged,
                            bounds.begun, bounds.refused.size())};
}

int StoreRun::recover(const std::string &folder, const Bounds &bounds, bool goes_on) const {
  const bool must_exist = bounds.acknowledged >= 0;
  Log logged;
  Log *const its_log = has_log ? &logged : nullptr;
  if (has_log) logged.groups.assign(log.groups.begin(), log.groups.begin() + bounds.logged);
  // A reader has no log, and finds what is in the journals.
  Bounds of_reader = bounds;
  of_reader.acknowledged = std::min(bounds.acknowledged, bounds.logged);
  of_reader.logged = INT_MAX;
  int seen = -1;
  if (!has_added_array) {
    const std::unique_ptr<TestStore> reader = new_store();
    if (reader->open(folder, TSLB_STORE_READ_ONLY))
      seen = found_in(*reader, of_reader);
    else if (must_exist || reader->error.code != TSLB_DURABLE_NO_STORE)
      fail("a reader is refused", reader->error);
    else if (marks_backup_only)
      return -1;  // a part of a backup is no store
  }
  std::unique_ptr<TestStore> store = new_store(its_log);
  if (!store->open(folder, TSLB_STORE_CREATE | TSLB_STORE_SHADOW | TSLB_STORE_NO_FORK))
    fail("the store is refused", store->error);
  const int found = found_in(*store, bounds);
  record_mark(MarkKind::acknowledged, static_cast<uint32_t>(found));
  if (seen >= 0 && std::min(seen, bounds.logged) != found)
    throw Failure{fmt::format("a reader found batch {}, the writer {}", seen, found)};
  store->close();
  store = new_store(its_log);
  if (!store->open(folder, TSLB_STORE_SHADOW | TSLB_STORE_NO_FORK))
    fail("the store is refused after its recovery", store->error);
  if (found_in(*store, bounds) != found) throw Failure{"the second recovery found another batch"};
  if (goes_on) use(*store, its_log, folder);
  return found;
}

// The recovered store goes on.
void StoreRun::use(TestStore &store, Log *its_log, const std::string &folder) const {
  if (its_log != nullptr) {
    for (size_t number = tslb_store_position(store.get()).number; number < its_log->groups.size(); ++number)
      apply(store, its_log->groups[number]);
    promote(store, *its_log);
    // If the journal still had groups that were left out, those after them would be left out too.
    store.close();
    if (!store.open(folder, TSLB_STORE_SHADOW | TSLB_STORE_NO_FORK))
      fail("the store is refused after its promotion", store.error);
    if (tslb_store_position(store.get()).number != its_log->groups.size())
      throw Failure{"the begin of an epoch after the recovery is lost"};
    promote(store, *its_log);
  }
  constexpr uint32_t FIRST = 200;
  for (uint32_t number = FIRST; number < FIRST + 2; ++number) {
    tslb_batch_t *const batch = store.begin();
    if (batch == nullptr) fail("a batch after the recovery cannot begin", store.error);
    change(store, batch, number);
    if (tslb_batch_commit(batch, &store.error) != 0) fail("a batch after the recovery is refused", store.error);
    if (number == FIRST && tslb_store_snapshot(store.get(), &store.error) != 0)
      fail("a snapshot after the recovery fails", store.error);
  }
  const std::string expected = content_of_store(store, payload_of(FIRST + 1));
  if (store.close() != 0) fail("the store cannot be closed after its recovery", store.error);
  const std::unique_ptr<TestStore> again = new_store(its_log);
  if (!again->open(folder, TSLB_STORE_SHADOW | TSLB_STORE_NO_FORK))
    fail("the store is refused after its use", again->error);
  if (content_of_store(*again, again->payload()) != expected ||
      tslb_store_position(again->get()).number != (its_log != nullptr ? its_log->groups.size() : 0))
    throw Failure{"a batch after the recovery is lost"};
}

}  // namespace powercut
