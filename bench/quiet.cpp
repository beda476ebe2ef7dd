// Calls and writes that the common paths do not make.
//
// Measured: the number of calls of the allocator, the system calls, and the writes to the array and to the library's
// own data, by a lookup (every id, from the direct area to level 5), by a chunk within a slot, and by a new id.
//
// Method: this program defines the allocator's functions and counts their calls. Each piece of work runs in a child
// process that is killed at its first system call. For the lookup the array and the library's data are read-only, so
// the child also ends at its first write. The rows named control do what is forbidden, and show that the child is then
// killed.
//
// Not measured: time. System calls of a system allocator are not visible either: the array's memory comes from a region
// that is allocated before.
//
// Run: bench_quiet, with or without --quick. Exits with 1 if a row is not as expected.
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tslb/tslb_dynmem.h>

// ---- The allocator, counted

extern "C" {
void *__libc_malloc(size_t bytes);
void *__libc_calloc(size_t count, size_t bytes);
void *__libc_realloc(void *memory, size_t bytes);
void *__libc_memalign(size_t alignment, size_t bytes);
void __libc_free(void *memory);
}

// While `arena_open`, calloc allocates from this region, which can be made read-only as a whole.
constexpr size_t ARENA_BYTES = size_t{64} << 20;
static char *arena;
static size_t arena_used;
static bool arena_open;
static uint64_t allocator_calls;

extern "C" void *malloc(size_t bytes) {
  ++allocator_calls;
  return __libc_malloc(bytes);
}
extern "C" void *calloc(size_t count, size_t bytes) {
  ++allocator_calls;
  if (!arena_open) return __libc_calloc(count, bytes);
  const size_t wanted = (count * bytes + 15) & ~size_t{15};
  if (ARENA_BYTES - arena_used < wanted) return nullptr;
  return arena + (arena_used += wanted) - wanted;
}
extern "C" void *realloc(void *memory, size_t bytes) {
  ++allocator_calls;
  return __libc_realloc(memory, bytes);
}
extern "C" void *aligned_alloc(size_t alignment, size_t bytes) {
  ++allocator_calls;
  return __libc_memalign(alignment, bytes);
}
extern "C" int posix_memalign(void **memory, size_t alignment, size_t bytes) {
  ++allocator_calls;
  *memory = __libc_memalign(alignment, bytes);
  return *memory != nullptr ? 0 : ENOMEM;
}
extern "C" void free(void *memory) {
  ++allocator_calls;
  __libc_free(memory);
}

// ---- The child that ends at the first forbidden thing

// Makes the writable data of the library read-only.
static int protect_library_data(dl_phdr_info *info, size_t, void *done) {
  if (strstr(info->dlpi_name, "libtslb.so") == nullptr) return 0;
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &part = info->dlpi_phdr[i];
    if (part.p_type != PT_LOAD || (part.p_flags & PF_W) == 0) continue;
    const uintptr_t first = (info->dlpi_addr + part.p_vaddr) & ~(page - 1);
    const uintptr_t end = info->dlpi_addr + part.p_vaddr + part.p_memsz;
    *static_cast<bool *>(done) = mprotect(reinterpret_cast<void *>(first), end - first, PROT_READ) == 0;
  }
  return 1;
}

static bool protect_memory() {
  bool done = false;
  dl_iterate_phdr(protect_library_data, &done);
  return done && mprotect(arena, ARENA_BYTES, PROT_READ) == 0;
}

