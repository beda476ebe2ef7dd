/* The arrays of the library as C++20 types. A record type, the lists of an array, and the kind of a pool are part of
 * the type, so mistakes that the C functions cannot see do not compile. Everything is inline and calls the C functions;
 * a call costs what the C call costs, unless its comment says otherwise. docs/cpp.md is the introduction.
 *
 * Terms
 *   view    a pointer to an array that something else owns: slot_view, record_view, pool_view. Copied like a pointer.
 *   array   a view that owns its array and releases it: slot_array, record_array, pool. It can be moved, not copied.
 *   entry   an index and a pointer to the record; false if there is none.
 *
 * No operation on arrays throws. They are not noexcept, because a compiler then makes no tail call of a C function.
 *
 * The rules of the C headers hold: threads, limits, which calls end the process. A view of nothing
 * (default-constructed, or moved from) is false, and has no operation but this test, assignment and destruction.
 *
 * Errors. What fails before work begins returns a result with a text. Operations on slots and chunks return a false
 * entry or chunk instead, as cheap as a null pointer; the library writes the reason to stderr, or to the function that
 * set_message_sink was given.
 *
 * This header includes only those C headers that it needs. Their names are global: maddr_t, MPOOL_TYPE_DRAM and so on.
 * The layouts of the catalogue, the clock and the utilities are not among them. */
#ifndef TSLB_TSLB_HPP
#define TSLB_TSLB_HPP

#include <tslb/array_loader.h>
#include <tslb/block_files.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

namespace tslb {

/* ---- Results ----------------------------------------------------------------------------------------------------- */

/* Kinds of failures. The numbers are those of tslb_durable_code_t (durable.h). */
enum class code { ok, invalid, io, no_memory, no_store, not_empty, locked, damaged, mismatch, full, refused, broken };

/* Why something failed. */
struct failure {
  code what = code::ok;
  int errnum = 0;    /* errno, or 0 */
  uint64_t byte = 0; /* position that the failure is about: in the file, or in the image that was loaded */
  std::string file;  /* path, or empty */
  std::string text;  /* one line */
};

/* Thrown by result::value alone. */
class bad_result : public std::runtime_error {
 public:
  explicit bad_result(const failure &why) : std::runtime_error(why.text), why_(why) {}
  const failure &why() const noexcept { return why_; }

 private:
  failure why_;
};

namespace detail {
[[noreturn]] inline void raise(const failure &why) {
#ifdef __cpp_exceptions
  throw bad_result(why);
#else
  fprintf(stderr, "%s\n", why.text.c_str());
  abort();
#endif
}
}  // namespace detail

/* A value, or the failure because of which there is none, as std::expected has them in C++23. The operators * and ->
 * need a value; value() throws bad_result without one, and ends a program that is compiled without exceptions. */
template <class T>
class [[nodiscard]] result {
 public:
  result(T value) : held_(std::in_place_index<0>, std::move(value)) {}
  result(failure why) : held_(std::in_place_index<1>, std::move(why)) {}

  bool has_value() const noexcept { return held_.index() == 0; }
  explicit operator bool() const noexcept { return has_value(); }
  T &operator*() &noexcept { return *std::get_if<0>(&held_); }
  const T &operator*() const &noexcept { return *std::get_if<0>(&held_); }
  T &&operator*() &&noexcept { return std::move(*std::get_if<0>(&held_)); }
  T *operator->() noexcept { return std::get_if<0>(&held_); }
  const T *operator->() const noexcept { return std::get_if<0>(&held_); }
  T &value() & { return has_value() ? **this : (detail::raise(error()), **this); }
  T &&value() && { return std::move(value()); }
  /* Only if there is no value. */
  const failure &error() const noexcept { return *std::get_if<1>(&held_); }

 private:
  std::variant<T, failure> held_;
};

template <>
class [[nodiscard]] result<void> {
 public:
  result() = default;
  result(failure why) : failure_(std::move(why)) {}

  bool has_value() const noexcept { return !failure_; }
  explicit operator bool() const noexcept { return has_value(); }
  void value() const {
    if (failure_) detail::raise(*failure_);
  }
  const failure &error() const noexcept { return *failure_; }

