// Stores whose groups are in a log: what a leader gives to it, and what a follower takes from it.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "checksum.h"
#include "store.h"

using namespace tslb_durable;

namespace {

constexpr size_t MAX_WHY_BYTES = 400;

// Calls a function of the log. Throws with the reason that it gives.
template <class Function, class... Arguments>
int call_log(const std::string &folder, Function function, Arguments... arguments) {
  char why[MAX_WHY_BYTES] = "";
  const int result = function(arguments..., why, sizeof why);
  if (result >= 0) return result;
  why[sizeof why - 1] = '\0';
  throw StoreError(TSLB_DURABLE_BROKEN, fmt::format("{}: the log: {}", folder, why), folder);
}

}  // namespace

// ---- Opening -------------------------------------------------------------------------------------------------------

// Own batches without the log would be in no other store, and nobody could see that they are missing.
void tslb_store_t::expect_log_is_used() const {
  if (log_ || position_.number == 0 || (options_.flags & TSLB_STORE_DETACH) != 0) return;
  throw StoreError(
      TSLB_DURABLE_INVALID,
      fmt::format("{}: its groups are in a log; open it with the log, to read, or with TSLB_STORE_DETACH", folder_),
      folder_);
}

LoadOptions tslb_store_t::options_of_loading() {
  LoadOptions options;
  if (log_ && log_->found != nullptr)
    options.keeps = [this](std::string_view body, const LogPosition &position) {
      const tslb_group_t group = {body.data(), body.size(), 0, position};
      return call_log(folder_, log_->found, log_->arg, &group) != 0;
    };
  return options;
}

// ---- Questions -----------------------------------------------------------------------------------------------------

tslb_log_position_t tslb_store_t::position() {
  const std::lock_guard lock(mutex_);
  return position_;
}

uint32_t tslb_store_t::layout() const {
  std::vector<std::string> lines(decls_.size());
  for (size_t i = 0; i < decls_.size(); ++i) {
    const ArrayDecl &decl = decls_[i];
    lines[logged_[i].number()] =
        fmt::format("{} {} {} {} {} {} {:d} {}\n", decl.name, KIND_NAMES[decl.kind], decl.tbl_id, decl.record_bytes,
                    decl.rec_version, decl.daflag, decl.has_compat, arrays_[i]->n_direct);
  }
  uint32_t sum = 0;
  for (const std::string &line : lines) sum = crc32c(line.data(), line.size(), sum);
  return sum;
}

// ---- Leaders -------------------------------------------------------------------------------------------------------

void tslb_store_t::expect_leader() const {
  if (is_follower_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": follows a log", folder_);
}

void tslb_store_t::append_to_log(const CopiedGroup &group) {
  const tslb_group_t appended = {body_.data(), body_.size(), group.n_batches, group.position};
  call_log(folder_, log_->append, log_->arg, &appended);
}

void tslb_store_t::confirm_log() {
  if (!log_ || log_->confirm == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    if (is_follower_) return;
  }
  call_log(folder_, log_->confirm, log_->arg);
}

// The arrays are as after the last group, when no batch was open: the counters of pools need not be settled.
void tslb_store_t::promote(const tslb_log_position_t &position) {
  const tslb_log_position_t now = this->position();
  if (now.epoch != position.epoch || now.number != position.number || now.number == 0) apply({}, position, 0);
  const std::lock_guard lock(mutex_);
  expect_usable();
  if (!is_follower_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": is no follower", folder_);
  is_follower_ = false;
}

// ---- Followers -----------------------------------------------------------------------------------------------------

// Applies body_ to arrays in the order of the declarations.
void tslb_store_t::apply_to_arrays(std::vector<Array> &arrays, CopiedGroup &group) {
  std::vector<ReplayTarget> targets(arrays.size());
  for (uint32_t i = 0; i < arrays.size(); ++i) targets[logged_[i].number()] = {arrays[i].get(), decls_[i].kind};
  std::string payload;
  LogPosition position = {};
  group.failure = apply_body(body_, targets, payload, group.has_payload, position);
  group.payload.assign(payload.begin(), payload.end());
}

