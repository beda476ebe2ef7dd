/* Durable stores as C++20 types, on <tslb/durable.h>, whose rules hold: the order of calls, threads, locks of the host.
 *
 *   schema    the declarations of a store's arrays. Each declaration returns a key, which has the type of the array.
 *   store     owns a store. get(key) returns the typed view of an array.
 *   batch     owns an open batch. It ends with end() or commit(). A batch that is destroyed without one of them is
 *             refused, with its group: after an exception halfway, half a change would be durable otherwise. The group
 *             ends soon after. Batches that begin before belong to it and are refused when they are committed; then
 *             begin() fails until restore() has brought the arrays back to the last durable batch. Nothing that was
 *             acknowledged is lost.
 *   ticket    says when a batch is durable.
 *   writer    makes batches with several threads, restores the store after a refusal, and makes them again.
 *
 * Calls of a store cost more than those of an array, and return results with texts. What is not here, such as logs
 * and followers, is done with store::native(). */
#ifndef TSLB_DURABLE_HPP
#define TSLB_DURABLE_HPP

#include <tslb/durable_schema.hpp>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <shared_mutex>

namespace tslb {

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
    // In the ABI of the platform a pointer to a data member is its offset. A reference could be unaligned.
    static_assert(sizeof(member) == sizeof(std::ptrdiff_t));
    const auto offset = static_cast<uint32_t>(std::bit_cast<std::ptrdiff_t>(member));
    tslb_batch_log_bytes(batch_, array.index, idx, offset, sizeof(Member));
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
    return take_bytes(pool, length.bytes(), from);
  }
  /* Takes a chunk, copies bytes to it and names them. The bytes after a rounded length are zero. No bytes are
   * code::invalid, and so is a longer span than the pool has chunks: a record without data keeps the null address. */
  template <kind K, headers H>
  result<chunk<K>> put(array_key<pool_view<K, H>> pool, std::span<const std::byte> bytes,
                       const typename pool_view<K, H>::referrer &from = {}) {
    const auto length = chunk_length<K, H>::from(bytes.size());
    // An invalid length is refused with the pool's name and maximum.
    const size_t taken_bytes = length ? length->bytes() : std::min<size_t>(bytes.size(), UINT32_MAX);
    result<chunk<K>> taken = take_bytes(pool, static_cast<uint32_t>(taken_bytes), from);
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
  template <kind K, headers H>
  result<chunk<K>> take_bytes(array_key<pool_view<K, H>> pool, uint32_t bytes,
                              const typename pool_view<K, H>::referrer &from) {
    typename chunk_ref<K>::address_t address;
    tslb_error_t error;
    void *data;
    if constexpr (K == kind::wide)
      data = tslb_batch_take_chunk64(batch_, pool.index, bytes, from, &address, &error);
    else
      data = tslb_batch_take_chunk(batch_, pool.index, bytes, from, &address, &error);
    if (data == nullptr) return detail::failure_of(error);
    return chunk<K>{chunk_ref<K>(address), {static_cast<std::byte *>(data), bytes}};
  }

  tslb_batch_t *batch_;
};

/* A view of a store's pool. Chunks are taken, deleted and swept through a batch, which logs it. */
template <kind K, headers H>
class stored_pool_view : private pool_view<K, H> {
 public:
  using typename pool_view<K, H>::ref;
  using typename pool_view<K, H>::length;
  using pool_view<K, H>::native;
  using pool_view<K, H>::size;
  using pool_view<K, H>::save;
  using pool_view<K, H>::find;
  using pool_view<K, H>::data;
  using pool_view<K, H>::stats;
  using pool_view<K, H>::operator bool;