 private:
  std::optional<failure> failure_;
};

/* ---- Lines of the library ---------------------------------------------------------------------------------------- */

/* Receives a line without its line end. Called on the thread that made the call, perhaps while the library holds the
 * lock of an array: it uses no array, and writes nothing to stderr. It does not throw. */
using message_sink = void (*)(void *arg, std::string_view line) noexcept;

namespace detail {
struct sink_state {
  message_sink sink = nullptr;
  void *arg = nullptr;
  FILE *before = nullptr;  // the stream that the process had
};
inline sink_state the_sink;

inline ssize_t pass_to_sink(void *, const char *bytes, size_t size) noexcept {
  std::string_view text(bytes, size);
  while (text.ends_with('\n')) text.remove_suffix(1);
  if (!text.empty()) the_sink.sink(the_sink.arg, text);
  return static_cast<ssize_t>(size);
}
}  // namespace detail

/* Gives the lines that the library writes to stderr to a function; a null sink ends that. libtslb.so has no hook for
 * its lines: it writes to the stream `stderr` of the C library, and this call replaces that stream. So the sink
 * receives what anything else in the process prints there with the functions of <stdio.h>, too. It does not receive
 * std::cerr, writes to descriptor 2, and the lines that the library writes to stdout (a refusal of an array without the
 * list). A line longer than BUFSIZ can arrive in pieces.
 *
 * Result   a failure if memory is refused; nothing changes then.
 * Threads  before other threads write to stderr: the stream is a plain variable. */
inline result<void> set_message_sink(message_sink sink, void *arg = nullptr) {
  detail::sink_state &state = detail::the_sink;
  if (sink != nullptr && state.before == nullptr) {
    cookie_io_functions_t functions = {};
    functions.write = detail::pass_to_sink;
    FILE *const stream = fopencookie(nullptr, "w", functions);
    if (stream == nullptr) return failure{code::no_memory, errno, 0, {}, "no memory for a stream"};
    // Unbuffered: each call of fprintf is one write, and the last line before an abort arrives.
    setvbuf(stream, nullptr, _IONBF, 0);
    state = {sink, arg, std::exchange(stderr, stream)};
  } else if (sink != nullptr) {
    state.sink = sink;
    state.arg = arg;
  } else if (state.before != nullptr) {
    fclose(std::exchange(stderr, std::exchange(state.before, nullptr)));
  }
  return {};
}

/* ---- What all arrays share --------------------------------------------------------------------------------------- */

/* Where the memory of an array comes from (dynamic_array.h). */
enum class memory : char {
  logged = MPOOL_TYPE_DRAM,       /* process memory; changes are given to the redo hook */
  unlogged = MPOOL_TYPE_SHM_TMP,  /* process memory */
  files = MPOOL_TYPE_SHM,         /* mapped files, after tslb_set_base_path */
  temporary = MPOOL_TYPE_DRAM_TMP /* process memory; a bit-vector pool of it is a ring of 254 slots */
};

/* Status of a slot. Another value is possible only in an array that something damaged. */
enum class slot_status : uint32_t {
  unset = TSLB_DA_SLOT_UNSET,
  free = TSLB_DA_SLOT_FREE,
  active = TSLB_DA_SLOT_ACTIVE,
  inactive = TSLB_DA_SLOT_INACTIVE,
  not_ready = TSLB_DA_SLOT_NOT_READY
};

/* Result of a change of a slot's status. */
enum class change : int {
  done = 0,
  refused = 1, /* nothing changed */
  no_slot = -1 /* the index was not issued */
};

/* An index, and the record there. False if there is none. */
template <class T>
struct entry {
  uint32_t idx;
  T *record;

  explicit operator bool() const noexcept { return record != nullptr; }
  T *operator->() const noexcept { return record; }
  T &operator*() const noexcept { return *record; }
};

/* Options of a new slot or record array. */
struct array_options {
  uint32_t n_direct = 16; /* slots in block 0 */
  const char *name = nullptr;
  int32_t tbl_id = 0;
  memory where = memory::logged;
  uint8_t rec_version = 0;
};

/* Options of loading. Record size, lists, and the kind of a pool must be those of the type. */
struct load_options {
  const char *name = nullptr;
  int32_t tbl_id = 0;
  memory where = memory::logged;                /* not files */
  bool rebuilds_lists = false;                  /* array_rebuild.h */
  int16_t rec_version = ARRAY_LOAD_ANY_VERSION; /* of the records, or any */
};

/* What an array has. Of a slot array at one moment: it was read under the array's lock. */
struct slot_stats {
  uint32_t used;     /* ids that were issued */
  uint32_t free;     /* on the free list */
  uint32_t inactive; /* on the inactive list */
  int64_t active;    /* used less the two; with slots whose taking has not ended */
  uint64_t bytes;    /* of memory, with headers and without tables */
};

/* What a pool has. Read one after the other: under load they are of different moments. */
struct pool_stats {
  uint32_t slots;    /* memory slots that were issued */
  uint32_t free;     /* of these, on the free list */
  uint64_t bytes;    /* DynMemHdr_t.total_msz */
  uint64_t reserved; /* for chunks since the creation: deletion does not reduce it */
  uint64_t overhead; /* DynMemHdr_t.total_mwast */
  int64_t available; /* bytes less headers, reserved and overhead: negative once slots were taken again */
};

/* What a pool's slots contain: pool_view::sweep. */
struct pool_usage {
  size_t total;   /* bytes of the pool */
  size_t used;    /* bytes of chunks in slots that stay */
  size_t deleted; /* of these, of deleted chunks */
};

class array_view {
 public:
  array_view() = default;

