/* Durable stores as C++20 types, on <tslb/durable.h>, whose rules hold: the order of calls, threads, locks of the host.
 *
 *   schema    the declarations of a store's arrays. Each declaration returns a key, which has the type of the array.
 *   store     owns a store. get(key) returns the typed view of an array.
 *   batch     owns an open batch. It ends with end() or commit(). A batch that is destroyed without one of them is
 *             refused, with its group: after an exception halfway, half a change would be durable otherwise. The store
 *             accepts no batch then until restore() brings the arrays back to the last durable batch. Nothing that was
 *             acknowledged is lost; batches of other threads in the same group are refused as well, and made again.
 *   ticket    says when a batch is durable.
 *
 * Calls of a store cost more than those of an array, and return results with texts. What is not here, such as logs
 * and followers, is done with store::native(). */
#ifndef TSLB_DURABLE_HPP
#define TSLB_DURABLE_HPP

#include <tslb/durable.h>

#include <tslb/tslb.hpp>
#include <vector>

namespace tslb {

static_assert(static_cast<int>(code::invalid) == TSLB_DURABLE_INVALID);
static_assert(static_cast<int>(code::full) == TSLB_DURABLE_FULL);
static_assert(static_cast<int>(code::broken) == TSLB_DURABLE_BROKEN, "both lists have the same order");

namespace detail {
inline failure failure_of(const tslb_error_t &error) {
  return {static_cast<code>(error.code), error.errnum, error.byte, error.file, error.text};
}
inline result<void> done_or(int outcome, const tslb_error_t &error) {
  if (outcome == 0) return {};
  return failure_of(error);
}
}  // namespace detail

/* Names an array of a store: made by the schema that the store was opened with. */
template <class View>
struct array_key {
  uint32_t index;
};

/* What a declaration can have besides name and type (tslb_array_decl_t). */
struct decl_options {
  int32_t tbl_id = 0;
  uint32_t n_direct = 16;
  uint8_t rec_version = 0;
  const char *description = nullptr;
  tslb_record_converter_t convert = nullptr;
  void *convert_arg = nullptr;
};
struct pool_decl_options {
  int32_t tbl_id = 0;
  uint32_t slot_bytes = 65536;
  uint32_t n_direct = 1;
  bool frees_slots = true;
  int16_t max_slots = 0;
  const char *description = nullptr;
};

/* Declarations of arrays. Names and descriptions are not copied until a store is opened. */
class schema {
 public:
  template <slot_record T, lists L = lists::free_only>
  array_key<slot_view<T, L>> slots(const char *name, const decl_options &wanted = {}) {
    return {add(name, TSLB_ARRAY_SLOTS, sizeof(T), static_cast<uint8_t>(L), wanted)};
  }
  template <plain_record T>
  array_key<record_view<T>> records(const char *name, const decl_options &wanted = {}) {
    return {add(name, TSLB_ARRAY_RECORDS, sizeof(T), 0, wanted)};
  }
  template <kind K, headers H = headers::compact>
  array_key<pool_view<K, H>> pool(const char *name, const pool_decl_options &wanted = {}) {
    decl_options common;
    common.tbl_id = wanted.tbl_id;
    common.n_direct = wanted.n_direct;
    common.description = wanted.description;
    const uint32_t index = add(name, K == kind::bit_vector ? TSLB_POOL_BIT_VECTOR : TSLB_POOL_BIG_BUFFER,
                               wanted.slot_bytes, wanted.frees_slots ? TSLB_DA_DAFLAG_LL : 0, common);
    decls_[index].has_compat = H == headers::compact;
    decls_[index].max_slots = wanted.max_slots;
    is_valid_ = is_valid_ && (K != kind::big_buffer || wanted.slot_bytes <= pool_view<K, H>::max_slot_bytes);
    return {index};
  }
  /* For what the options lack, such as a reuse policy. */
  template <class View>
  tslb_array_decl_t &declaration(array_key<View> key) {
    return decls_[key.index];
  }
  const std::vector<tslb_array_decl_t> &declarations() const noexcept { return decls_; }
  /* False if a pool has slots in which the null address is a chunk's: pool_view::max_slot_bytes. */
  bool is_valid() const noexcept { return is_valid_; }

 private:
  uint32_t add(const char *name, tslb_array_kind_t of, uint32_t bytes, uint8_t daflag, const decl_options &wanted) {
    tslb_array_decl_t decl = {};
    decl.name = name;
    decl.kind = of;
    decl.tbl_id = wanted.tbl_id;
    decl.record_bytes = bytes;
    decl.n_direct = wanted.n_direct;
    decl.daflag = daflag;
    decl.rec_version = wanted.rec_version;
    decl.description = wanted.description;
    decl.convert = wanted.convert;
    decl.convert_arg = wanted.convert_arg;
    decls_.push_back(decl);
    return static_cast<uint32_t>(decls_.size() - 1);
  }