// From here on every system call except exit_group ends the process.
static bool forbid_system_calls() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
  };
  const sock_fprog filter = {sizeof(program) / sizeof(program[0]), program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

struct outcome_t {
  bool ran;  // the set-up in the child succeeded; otherwise there is no result
  uint64_t allocator_calls, sum;
  int signal;  // that ended the child, 0 if it ended normally
};

static outcome_t *shared;  // shared with the child

static outcome_t run_in_child(uint64_t (*work)(), bool read_only, bool no_system_calls) {
  *shared = {};
  const pid_t child = fork();
  if (child == 0) {
    shared->ran = (!read_only || protect_memory()) && (!no_system_calls || forbid_system_calls());
    allocator_calls = 0;
    if (shared->ran) shared->sum = work();
    shared->allocator_calls = allocator_calls;
    syscall(SYS_exit_group, 0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) shared->ran = false;
  shared->signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return *shared;
}

// ---- The work

constexpr uint32_t N_DIRECT = 1000;
constexpr uint32_t N_IDS = N_DIRECT + 0x111100 + 10000;  // after the fourth level
constexpr uint32_t N_CHUNKS = 50000;
constexpr uint32_t N_NEW = 16000;
static DynamicArray_t array;
static dynmem_t *pool;
static volatile size_t *library_word;

static uint64_t look_up_all() {
  uint64_t sum = 0;
  for (uint32_t id = 0; id < N_IDS; ++id)
    sum += *static_cast<uint64_t *>(get_dyn_arr_record_position_ex(array, id, 0, nullptr, 0)) == id;
  return sum;
}
static uint64_t take_chunks() {
  uint64_t sum = 0;
  maddr_t address;
  for (uint32_t i = 0; i < N_CHUNKS; ++i) sum += tslb_dynmem_get_mchunk(pool, &address, 16, srcaddr_t{}) != nullptr;
  return sum;
}
static uint64_t take_ids() {
  uint64_t sum = 0;
  void *record;
  for (uint32_t i = 0; i < N_NEW; ++i) sum += get_dyn_arr_new_record_id_ex(array, &record, 0) >= 0;
  return sum;
}
static uint64_t write_to_array() {
  *static_cast<volatile uint64_t *>(get_dyn_arr_record_position_ex(array, N_IDS - 1, 0, nullptr, 0)) = 0;
  return 1;
}
static uint64_t write_to_library() {
  *library_word = 0;
  return 1;
}
static uint64_t call_the_system() {
  return static_cast<uint64_t>(syscall(SYS_getppid));
}

static bool set_up() {
  void *const region = mmap(nullptr, ARENA_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  void *const page = mmap(nullptr, sizeof(outcome_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (region == MAP_FAILED || page == MAP_FAILED) return false;
  arena = static_cast<char *>(region);
  shared = static_cast<outcome_t *>(page);
  // Looked up at run time: a reference in the source would move the variable into this program's data.
  GlobalMemStats_t *const totals = static_cast<GlobalMemStats_t *>(dlsym(RTLD_DEFAULT, "g_mem_st"));
  if (totals == nullptr) return false;
  library_word = &totals->total_mdel;
  arena_open = true;
  array = get_default_dyn_array(sizeof(uint64_t), N_DIRECT, MPOOL_TYPE_DRAM);
  for (uint64_t id = 0; array != nullptr && id < N_IDS; ++id) {
    void *record;
    if (get_dyn_arr_new_record_id_ex(array, &record, 0) != static_cast<int32_t>(id)) return false;
    memcpy(record, &id, sizeof(id));
  }
  pool = tslb_init_dynmem(1 << 20, 2, 0, MPOOL_TYPE_DRAM_TMP, MPOOL_FLAG_BV, nullptr, 0, 0);
  maddr_t address;
  // The first chunk takes the slot. The following ones use the common path.
  return array != nullptr && pool != nullptr && tslb_dynmem_get_mchunk(pool, &address, 16, srcaddr_t{}) != nullptr;
}

int main() {
  static const struct {
    const char *name;
    uint64_t (*work)();
    uint64_t operations;
    bool read_only, no_system_calls;
    int signal;          // expected
    uint64_t max_calls;  // of the allocator
  } rows[] = {
      {"lookup, every id of 6 depths", look_up_all, N_IDS, true, true, 0, 0},
      {"chunk of 16 bytes within a slot", take_chunks, N_CHUNKS, false, true, 0, 0},
      // One block per 16 ids, one table per 256 ids, and at most one more of each on the path.
      {"new id beyond the direct area", take_ids, N_NEW, false, true, 0, N_NEW / 16 + N_NEW / 256 + 5},
      {"control: one write to the array", write_to_array, 1, true, true, SIGSEGV, 0},
      {"control: one write to the library's data", write_to_library, 1, true, true, SIGSEGV, 0},
      {"control: one system call", call_the_system, 1, true, true, SIGSYS, 0},
  };
  if (!set_up()) {
    fprintf(stderr, "no memory to begin with\n");
    return 1;
  }
  bool as_expected = true;
  printf("| work | operations | allocator calls | system calls | writes to array and library |\n");
  printf("|---|---:|---:|---:|---:|\n");
  for (const auto &row : rows) {
    const outcome_t outcome = run_in_child(row.work, row.read_only, row.no_system_calls);
    if (!outcome.ran) {
      fprintf(stderr, "%s: this system refuses the set-up; nothing was shown\n", row.name);
      as_expected = false;
      continue;
    }
    if (outcome.signal != row.signal ||
        (row.signal == 0 && (outcome.sum != row.operations || outcome.allocator_calls > row.max_calls))) {
      fprintf(stderr, "%s: signal %d, %lu of %lu done, %lu allocator calls\n", row.name, outcome.signal,
              static_cast<unsigned long>(outcome.sum), static_cast<unsigned long>(row.operations),
              static_cast<unsigned long>(outcome.allocator_calls));
      as_expected = false;
    }
    printf("| %s | %lu | %lu | %s | %s |\n", row.name, static_cast<unsigned long>(row.operations),
           static_cast<unsigned long>(outcome.allocator_calls), outcome.signal == SIGSYS ? "ended the child" : "0",
           outcome.signal == SIGSEGV ? "ended the child"
           : row.read_only           ? "0"
                                     : "allowed");
  }
  return as_expected ? 0 : 1;
}