  explicit operator bool() const noexcept { return array_ != nullptr; }
  /* The handle for C functions. */
  DynamicArray_t native() const noexcept { return array_; }
  /* Returns the ids that were issued. */
  uint32_t size() const { return tslb_da_get_size(array_); }
  /* Writes the array as a snapshot stream. Does not sync. Returns the bytes. */
  result<size_t> save(int fd) const {
    size_t bytes = 0;
    errno = 0;
    if (tslb_create_dump_for_dynarr(array_, fd, 0, &bytes) == 0) return bytes;
    const int errnum = errno;
    return failure{code::io, errnum, 0, {}, std::string("the stream was not written: ") + strerror(errnum)};
  }

 protected:
  explicit array_view(DynamicArray_t array) noexcept : array_(array) {}
  uint64_t memory_bytes() const {
    return static_cast<uint64_t>(tslb_dynmem_get_hdrsz(array_)) +
           uint64_t{tslb_da_get_slotsz(array_, nullptr)} * tslb_da_get_total_size(array_);
  }
  DynamicArray_t array_ = nullptr;
};

namespace detail {
inline bool has_layout(DynamicArray_t array, uint32_t record_bytes, uint8_t daflag, bool is_pool) noexcept {
  const auto *const hdr = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
  return array->daflag == daflag && (hdr->hdr_size == TSLB_POOL_HDR_BYTES) == is_pool &&
         (is_pool || tslb_da_get_record_size(array) == record_bytes);
}

inline failure creation_failure(const char *what, const char *name, int errnum) {
  const bool is_refused = errnum == EINVAL || errnum == EOVERFLOW || errnum == ENOTSUP;
  return {is_refused                        ? code::invalid
          : errnum == ENOMEM || errnum == 0 ? code::no_memory
                                            : code::io,
          errnum,
          0,
          {},
          std::string(what) + " \"" + (name != nullptr ? name : "") +
              "\" was not created: " + strerror(errnum != 0 ? errnum : ENOMEM)};
}

// "FILE: byte N: TEXT" or "byte N: TEXT", as the loaders write it.
inline failure load_failure(const char *line) {
  failure why{code::damaged, 0, 0, {}, line};
  if (const char *const at = strstr(line, "byte "); at == line || (at != nullptr && at - line > 2 && at[-2] == ':')) {
    why.byte = strtoull(at + 5, nullptr, 10);
    if (at != line) why.file.assign(line, at - 2);
  }
  return why;
}
}  // namespace detail

/* A view that owns its array: slot_array, record_array and pool are its names. */
template <class View>
class owned : public View {
 public:
  using options = typename View::options;

  owned() = default;
  owned(owned &&other) noexcept : View(std::exchange(static_cast<View &>(other), View())) {}
  owned &operator=(owned &&other) noexcept {
    if (this != &other) {
      destroy_dyn_arr(this->native());
      View::operator=(std::exchange(static_cast<View &>(other), View()));
    }
    return *this;
  }
  ~owned() { destroy_dyn_arr(this->native()); }