  std::vector<tslb_array_decl_t> decls_;
  bool is_valid_ = true;
};

/* Number of a batch, in the order of their ends. */
enum class ticket : uint64_t {};

enum class ticket_status { durable, pending, refused };

/* An open batch of the thread that began it. Changes of arrays are made between begin and end, and named with log(). */
class [[nodiscard]] batch {
 public:
  explicit batch(tslb_batch_t *begun) noexcept : batch_(begun) {}
  batch(batch &&other) noexcept : batch_(std::exchange(other.batch_, nullptr)) {}
  batch &operator=(batch &&other) noexcept {
    if (this != &other) {
      refuse("it was replaced");
      batch_ = std::exchange(other.batch_, nullptr);
    }
    return *this;
  }
  /* Refuses a batch that did not end. */
  ~batch() { refuse("it was destroyed before its end"); }

  /* False after its end. */
  explicit operator bool() const noexcept { return batch_ != nullptr; }
  tslb_batch_t *native() const noexcept { return batch_; }

  /* Name what was changed: a record, a member of it, bytes of a chunk's data. */
  template <class View>
  requires requires { typename View::record; }
  void log(array_key<View> array, uint32_t idx) { tslb_batch_log_record(batch_, array.index, idx); }
  template <class View, class Member>
  void log(array_key<View> array, uint32_t idx, Member View::record::*member) {
    // The offset of a member of a type with standard layout is the same in every object.
    alignas(typename View::record) static constexpr std::byte place[sizeof(typename View::record)] = {};
    const auto *const record = reinterpret_cast<const typename View::record *>(place);
    const auto *const at = reinterpret_cast<const std::byte *>(std::addressof(record->*member));
    tslb_batch_log_bytes(batch_, array.index, idx, static_cast<uint32_t>(at - place), sizeof(Member));
  }
  template <kind K, headers H>
  void log(array_key<pool_view<K, H>> pool, chunk_ref<K> chunk, uint32_t offset, uint32_t bytes) {
    if constexpr (K == kind::wide)
      tslb_batch_log_chunk64(batch_, pool.index, chunk.address(), offset, bytes);
    else
      tslb_batch_log_chunk(batch_, pool.index, chunk.address(), offset, bytes);
  }

  /* Takes a chunk, which is zero. code::full: nothing was changed. */
  template <kind K, headers H>
  result<chunk<K>> take_chunk(array_key<pool_view<K, H>> pool, chunk_length<K, H> length,
                              const typename pool_view<K, H>::referrer &from = {}) {
    typename chunk_ref<K>::address_t address;
    tslb_error_t error;
    void *data;
    if constexpr (K == kind::wide)
      data = tslb_batch_take_chunk64(batch_, pool.index, length.bytes(), from, &address, &error);
    else
      data = tslb_batch_take_chunk(batch_, pool.index, length.bytes(), from, &address, &error);
    if (data == nullptr) return detail::failure_of(error);
    return chunk<K>{chunk_ref<K>(address), {static_cast<std::byte *>(data), length.bytes()}};
  }
  /* Takes a chunk, copies bytes to it and names them. The bytes after a rounded length are zero. */
  template <kind K, headers H>
  result<chunk<K>> put(array_key<pool_view<K, H>> pool, std::span<const std::byte> bytes,
                       const typename pool_view<K, H>::referrer &from = {}) {
    const auto length = chunk_length<K, H>::from(bytes.size());
    if (!length)
      return failure{code::invalid, 0, 0, {}, "a chunk of " + std::to_string(bytes.size()) + " bytes does not exist"};
    result<chunk<K>> taken = take_chunk(pool, *length, from);
    if (taken) {
      memcpy(taken->data.data(), bytes.data(), bytes.size());
      log(pool, taken->ref, 0, static_cast<uint32_t>(bytes.size()));
    }
    return taken;
  }
  template <kind K>
  requires(K != kind::wide) void erase(array_key<pool_view<K, headers::compact>> pool, chunk_ref<K> chunk) {
    tslb_batch_delete_chunk(batch_, pool.index, chunk.address());
  }
  template <kind K, headers H>
  uint32_t sweep(array_key<pool_view<K, H>> pool) {
    return tslb_batch_sweep(batch_, pool.index);
  }
  result<void> set_payload(std::span<const std::byte> bytes) {
    tslb_error_t error;
    return detail::done_or(tslb_batch_set_payload(batch_, bytes.data(), bytes.size(), &error), error);
  }