void tslb_store_t::apply(std::string_view body, const tslb_log_position_t &position, uint32_t n_batches) {
  expect_no_batch_of_this_thread();
  CopiedGroup group;
  tslb_durable_code_t code = TSLB_DURABLE_INVALID;
  {
    const std::lock_guard flushing(flush_mutex_);
    {
      const std::lock_guard lock(mutex_);
      expect_usable();
      if (!is_follower_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": is no follower", folder_);
    }
    const auto found = body.empty() ? std::optional(position) : position_in(body);
    if (!found || found->epoch != position.epoch || found->number != position.number)
      throw StoreError(TSLB_DURABLE_INVALID, fmt::format("{}: the body of another group", folder_), folder_);
    if (position.number <= position_.number || position.epoch < position_.epoch || body.size() > MAX_BODY_BYTES)
      throw StoreError(TSLB_DURABLE_INVALID,
                       fmt::format("{}: group {} of epoch {} cannot follow group {} of epoch {}", folder_,
                                   position.number, position.epoch, position_.number, position_.epoch),
                       folder_);
    body_ = body.empty() ? body_of_position(position) : std::string(body);
    group.last_ticket = settled();
    group.n_batches = n_batches;
    group.position = position;
    group.is_from_log = true;
    {
      const GateClosed closed(gate_);
      read_closed_.emplace(read_gate_);
      const AppliesGroup applies;
      try {
        apply_to_arrays(arrays_, group);
        if (!shadows_.empty() && group.failure.empty()) apply_to_arrays(shadows_, group);
        for (LoggedArray &array : logged_) array.headers_are_logged();
        if (group.has_payload && group.failure.empty()) {
          payload_ = group.payload;
          has_payload_ = true;
        }
      } catch (const std::bad_alloc &) {
        group.failure = NO_MEMORY;  // a part can be applied: the arrays are restored below
        code = TSLB_DURABLE_NO_MEMORY;
      }
      if (group.failure.empty()) read_closed_.reset();
    }
    write_group(group);
    const std::lock_guard lock(mutex_);
    if (failed_.empty()) return;
    if (is_broken_) throw refusal(failed_);
  }
  const std::string why = group.failure.empty() ? "the group was not written" : group.failure;
  restore();
  throw StoreError(group.failure.empty() ? TSLB_DURABLE_REFUSED : code,
                   fmt::format("{}: group {} of epoch {}: {}", folder_, position.number, position.epoch, why), folder_);
}

// Checks a whole copy, and puts its arrays into the order of the declarations.
void tslb_store_t::take_arrays(LoadedStore &loaded) {
  std::vector<Array> taken;
  for (size_t i = 0; i < decls_.size(); ++i) {
    const ArrayDecl &decl = decls_[i];
    const uint32_t number = number_in(loaded.manifest, decl.name);
    std::string why;
    if (number == loaded.arrays.size() || loaded.arrays.size() != decls_.size()) {
      why = "is not in the copy, or the copy has other arrays too";
    } else {
      const StoredArrayEntry &entry = loaded.manifest.arrays[number];
      if (entry.kind != decl.kind || entry.tbl_id != decl.tbl_id || entry.rec_version != decl.rec_version ||
          entry.n_direct != arrays_[i]->n_direct)
        why = "is of another kind, table, version or n_direct in the copy";
      else
        why = mismatch_of(loaded.arrays[number].get(), decl, true);
    }
    if (!why.empty())
      throw StoreError(TSLB_DURABLE_MISMATCH, fmt::format("{}: array \"{}\": {}", folder_, decl.name, why), folder_);
  }
  for (size_t i = 0; i < decls_.size(); ++i)
    taken.push_back(std::move(loaded.arrays[number_in(loaded.manifest, decls_[i].name)]));
  loaded.arrays = std::move(taken);
}

// Replaces the arrays and what belongs to them. Returns null, or why only a part of the arrays is replaced: then the store
// must be restored, and readers wait until it is.
std::exception_ptr tslb_store_t::replace_content(LoadedStore &loaded) {
  const std::lock_guard snapshots(snapshot_mutex_);
  const std::lock_guard flushing(flush_mutex_);
  const GateClosed closed(gate_), read_closed(read_gate_);
  const AppliesGroup applies;
  {
    const std::lock_guard lock(mutex_);
    expect_usable();
    if (!is_follower_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": is no follower", folder_);
  }
  const uint64_t number = state_.journals.back().number + 1;
  remove_attempt(number);
  std::vector<uint8_t> payload = loaded.payload;
  try {
    for (uint32_t i = 0; i < arrays_.size(); ++i) {
      copy_content(loaded.arrays[i].get(), arrays_[i].get());
      if (!shadows_.empty()) copy_content(loaded.arrays[i].get(), shadows_[i].get());
    }
  } catch (const std::exception &error) {
    read_closed_.emplace(read_gate_);
    refuse(reason_of(error), false);
    return std::current_exception();
  }
  try {
    for (uint32_t i = 0; i < arrays_.size(); ++i) logged_[i].set_number(number_in(loaded.manifest, decls_[i].name));
    const std::lock_guard lock(mutex_);
    state_.identity = loaded.state.identity;
    std::memcpy(info_.identity, state_.identity.data(), sizeof info_.identity);
    durable_payload_ = std::move(payload);
    has_durable_payload_ = loaded.has_payload;
    payload_ = std::move(loaded.payload);
    has_payload_ = loaded.has_payload;
    position_ = loaded.position;
    write_generation_alone(number, true);
  } catch (const std::exception &error) {
    refuse(reason_of(error), true);
    throw;
  }
  return nullptr;
}

void tslb_store_t::adopt_copy(const std::string &folder) {
  expect_no_batch_of_this_thread();
  LoadedStore loaded = load_store(folder, {});
  take_arrays(loaded);
  const std::exception_ptr failure = replace_content(loaded);
  if (!failure) return;
  restore();
  std::rethrow_exception(failure);
}