  /* Creates an empty array. */
  static result<owned> create(const options &wanted) {
    if (!View::are_valid(wanted)) return detail::creation_failure(View::what, wanted.name, EINVAL);
    errno = 0;
    const DynamicArray_t made = View::make(wanted);
    const int errnum = errno;
    if (made == nullptr) return detail::creation_failure(View::what, wanted.name, errnum);
    return owned(made);
  }
  /* Takes an array that C functions made. On failure it still belongs to the caller. */
  static result<owned> adopt(DynamicArray_t array) {
    const result<View> checked = View::of(array);
    if (!checked) return checked.error();
    return owned(array);
  }
  /* Loads a snapshot stream (array_loader.h: all rules are checked). Whatever the loader refuses is code::damaged. */
  static result<owned> load(int fd, const load_options &wanted = {}) {
    char error[512];
    const array_load_options_t options = c_options(wanted);
    return loaded(array_load_stream(fd, &options, error, sizeof(error)), error);
  }
  /* Loads the block files below a folder (block_files.h). Name and table id of the options name them. Without a folder,
   * paths begin with the name. */
  static result<owned> load_files(const char *base_path, const load_options &wanted) {
    if (const int found = block_files_exist(base_path, wanted.name, wanted.tbl_id); found <= 0) {
      const int errnum = found == 0 ? ENOENT : errno;
      const char *const name = wanted.name != nullptr ? wanted.name : "";
      const std::string folder = base_path != nullptr && *base_path != '\0' ? base_path : name;
      return failure{code::io, errnum, 0, folder, folder + ": no block files: " + strerror(errnum)};
    }
    char error[512];
    const array_load_options_t options = c_options(wanted);
    return loaded(array_load_block_files(base_path, &options, error, sizeof(error)), error);
  }

  View view() const noexcept { return *this; }
  /* Gives the array to the caller, who calls destroy_dyn_arr. */
  DynamicArray_t release() noexcept { return std::exchange(static_cast<View &>(*this), View()).native(); }

 private:
  explicit owned(DynamicArray_t array) noexcept : View(View::unchecked(array)) {}
  static array_load_options_t c_options(const load_options &wanted) noexcept {
    array_load_options_t options = {};
    options.ctx_name = wanted.name;
    options.tbl_id = wanted.tbl_id;
    options.mem_type = static_cast<char>(wanted.where);
    options.kind = static_cast<uint8_t>(View::load_kind | (wanted.rebuilds_lists ? ARRAY_LOAD_REBUILDS_LISTS : 0));
    options.rec_version = wanted.rec_version;
    options.record_size = View::record_bytes;
    return options;
  }
  static result<owned> loaded(DynamicArray_t array, const char *error) {
    if (array == nullptr) return detail::load_failure(error);
    result<owned> made = adopt(array);
    if (!made) destroy_dyn_arr(array);
    return made;
  }
};

/* ---- Slot arrays ------------------------------------------------------------------------------------------------- */

/* The lists of a slot array. */
enum class lists : uint8_t {
  free_only = TSLB_DA_DAFLAG_LL,
  with_inactive = TSLB_DA_DAFLAG_INLL /* slots can be inactivated, and taken from that list by a policy */
};

/* Types of records: their bytes are their value, and reach files. */
template <class T>
concept storable = std::is_object_v<T> && std::is_same_v<T, std::remove_cv_t<T>> && std::is_trivially_copyable_v<T> &&
    std::is_standard_layout_v<T>;

/* Records of record arrays. Slots begin at multiples of 8 bytes. */
template <class T>
concept plain_record = storable<T> && alignof(T) <= 8;

/* Records of slot arrays: the first member is a uint32_t with the name gatekeeper, to which the library writes
 * 0xFFFFFFFF when it takes or frees the slot. Slots of block 0 begin at multiples of 4 bytes, so a type with a member
 * that needs 8 is enclosed in #pragma pack(push, 4) and #pragma pack(pop); TSLB_UNALIGNED is not for types with a
 * chunk_ref. The size is a multiple of 4, so that the words of the lists are aligned. */
template <class T>
concept slot_record = storable<T> && alignof(T) <= 4 && sizeof(T) % 4 == 0 && requires(T &record) {
  { record.gatekeeper } -> std::same_as<uint32_t &>;
  requires offsetof(T, gatekeeper)
  == 0;
};

/* The slots that have a status, in the order of their indices: a scan, not the order of a list. Slots can be taken,
 * freed and changed meanwhile, by the loop and by other threads: each slot is tested once, when the scan reaches it,
 * and slots with ids that were issued after begin() are not visited. */
template <class T, slot_status S>
class slots_with {
 public:
  class iterator {
   public:
    using value_type = entry<T>;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::forward_iterator_tag;