  stored_pool_view() = default;
  explicit stored_pool_view(pool_view<K, H> of) noexcept : pool_view<K, H>(of) {}
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
  static result<store> open(const std::string &folder, const schema &arrays, const store_options &options = {}) {
    return open(folder, arrays, options.native());
  }
  /* A template, so that options in braces are store_options. */
  template <std::same_as<tslb_store_options_t> Options>
  static result<store> open(const std::string &folder, const schema &arrays, const Options &options) {
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
  template <kind K, headers H>
  stored_pool_view<K, H> get(array_key<pool_view<K, H>> key) const noexcept {
    return stored_pool_view<K, H>(pool_view<K, H>::unchecked(tslb_store_array(store_, key.index)));
  }
  /* Takes a record, copies `value` to it, and names it in the batch. What is written to it before the batch ends belongs to
   * the batch as well. False if the array is full or memory was refused. */
  template <class View>
  requires requires { typename View::record; }
  entry<typename View::record> add(batch &in, array_key<View> array, const typename View::record &value) const {
    entry<typename View::record> taken;
    if constexpr (requires(View view) { view.add(value); })
      taken = get(array).add(value);
    else if ((taken = get(array).add()))
      *taken.record = value;
    if (taken) in.log(array, taken.idx);
    return taken;
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

/* Makes batches with any number of threads. After a refusal the store is restored, by one thread while no other has a
 * batch, and the refused batches are made again. All batches of the store are made with one writer, and state that fill
 * or read uses is guarded by locks of the host that are taken and released within them. */
class writer {
 public:
  /* The store outlives the writer. after_restore makes anew what the host derives from the arrays; it runs alone. If it
   * throws, commit throws that exception, and the next call of commit or read calls it again first. */
  explicit writer(store &of, std::function<void()> after_restore = {}, int max_attempts = 5)
      : store_(of), after_restore_(std::move(after_restore)), max_attempts_(max_attempts) {}

  /* Makes a batch and waits until it is durable. fill(batch) changes the arrays and names the changes. For a payload it
   * ends the batch itself, under a lock of the host, and returns the ticket. It is called again after a restoration, so
   * its results are assigned, not accumulated. An exception of it refuses the batch, and is thrown on after the
   * restoration; if that failed, the next call restores. After max_attempts the last refusal is returned: the arrays are
   * restored then, too. Not within fill or read. */
  template <class Fill>
  result<void> commit(Fill &&fill) {
    for (int attempt = 1;; ++attempt) {
      result<void> done;
      std::exception_ptr thrown;
      uint64_t n_restored;
      {
        const auto lock = enter();
        n_restored = n_restored_;
        try {
          done = make(fill);
        } catch (...) {
          thrown = std::current_exception();
        }
      }
      if (!thrown && (done || done.error().what != code::refused)) return done;
      const result<void> restored = restore(n_restored);
      if (thrown) std::rethrow_exception(thrown);
      if (!restored) return restored;
      if (attempt >= max_attempts_) return done;
    }
  }
  /* Calls a function that reads the arrays: no restoration changes them meanwhile. Not within fill or read. */
  template <class Function>
  decltype(auto) read(Function &&function) {
    const auto lock = enter();
    return std::forward<Function>(function)();
  }

 private:
  template <class Fill>
  result<void> make(Fill &fill) {
    result<batch> begun = store_.begin();
    if (!begun) return begun.error();
    batch made = *std::move(begun);
    if constexpr (std::is_same_v<std::invoke_result_t<Fill &, batch &>, ticket>) {
      return store_.wait(fill(made));
    } else {
      fill(made);
      return made.commit();
    }
  }
  /* Returns a shared lock. Calls after_restore first if it is due. */
  std::shared_lock<std::shared_mutex> enter() {
    std::shared_lock lock(mutex_);
    while (is_stale_) {
      lock.unlock();
      {
        const std::unique_lock alone(mutex_);
        renew();
      }
      lock.lock();
    }
    return lock;
  }
  /* Unless another thread has restored the store since n_restored was read. */
  result<void> restore(uint64_t n_restored) {
    const std::unique_lock alone(mutex_);
    if (n_restored_ == n_restored) {
      if (result<void> done = store_.restore(); !done) return done;
      ++n_restored_;
      is_stale_ = true;
    }
    renew();
    return {};
  }
  /* Called with the unique lock. */
  void renew() {
    if (is_stale_ && after_restore_) after_restore_();
    is_stale_ = false;
  }

  store &store_;
  std::function<void()> after_restore_;
  int max_attempts_;
  std::shared_mutex mutex_;  // shared from begin to the settled ticket, so a restoration finds no open batch
  uint64_t n_restored_ = 0;
  bool is_stale_ = false;  // the store was restored, and after_restore has not returned since
};

}  // namespace tslb

#endif
