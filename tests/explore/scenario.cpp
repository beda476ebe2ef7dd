#include "scenario.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tslb/array_check.h>
#include <tslb/array_loader.h>
#include <tslb/tslb_settings.h>
#include "access.h"
#include "monitor.h"
#include "redo_log.h"

scene_t scene;
static scene_t kept_scene;
static monitor_t kept_monitor;

void prepare(const scenario_t &scenario) {
  machine.arena.reset();
  unmark_words();
  refuse_memory(false);
  memset(&scene, 0, sizeof(scene));
  memset(&monitor, 0, sizeof(monitor));
  switch_log(false);
  scenario.setup();
  if (machine.has_violation()) {
    fprintf(stderr, "setup of %s: %s\n", scenario.name, machine.text().c_str());
    exit(2);
  }
  monitor.setup_ended();
  machine.arena.keep();
  keep_log();
  kept_scene = scene;
  kept_monitor = monitor;
}

run_result_t run_once(const scenario_t &scenario, scheduler_t *scheduler) {
  machine.arena.restore();
  restore_log();
  scene = kept_scene;
  // The chunks that live are the only long part.
  memcpy(static_cast<void *>(monitor.chunks), kept_monitor.chunks,
         sizeof(monitor.chunks[0]) * static_cast<size_t>(kept_monitor.n_chunks));
  memcpy(&monitor.n_chunks, &kept_monitor.n_chunks, sizeof(monitor) - offsetof(monitor_t, n_chunks));
  const run_result_t result = machine.run(scenario.n_threads, scenario.body, scheduler);
  if (result == RUN_ENDED) scenario.check();
  return machine.has_violation() ? RUN_VIOLATION : result;
}

// ---- Setup ----------------------------------------------------------------------------------------------------------

void make_array(int n_slots, uint8_t daflag, int record_bytes) {
  scene.array = tslb_da_init_ll(record_bytes, n_slots, MPOOL_TYPE_DRAM, nullptr, 1, daflag);
}

void make_pool(int n_slots, int slot_bytes, pool_kind_t kind) {
  scene.array = tslb_init_dynmem_ex1(slot_bytes, n_slots, kind.compat, kind.mem_type, kind.slot_type, nullptr, 1,
                                     kind.daflag, 0, 0, kind.max_slots);
  monitor.is_ring = kind.mem_type == MPOOL_TYPE_DRAM_TMP && (kind.slot_type & MPOOL_FLAG_BV) != 0;
  mark_words(&pool_hdr()->total_msz, sizeof(DynMemHdr_t) - offsetof(DynMemHdr_t, total_msz), NO_CHOICE);
  const uint32_t slot_size = tslb_da_get_slotsz(scene.array, nullptr);
  char *const first = static_cast<char *>(scene.array->arr_base) + tslb_dynmem_get_hdrsz(scene.array);
  for (int i = 0; i < n_slots && i < 8; ++i)
    mark_words(first + static_cast<uint32_t>(i) * slot_size + (kind.daflag != 0 ? 8 : 0), sizeof(MemSlot_t),
               ADDITIONS_COMMUTE);
}

void exact_totals() {
  unmark_words();
}

void take_slots(int count) {
  for (int i = 0; i < count; ++i) {
    uint32_t idx;
    tslb_da_get_newptr(scene.array, &idx);
  }
}

void write_record(uint32_t idx) {
  char *const record = static_cast<char *>(tslb_da_get_ptr(scene.array, idx));
  // Not the first word: the library stores the gatekeeper word there.
  if (record != nullptr) note_access(record + 8, 4, true);
}

static uint32_t header_bytes() {
  return (pool_hdr()->flag & MPOOL_FLAG_COMPAT) != 0 ? 16 : 0;
}

// The first byte after the compaction header and the last one: the monitor compares all bytes of chunks.
static void write_chunk(char *chunk, uint32_t len) {
  note_access(chunk + header_bytes(), 1, true);
  note_access(chunk + len - 1, 1, true);
}