    iterator() = default;
    iterator(DynamicArray_t array, uint32_t end) : array_(array), end_(end) { find(); }
    value_type operator*() const { return {idx_, record_}; }
    iterator &operator++() {
      ++idx_;
      find();
      return *this;
    }
    iterator operator++(int) {
      const iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const iterator &other) const noexcept { return idx_ == other.idx_; }
    bool operator==(std::default_sentinel_t) const noexcept { return idx_ == end_; }

   private:
    void find() {
      for (; idx_ != end_; ++idx_) {
        record_ = static_cast<T *>(tslb_da_get_ptr(array_, idx_));
        if (record_ == nullptr) continue;
        const auto *const node = reinterpret_cast<const char *>(record_) - sizeof(node_fw);
        // Acquires, as tslb_da_slot_status does.
        const uint32_t status = __atomic_load_n(reinterpret_cast<const uint32_t *>(node), __ATOMIC_ACQUIRE);
        if (status == static_cast<uint32_t>(S)) return;
      }
    }

    DynamicArray_t array_ = nullptr;
    T *record_ = nullptr;
    uint32_t idx_ = 0, end_ = 0;
  };

  explicit slots_with(DynamicArray_t array) noexcept : array_(array) {}
  iterator begin() const { return {array_, tslb_da_get_size(array_)}; }
  std::default_sentinel_t end() const { return {}; }

 private:
  DynamicArray_t array_;
};

template <slot_record T, lists L = lists::free_only>
class slot_view : public array_view {
 public:
  using options = array_options;
  using record = T;
  static constexpr const char *what = "slot array";
  static constexpr uint8_t load_kind = ARRAY_LOAD_ANY;
  static constexpr uint32_t record_bytes = sizeof(T);

  slot_view() = default;
  /* A view of an array that C functions made. Fails if it has other records or lists. */
  static result<slot_view> of(DynamicArray_t array) {
    if (array != nullptr && detail::has_layout(array, sizeof(T), static_cast<uint8_t>(L), false))
      return unchecked(array);
    return failure{code::mismatch, 0, 0, {}, "the array has other records or lists than the type"};
  }
  static slot_view unchecked(DynamicArray_t array) noexcept { return slot_view(array); }
  static bool are_valid(const options &) noexcept { return true; }
  static DynamicArray_t make(const options &wanted) {
    return tslb_da_init_ver(sizeof(T), static_cast<int>(wanted.n_direct), static_cast<char>(wanted.where), wanted.name,
                            wanted.tbl_id, static_cast<uint8_t>(L), wanted.rec_version);
  }

  /* Takes a slot (tslb_da_get_newptr). It is active, and zero after the gatekeeper; zero is no null address, see
   * chunk_ref. False if the array is full or memory was refused. */
  entry<T> take() const {
    entry<T> taken;
    taken.record = static_cast<T *>(tslb_da_get_newptr(array_, &taken.idx));
    return taken;
  }
  /* Takes a slot and copies a record to it; the gatekeeper stays. */
  entry<T> add(const T &value) const {
    const entry<T> taken = take();
    if (taken) {
      const uint32_t gatekeeper = taken->gatekeeper;
      *taken.record = value;
      taken->gatekeeper = gatekeeper;
    }
    return taken;
  }
  /* Returns the record of an index that was issued, whatever its status. Null for another index. */
  T *find(uint32_t idx) const { return static_cast<T *>(tslb_da_get_ptr(array_, idx)); }
  /* The same; the index was issued. */
  T &operator[](uint32_t idx) const { return *find(idx); }
  slot_status status(uint32_t idx) const { return static_cast<slot_status>(tslb_da_slot_status(array_, idx)); }

  /* Constant time; refused if the slot has another status than the change needs (tslb_dynarr.h). */
  change free(uint32_t idx) const { return static_cast<change>(tslb_da_free_idx(array_, idx)); }
  change inactivate(uint32_t idx, time_t time) const requires(L == lists::with_inactive) {
    return static_cast<change>(tslb_da_inactivate_idx(array_, idx, time));
  }
  change activate(uint32_t idx) const requires(L == lists::with_inactive) {
    return static_cast<change>(tslb_da_activate_idx(array_, idx));
  }
  /* The slot that has been inactive longest; out of date once another thread changes the list. */
  entry<T> oldest_inactive() const requires(L == lists::with_inactive) {
    entry<T> oldest;
    oldest.record = static_cast<T *>(tslb_da_get_inactive_head_ptr(array_, &oldest.idx));
    return oldest;
  }
  /* Before the first slot is taken. */
  void set_reuse_policy(tsdb_mem_pressure_config_t policy) const requires(L == lists::with_inactive) {
    tslb_da_register_reuse_policy(array_, &policy);
  }

