// Cost of converting catalogue records to an older layout.
//
// Measured: the routines of the version maps on a million records, per record. The destination has as many direct slots
// as records, as a recovery creates it. The source has 1,000 direct slots and the rest in data blocks. Metric groups
// and metric types are in plain arrays, type subjects in slots with two nodes. Compared with the floor (floor.h: the
// bytes that both layouts have, copied record by record from known places, and the nodes), and with one memcpy of as
// many bytes (the limit).
//
// Not measured: creation of the destination and its page faults. Every round uses memory that the allocator had before.
//
// Run: bench_conversion [--quick] [--benchmark_filter=REGEX]
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <vector>

#include <tslb/tsdb_recovery_schema.h>
#include <tslb/tsdb_recovery_version_compatibility.h>
#include <tslb/tslb_dynarr.h>
#include "floor.h"
#include "ratio.h"

constexpr uint32_t SOURCE_DIRECT = 1000;
static uint32_t record_count() {
  return is_quick() ? 10000 : 1000000;
}

// A row: the arguments for the version maps, and the layouts.
struct layout_t {
  const char *name;
  uint16_t rec_type;
  uint8_t target;
  uint8_t daflag;
  uint32_t newer_bytes, older_bytes;
  void (*floor)(dynarr_t *from, dynarr_t *to);
};
constexpr layout_t LAYOUTS[] = {
    {"metric groups, 2 to 0", RECTYPE_G_MG, 0, 0, sizeof(g_mg_t_v2), sizeof(g_mg_t_v0), floor_convert_g_mg_2_0},
    {"metric groups, 2 to 1", RECTYPE_G_MG, 1, 0, sizeof(g_mg_t_v2), sizeof(g_mg_t_v1), floor_convert_g_mg_2_1},
    {"metric types, 1 to 0", RECTYPE_G_MT, 0, 0, sizeof(g_mt_t_v1), sizeof(g_mt_t_v0), floor_convert_g_mt_1_0},
    {"type subjects, 1 to 0", RECTYPE_TYPE, 0, TSLB_DA_DAFLAG_INLL, sizeof(ty_sub_t_v1), sizeof(ty_sub_t_v0),
     floor_convert_tysub_1_0},
};

using array_t = std::shared_ptr<dynarr_t>;

static array_t make_array(uint32_t record_size, uint32_t n_direct, uint8_t daflag) {
  dynarr_t *const array = tslb_da_init_ver(static_cast<int>(record_size), static_cast<int>(n_direct), MPOOL_TYPE_DRAM,
                                           nullptr, 0, daflag, 0);
  if (array == nullptr) abort();
  return {array, destroy_dyn_arr};
}

// Creates the source with the newer records.
static array_t make_source(const layout_t &layout) {
  const array_t source = make_array(layout.newer_bytes, SOURCE_DIRECT, layout.daflag);
  std::vector<uint32_t> words(layout.newer_bytes / 4);
  uint32_t word = 0;
  for (uint32_t id = 0; id < record_count(); ++id) {
    uint32_t idx;
    char *const record = static_cast<char *>(tslb_da_get_newptr(source.get(), &idx));
    if (record == nullptr) abort();
    for (uint32_t &each : words) each = word += 0x9E3779B9u;
    memcpy(record, words.data(), layout.newer_bytes);
  }
  return source;
}

// The destination of a candidate: created before each run, checked after it.
struct destination_t {
  const layout_t &layout;
  array_t array = nullptr;

  void make() {
    array.reset();
    array = make_array(layout.older_bytes, record_count(), layout.daflag);
  }
  DynArrHdr_t *hdr() const { return get_dyn_hdr(array.get()); }

  // Sums all bytes of the records, without the times in their nodes.
  uint64_t sum() const {
    uint64_t sum = hdr()->n_used;
    for (uint32_t id = 0; id < record_count(); ++id) {
      const char *const record = static_cast<const char *>(tslb_da_get_ptr(array.get(), id));
      for (uint32_t at = 0; at < layout.older_bytes; at += 4) {
        uint32_t word;
        memcpy(&word, record + at, sizeof(word));
        sum = sum * 31 + word;
      }
      if (layout.daflag != 0) sum = sum * 31 + reinterpret_cast<const node_fw *>(record)[-1].status;
    }
    return sum;
  }
};

// convert(destination) fills the array.
template <class Convert>
static candidate_t candidate(const char *name, const layout_t &layout, Convert convert) {
  const auto destination = std::make_shared<destination_t>(destination_t{layout});
  return {name,
          [destination, convert](unsigned) {
            convert(*destination);
            return uint64_t{0};
          },
          [destination] { destination->make(); }, [destination] { return destination->sum(); }};
}

// Copies the expected result from one piece of memory: the cost of a conversion whose result is known.
static candidate_t one_memcpy(const layout_t &layout, const array_t &source) {
  const auto result = std::make_shared<destination_t>(destination_t{layout});
  result->make();
  layout.floor(source.get(), result->array.get());
  return candidate("one memcpy", layout,
                   [result, bytes = size_t{record_count()} * tslb_da_get_slotsz(result->array.get(), nullptr)](
                       const destination_t &destination) {
                     memcpy(destination.hdr()->elem_direct, result->hdr()->elem_direct, bytes);
                     destination.hdr()->n_used = result->hdr()->n_used;
                   });
}

static std::vector<candidate_t> make_candidates(const layout_t &layout) {
  const array_t source = make_source(layout);
  const auto routine =
      reinterpret_cast<void (*)(void *)>(tsdb_recovery_version_get_downgrade_fn_ptr(layout.rec_type, layout.target, 0));
  if (routine == nullptr) abort();
  return {candidate("tslb", layout,
                    [&layout, source, routine](const destination_t &destination) {
                      TSDBVerCBArgs_t args = {layout.rec_type, source.get(), destination.array.get()};
                      routine(&args);
                    }),
          candidate("floor", layout,
                    [&layout, source](const destination_t &destination) {
                      layout.floor(source.get(), destination.array.get());
                    }),
          one_memcpy(layout, source)};
}

static void add_cases() {
  for (const layout_t &layout : LAYOUTS)
    add_case(
        layout.name, 1, [&layout] { return make_candidates(layout); }, record_count());
}

int main(int argc, char **argv) {
  // Released memory of any size is kept.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_MAX, 0);
  return run_cases(argc, argv, "| record converted, time relative to", add_cases);
}