maddr_t take_chunk(uint32_t len) {
  maddr_t address;
  memset(&address, 0xFF, sizeof(address));
  char *const chunk = static_cast<char *>(
      tslb_dynmem_get_mchunk(scene.array, &address, static_cast<int>(len - header_bytes()), srcaddr_t{}));
  if (chunk != nullptr) write_chunk(chunk, len);
  return address;
}

maddr64_t take_wide_chunk(uint32_t len) {
  maddr64_t address = {UINT32_MAX, 0};
  char *const chunk = static_cast<char *>(
      tslb_dynmem_get_mchunk64(scene.array, &address, static_cast<int>(len - header_bytes()), srcaddr64_t{}));
  if (chunk != nullptr) write_chunk(chunk, len);
  return address;
}

bool refused(maddr_t chunk) {
  uint32_t word;
  memcpy(&word, &chunk, sizeof(word));
  return word == UINT32_MAX;
}

void delete_chunk(maddr_t chunk) {
  tslb_dynmem_del_mchunk(scene.array, chunk);
}

// ---- Checks ---------------------------------------------------------------------------------------------------------

void expect(bool holds, const char *what) {
  if (!holds) machine.violation("not so: %s", what);
}

DynArrLLI_t *roots() {
  return static_cast<DynArrLLI_t *>(tslb_da_get_lli(scene.array));
}
DynMemHdr_t *pool_hdr() {
  return static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(scene.array));
}
uint32_t n_used() {
  return tslb_da_get_size(scene.array);
}
uint32_t n_free() {
  return roots()->n_free;
}
uint32_t n_inactive() {
  return roots()->n_inact;
}
uint32_t status_at(uint32_t idx) {
  node_fw node;
  memcpy(&node, static_cast<char *>(tslb_da_get_ptr(scene.array, idx)) - sizeof(node), sizeof(node));
  return node.status;
}
MemSlot_t *slot_at(uint32_t idx) {
  return static_cast<MemSlot_t *>(tslb_da_get_ptr(scene.array, idx));
}
uint32_t cursor_slot() {
  return tslb_stored_cursor_slot(pool_hdr()->cur_slot_addr);
}
uint32_t cursor_off() {
  return tslb_stored_cursor_off(pool_hdr()->cur_slot_addr);
}

// Blocks that nobody owns: a table or block that lost its race, a note that was dropped.
static void release_array() {
  destroy_dyn_arr(scene.array);
  if (scene.replica != nullptr) destroy_dyn_arr(scene.replica);
  const size_t n_blocks = machine.arena.n_blocks();
  if (n_blocks != 0) machine.violation("%zu blocks of memory remain after the array is released", n_blocks);
}

static bool passes(int result, const char *error) {
  if (result != 0) machine.violation("%s", error);
  return result == 0;
}

void audit_array() {
  char error[256] = "";
  if (!passes(array_check(scene.array, ARRAY_LOAD_ANY, error, sizeof(error)), error)) return;
  const uint32_t n_beyond = n_used() > scene.array->n_direct ? n_used() - scene.array->n_direct : 0;
  EXPECT_THAT_AT_END(tslb_da_get_total_size(scene.array) == scene.array->n_direct + (n_beyond + 15) / 16 * 16);
  EXPECT_THAT_AT_END(scene.array->spinlock == 0);
  release_array();
}

void audit_pool() {
  char error[256] = "";
  const bool has_chunks = header_bytes() != 0 && !monitor.is_ring;
  if (!passes(has_chunks
                  ? pool_check(scene.array, error, sizeof(error))
                  : array_check(scene.array, monitor.is_ring ? ARRAY_LOAD_ANY : ARRAY_LOAD_POOL, error, sizeof(error)),
              error))
    return;
  if (cursor_slot() != TSLB_DA_NIL_IDX && !monitor.is_ring)
    EXPECT_THAT_AT_END(slot_at(cursor_slot())->bytes_used == cursor_off());
  EXPECT_THAT_AT_END(scene.array->spinlock == 0);
  release_array();
}