  slots_with<T, slot_status::active> active() const { return slots_with<T, slot_status::active>(array_); }
  slots_with<T, slot_status::inactive> inactive() const { return slots_with<T, slot_status::inactive>(array_); }
  slots_with<T, slot_status::free> freed() const { return slots_with<T, slot_status::free>(array_); }

  /* Takes the array's lock. */
  slot_stats stats() const {
    const auto *const roots = static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array_));
    tslb_da_spin_lock16(&array_->spinlock);
    const uint32_t n_free = roots->n_free, n_inactive = roots->n_inact, n_used = size();
    tslb_da_spin_unlock16(&array_->spinlock);
    return {n_used, n_free, n_inactive, int64_t{n_used} - n_free - n_inactive, memory_bytes()};
  }

 private:
  explicit slot_view(DynamicArray_t array) noexcept : array_view(array) {}
};

template <slot_record T, lists L = lists::free_only>
using slot_array = owned<slot_view<T, L>>;

/* ---- Record arrays ----------------------------------------------------------------------------------------------- */

/* Records without lists: ids only grow. */
template <plain_record T>
class record_view : public array_view {
 public:
  using options = array_options;
  using record = T;
  static constexpr const char *what = "record array";
  static constexpr uint8_t load_kind = ARRAY_LOAD_ANY;
  static constexpr uint32_t record_bytes = sizeof(T);

  record_view() = default;
  static result<record_view> of(DynamicArray_t array) {
    // A user header of another length would move the records of block 0.
    if (array != nullptr && detail::has_layout(array, sizeof(T), 0, false) &&
        static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array))->hdr_size % alignof(T) == 0)
      return unchecked(array);
    return failure{code::mismatch, 0, 0, {}, "the array has other records than the type, or lists"};
  }
  static record_view unchecked(DynamicArray_t array) noexcept { return record_view(array); }
  static bool are_valid(const options &) noexcept { return true; }
  static DynamicArray_t make(const options &wanted) {
    return get_default_dyn_array_ex_ex(0, sizeof(T), static_cast<int32_t>(wanted.n_direct),
                                       static_cast<char>(wanted.where), wanted.tbl_id, wanted.name, 0,
                                       wanted.rec_version);
  }

  /* Issues the next id. False if the array is full or memory was refused. */
  entry<T> add() const {
    void *added;
    const int32_t id = get_dyn_arr_new_record_id_ex(array_, &added, 0);
    return {static_cast<uint32_t>(id), static_cast<T *>(added)};
  }
  T *find(uint32_t id) const { return static_cast<T *>(get_dyn_arr_record_position(array_, id)); }
  T &operator[](uint32_t id) const { return *find(id); }
  slot_stats stats() const { return {size(), 0, 0, size(), memory_bytes()}; }

 private:
  explicit record_view(DynamicArray_t array) noexcept : array_view(array) {}
};

template <plain_record T>
using record_array = owned<record_view<T>>;

/* ---- Pools ------------------------------------------------------------------------------------------------------- */

/* Kinds of pools, by their addresses (tslb_dynmem.h). The width of addresses is not stored: big_buffer and wide are one
 * kind to a store and to the loaders, so a pool of one can be opened as the other. A program keeps to one of them. */
enum class kind {
  big_buffer, /* 32 bits: 256 slots of up to 16 MiB */
  bit_vector, /* 32 bits: 2,041 slots; lengths are multiples of 8 */
  wide        /* 64 bits: no limit; chunks are not deleted one by one */
};

/* Whether each chunk begins with a compaction header, which has its length and its referrer. */
enum class headers : bool { none, compact };

/* Address of a chunk, with the bytes of maddr_t or maddr64_t, so that C code and stored records have the same. The null
 * address has all bits set: no pool of this layer issues it. Zero is an address, that of a pool's first chunk. So a
 * record with such a member is assigned as a whole, `*slot = reading{...}`, or with slot_view::add. */
template <kind K>
class chunk_ref {
 public:
  using address_t = std::conditional_t<K == kind::wide, maddr64_t, maddr_t>;