  /* Ends the batch. Does not wait, except with TSLB_SYNC_ALWAYS. */
  ticket end() noexcept { return static_cast<ticket>(tslb_batch_end(std::exchange(batch_, nullptr))); }
  /* Ends the batch, and waits until it is durable. */
  result<void> commit() {
    tslb_error_t error;
    return detail::done_or(tslb_batch_commit(std::exchange(batch_, nullptr), &error), error);
  }
  /* Ends the batch; it is not durable, and neither is its group. Nothing if it has ended. */
  void refuse(const char *why) noexcept {
    if (batch_ != nullptr) tslb_batch_refuse(std::exchange(batch_, nullptr), why);
  }

 private:
  tslb_batch_t *batch_;
};

/* Owns a store. */
class store {
 public:
  store() = default;
  store(store &&other) noexcept : store_(std::exchange(other.store_, nullptr)) {}
  store &operator=(store &&other) noexcept {
    if (this != &other) {
      tslb_store_close(store_, nullptr);
      store_ = std::exchange(other.store_, nullptr);
    }
    return *this;
  }
  /* Closes the store; a failure is not seen. No batch is open. */
  ~store() { tslb_store_close(store_, nullptr); }

  /* Opens or creates a store: tslb_store_open, with its flags and options. */
  static result<store> open(const std::string &folder, const schema &arrays, const tslb_store_options_t &options = {}) {
    if (!arrays.is_valid()) return failure{code::invalid, 0, 0, {}, "a pool without headers has slots of 16 MiB"};
    tslb_error_t error;
    const std::vector<tslb_array_decl_t> &decls = arrays.declarations();
    tslb_store_t *const opened =
        tslb_store_open(folder.c_str(), decls.data(), static_cast<uint32_t>(decls.size()), &options, &error);
    if (opened == nullptr) return detail::failure_of(error);
    return store(opened);
  }

  explicit operator bool() const noexcept { return store_ != nullptr; }
  tslb_store_t *native() const noexcept { return store_; }
  /* The key is of the schema that the store was opened with. */
  template <class View>
  View get(array_key<View> key) const noexcept {
    return View::unchecked(tslb_store_array(store_, key.index));
  }

  /* Closes the store, and returns whether everything was written. It stays open with code::invalid: a batch is open. */
  result<void> close() {
    tslb_error_t error;
    const int outcome = tslb_store_close(store_, &error);
    if (outcome == 0 || error.code != TSLB_DURABLE_INVALID) store_ = nullptr;
    return detail::done_or(outcome, error);
  }

  result<batch> begin() {
    tslb_error_t error;
    tslb_batch_t *const begun = tslb_batch_begin(store_, &error);
    if (begun == nullptr) return detail::failure_of(error);
    return batch(begun);
  }
  result<void> wait(ticket of) {
    tslb_error_t error;
    return detail::done_or(tslb_store_wait(store_, static_cast<uint64_t>(of), &error), error);
  }
  /* Returns at once. */
  ticket_status check(ticket of) {
    const int status = tslb_store_check(store_, static_cast<uint64_t>(of), nullptr);
    return status == 0 ? ticket_status::durable : status > 0 ? ticket_status::pending : ticket_status::refused;
  }
  ticket settled() const noexcept { return static_cast<ticket>(tslb_store_settled(store_)); }

  /* As the C functions of these names. restore() can follow the refusal of a batch at once: it ends the group. */
  result<void> restore() { return call(tslb_store_restore); }
  result<void> snapshot() { return call(tslb_store_snapshot); }
  result<void> backup(const std::string &folder) {
    tslb_error_t error;
    return detail::done_or(tslb_store_backup(store_, folder.c_str(), &error), error);
  }
  result<void> reserve(uint64_t bytes) {
    tslb_error_t error;
    return detail::done_or(tslb_store_reserve(store_, bytes, &error), error);
  }
  tslb_store_info_t info() const noexcept {
    tslb_store_info_t info;
    tslb_store_get_info(store_, &info);
    return info;
  }
  std::span<const std::byte> payload() const noexcept {
    size_t size;
    const void *const bytes = tslb_store_payload(store_, &size);
    return {static_cast<const std::byte *>(bytes), size};
  }
  template <kind K, headers H>
  tslb_pool_room_t room(array_key<pool_view<K, H>> pool) const noexcept {
    tslb_pool_room_t room = {};
    tslb_store_pool_room(store_, pool.index, &room);
    return room;
  }

 private:
  explicit store(tslb_store_t *opened) noexcept : store_(opened) {}
  result<void> call(int (*function)(tslb_store_t *, tslb_error_t *)) {
    tslb_error_t error;
    return detail::done_or(function(store_, &error), error);
  }

  tslb_store_t *store_ = nullptr;
};

}  // namespace tslb

#endif
