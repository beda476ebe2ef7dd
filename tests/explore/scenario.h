// Scenarios: a start, two to four threads, and what holds at the end of every schedule.
#ifndef TSLB_EXPLORE_SCENARIO_H
#define TSLB_EXPLORE_SCENARIO_H

#include <stdint.h>
#include <time.h>

#include <span>
#include <string>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include "search.h"

struct scenario_t {
  const char *name;
  const char *what;  // one line for the table
  int n_threads;
  void (*setup)();
  void (*body)(int thread);
  void (*check)();
  int bound = NO_BOUND;  // of the usual run
};

extern const std::span<const scenario_t> GROWTH_SCENARIOS, SLOT_SCENARIOS, CHUNK_SCENARIOS, DELETION_SCENARIOS,
    REDO_SCENARIOS, DURABLE_SCENARIOS;

// Data of a scenario. It comes back as the setup left it before each schedule. Threads write only their own entries.
struct scene_t {
  dynarr_t *array;
  dynarr_t *replica;
  uint32_t idx[8];
  int result[8];
  void *ptr[8];
  maddr_t chunk[8];
  maddr64_t wide[8];
  uint64_t value[8];
};
extern scene_t scene;

// The scenario's setup, once.
void prepare(const scenario_t &scenario);
// One schedule, from the kept start to the audit.
run_result_t run_once(const scenario_t &scenario, scheduler_t *scheduler);

// ---- For setups ------------------------------------------------------------------------------------------------------

// Arrays of MPOOL_TYPE_DRAM without a name: nothing is logged.
void make_array(int n_slots, uint8_t daflag, int record_bytes = 16);
// A pool whose slots have `slot_bytes` for chunks. Its totals are no scheduling points, and additions to the counters of
// its slots commute; exact_totals() after it makes all of them count.
struct pool_kind_t {
  char compat = MPOOL_FLAG_COMPAT;
  uint8_t daflag = TSLB_DA_DAFLAG_LL;
  char slot_type = 0;
  short max_slots = 0;
  unsigned char mem_type = MPOOL_TYPE_DRAM;
};
void make_pool(int n_slots, int slot_bytes, pool_kind_t kind = {});
void exact_totals();

// Takes `count` slots, without a check.
void take_slots(int count);
// Writes the first bytes of a slot's record as its owner does: a race with another access is reported.
void write_record(uint32_t idx);

// Chunks of `len` bytes, with the compaction header. The owner writes them.
maddr_t take_chunk(uint32_t len);
maddr64_t take_wide_chunk(uint32_t len);
bool refused(maddr_t chunk);  // what take_chunk returns if the pool refused
void delete_chunk(maddr_t chunk);

// ---- For checks ------------------------------------------------------------------------------------------------------

// Reports a violation unless `holds`.
void expect(bool holds, const char *what);
#define EXPECT_THAT_AT_END(...) expect(__VA_ARGS__, #__VA_ARGS__)

uint32_t n_used();
uint32_t n_free();
uint32_t n_inactive();
uint32_t status_at(uint32_t idx);
DynArrLLI_t *roots();
DynMemHdr_t *pool_hdr();
MemSlot_t *slot_at(uint32_t idx);
uint32_t cursor_slot();
uint32_t cursor_off();

// The rules of tslb_stored.h, and no block that nobody owns. Releases the array: the last call of a check.
void audit_array();
// The same, also for counters and chunks: each slot's bytes_used is what was reserved there, and the cursor's offset is
// the current slot's.
void audit_pool();

#endif