  constexpr chunk_ref() noexcept = default;
  explicit chunk_ref(address_t address) noexcept : words_(std::bit_cast<words_t>(address)) {}
  constexpr explicit operator bool() const noexcept { return *this != chunk_ref(); }
  constexpr bool operator==(const chunk_ref &) const noexcept = default;
  /* For C functions. */
  address_t address() const noexcept { return std::bit_cast<address_t>(words_); }
  /* Slot, and first byte in it. */
  constexpr tslb_chunk_place_t place() const noexcept {
    if constexpr (K == kind::wide)
      return {words_[0], words_[1]};
    else if constexpr (K == kind::bit_vector)
      return tslb_stored_decode_bitvector(words_[0]);
    else
      return tslb_stored_decode_bigbuffer(words_[0]);
  }

 private:
  // 32-bit words, since records of slot arrays are aligned to 4 bytes.
  using words_t = std::array<uint32_t, K == kind::wide ? 2 : 1>;
  static constexpr words_t null_words() noexcept {
    words_t words = {};
    words.fill(UINT32_MAX);
    return words;
  }
  words_t words_ = null_words();
};
static_assert(sizeof(chunk_ref<kind::bit_vector>) == sizeof(maddr_t));
static_assert(sizeof(chunk_ref<kind::wide>) == sizeof(maddr64_t));

namespace detail {
void length_is_not_one_of_this_pool();  // not constexpr: a constant length that calls it does not compile
}

/* Length of a chunk's data that fits the kind of pool: at least 1, a multiple of 8 in a bit-vector pool, and with
 * compaction headers at most 65,535. A constant is checked by the compiler; other lengths go through from(). */
template <kind K, headers H>
class chunk_length {
 public:
  static constexpr uint32_t unit = K == kind::bit_vector ? TSLB_BV_UNIT_BYTES : 1;
  static constexpr uint32_t max = (H == headers::compact ? TSLB_COMPAT_LEN_MAX : uint32_t{INT32_MAX}) / unit * unit;

  consteval chunk_length(uint32_t bytes) : bytes_(bytes) {
    if (bytes == 0 || bytes > max || bytes % unit != 0) detail::length_is_not_one_of_this_pool();
  }
  /* Rounds up to a multiple of `unit`. No value for 0, and above `max`. */
  static constexpr std::optional<chunk_length> from(size_t bytes) noexcept {
    if (bytes == 0 || bytes > max) return std::nullopt;
    return chunk_length((static_cast<uint32_t>(bytes) + unit - 1) / unit * unit, rounded{});
  }
  constexpr uint32_t bytes() const noexcept { return bytes_; }

 private:
  struct rounded {};
  constexpr chunk_length(uint32_t bytes, rounded) noexcept : bytes_(bytes) {}
  uint32_t bytes_;
};

/* A chunk: its address, and its data after the compaction header. False if there is none. */
template <kind K>
struct chunk {
  chunk_ref<K> ref;
  std::span<std::byte> data;

  explicit operator bool() const noexcept { return data.data() != nullptr; }
};

/* Options of a new pool. */
struct pool_options {
  uint32_t slot_bytes = 65536; /* that chunks of a slot can use; rounded up to a multiple of 4 */
  uint32_t n_direct = 1;       /* slots in block 0 */
  const char *name = nullptr;
  int32_t tbl_id = 0;
  memory where = memory::logged;
  bool frees_slots = true; /* a slot whose chunks were all deleted is taken again */
  uint8_t rec_version = 0;
  int16_t max_slots = 0; /* DynMemHdr_t.max_slots */
};

template <kind K, headers H = headers::compact>
class pool_view : public array_view {
 public:
  using options = pool_options;
  using ref = chunk_ref<K>;
  using length = chunk_length<K, H>;
  using referrer = std::conditional_t<K == kind::wide, srcaddr64_t, srcaddr_t>;
  static constexpr const char *what = "pool";
  static constexpr uint8_t load_kind = ARRAY_LOAD_POOL;
  static constexpr uint32_t record_bytes = ARRAY_LOAD_ANY_SIZE;
  /* With slots of 16 MiB and no headers the last byte of the last slot would have the null address. */
  static constexpr uint32_t max_slot_bytes = 16777216u - (K == kind::big_buffer && H == headers::none ? 4 : 0);

  pool_view() = default;
  static result<pool_view> of(DynamicArray_t array) {
    if (array != nullptr && detail::has_layout(array, 0, array->daflag, true)) {
      const DynMemHdr_t &hdr = header_of(array);
      if (((hdr.flag & MPOOL_FLAG_COMPAT) != 0) == (H == headers::compact) &&
          ((hdr.flag & MPOOL_FLAG_BV) != 0) == (K == kind::bit_vector) &&
          (K != kind::big_buffer || hdr.mslot_sz <= max_slot_bytes))
        return unchecked(array);
    }
    return failure{code::mismatch, 0, 0, {}, "the array is no pool of this kind"};
  }
  static pool_view unchecked(DynamicArray_t array) noexcept { return pool_view(array); }
  static bool are_valid(const options &wanted) noexcept {
    return wanted.slot_bytes != 0 && (wanted.slot_bytes <= max_slot_bytes || K == kind::wide);
  }
  static DynamicArray_t make(const options &wanted) {
    return tslb_init_dynmem_ex1(static_cast<int>(wanted.slot_bytes), static_cast<int>(wanted.n_direct),
                                H == headers::compact ? MPOOL_FLAG_COMPAT : 0, static_cast<unsigned char>(wanted.where),
                                K == kind::bit_vector ? MPOOL_FLAG_BV : 0, wanted.name, wanted.tbl_id,
                                wanted.frees_slots ? TSLB_DA_DAFLAG_LL : 0, wanted.rec_version,
                                wanted.where == memory::logged ? 1 : 0, wanted.max_slots);
  }

  /* Allocates a chunk. False if it is longer than a slot, or at max_slots. At the last slot that an address can name
   * the process ends (tslb_dynmem.h), except through a durable store. */
  chunk<K> take(length data_length, const referrer &from = {}) const {
    typename ref::address_t address;
    void *first;
    if constexpr (K == kind::wide)
      first = tslb_dynmem_get_mchunk64(array_, &address, static_cast<int>(data_length.bytes()), from);
    else
      first = tslb_dynmem_get_mchunk(array_, &address, static_cast<int>(data_length.bytes()), from);
    if (first == nullptr) return {};
    return {ref(address), {static_cast<std::byte *>(first) + header_bytes, data_length.bytes()}};
  }
  /* Returns the first byte of a chunk's data. The address is not null. Null if its slot was never taken. */
  std::byte *find(ref address) const {
    if constexpr (K == kind::wide)
      return static_cast<std::byte *>(tslb_dynmem_get_maddr2ptr64(array_, address.address()));
    else
      return static_cast<std::byte *>(tslb_dynmem_get_maddr2ptr(array_, address.address()));
  }
  /* Returns a chunk's data, whose length is in its compaction header. Empty for the null address. One comparison and
   * one load more than find. */
  std::span<std::byte> data(ref address) const requires(H == headers::compact) {
    std::byte *const first = address ? find(address) : nullptr;
    if (first == nullptr) return {};
    return {first, reinterpret_cast<const compat_t *>(first - header_bytes)->mchunk_len};
  }
  /* The same with a length that the caller keeps. */
  std::span<std::byte> data(ref address, size_t bytes) const {
    std::byte *const first = address ? find(address) : nullptr;
    return {first, first != nullptr ? bytes : 0};
  }
  /* Deletes a chunk; its slot is released with its last chunk. The address is not null. */
  void erase(ref address) const requires(H == headers::compact && K != kind::wide) {
    tslb_dynmem_del_mchunk(array_, address.address());
  }
  /* Frees empty slots, and adds up the others. Linear in the slots. */
  pool_usage sweep() const {
    pool_usage usage = {};
    tslb_dynmem_update_free_list(array_, &usage.total, &usage.used, &usage.deleted);
    return usage;
  }
  pool_stats stats() const {
    const DynMemHdr_t &hdr = header_of(array_);
    const auto read = [](const u_int64_t &word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); };
    uint32_t n_free = 0;
    if (array_->daflag != 0) {
      tslb_da_spin_lock16(&array_->spinlock);
      n_free = static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array_))->n_free;
      tslb_da_spin_unlock16(&array_->spinlock);
    }
    return {size(),
            n_free,
            read(hdr.total_msz),
            read(hdr.total_mused),
            read(hdr.total_mwast),
            static_cast<int64_t>(read(hdr.total_mavail))};
  }

 private:
  static constexpr uint32_t header_bytes = H == headers::compact ? TSLB_COMPAT_BYTES : 0;
  static const DynMemHdr_t &header_of(DynamicArray_t array) noexcept {
    return *static_cast<const DynMemHdr_t *>(tslb_da_get_usrhdr(array));
  }
  explicit pool_view(DynamicArray_t array) noexcept : array_view(array) {}
};

template <kind K, headers H = headers::compact>
using pool = owned<pool_view<K, H>>;

}  // namespace tslb

#endif
