/* Arrays for a debugger: those of a host, those that a crash can leave, and memory that is not an array. gdb_test.gdb
 * stops in look_here and runs commands; gdb_test.expected holds their output. */
#include <string.h>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_util.h>

typedef struct reading_t {
  uint32_t gatekeeper;
  char place[12];
} reading_t;

dynarr_t *readings;       /* both lists, block 0 and two blocks of level 1 */
DynamicArray_t plain;     /* no lists, levels 1 to 3, and a user header */
dynarr_t *looped;         /* a free list with a cycle */
dynarr_t *cut;            /* a free list that leads to a missing slot, and an inconsistent inactive list */
dynmem_t *buffers, *bits; /* pools of the two kinds */
maddr_t first_chunk, last_chunk, bit_chunk;
maddr64_t wide_chunk;
dynarr_t *no_array;
DynArrHandle_t unmade;  /* a handle before its block 0 exists */
DynArrHandle_t hanging; /* a handle whose block 0 was released */
DynArrHandle_t hollow;  /* a handle whose block 0 holds zeroes */
char zeroes[4096];

dynarr_t *look_up(void) { /* gdb must not call this function */
  return readings;
}

static void fill(dynarr_t *array, int count) {
  for (int i = 0; i < count; ++i) {
    uint32_t idx;
    strcpy(((reading_t *)tslb_da_get_newptr(array, &idx))->place, "hill");
  }
}

static node_fw *forward_node(dynarr_t *array, uint32_t idx) {
  return (node_fw *)((char *)tslb_da_get_ptr(array, idx) - sizeof(node_fw));
}

static void make_readings(void) {
  readings = tslb_da_init_ll(sizeof(reading_t), 4, MPOOL_TYPE_DRAM, "readings", 12, TSLB_DA_DAFLAG_INLL);
  fill(readings, 30);
  tslb_da_free_idx(readings, 7);
  tslb_da_free_idx(readings, 2);
  tslb_da_free_idx(readings, 25);
  tslb_da_inactivate_idx(readings, 11, 77);
  tslb_da_inactivate_idx(readings, 3, 78);
  forward_node(readings, 9)->status = 9;
}

static void make_plain(void) {
  plain = get_default_dyn_array_ex(56, 8, 10, MPOOL_TYPE_DRAM_TMP, 3, NULL, 0);
  memset(get_user_hdr(plain), 0x2A, 56); /* as long as a pool's header, but not one */
  for (int i = 0; i < 4400; ++i) get_dyn_arr_new_record_id(plain);
}

static void make_damaged(void) {
  looped = tslb_da_init_ll(sizeof(reading_t), 4, MPOOL_TYPE_DRAM, "looped", 13, TSLB_DA_DAFLAG_LL);
  fill(looped, 4);
  for (uint32_t idx = 0; idx < 3; ++idx) tslb_da_free_idx(looped, idx);
  forward_node(looped, 2)->next = 1;

  cut = tslb_da_init_ll(sizeof(reading_t), 8, MPOOL_TYPE_DRAM, "cut", 14, TSLB_DA_DAFLAG_INLL);
  fill(cut, 8);
  for (uint32_t idx = 0; idx < 3; ++idx) {
    tslb_da_free_idx(cut, idx);
    tslb_da_inactivate_idx(cut, idx + 4, 77);
  }
  forward_node(cut, 1)->next = 5000;
  forward_node(cut, 5)->status = TSLB_DA_SLOT_ACTIVE;
  ((node_bw *)((reading_t *)tslb_da_get_ptr(cut, 6) + 1))->prev = 4;
  ((DynArrLLI_t *)tslb_da_get_lli(cut))->n_inact = 9;
  ((DynArrLLI_t *)tslb_da_get_lli(cut))->inact_tail = 5;
  cut->spinlock = 1;
}

static void make_pools(void) {
  const srcaddr_t source = {5, 7, 12, {0, 0}};
  const srcaddr64_t source64 = {5, 8, 4};
  buffers = tslb_init_dynmem(256, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "buffers", 20, TSLB_DA_DAFLAG_LL);
  strcpy((char *)tslb_dynmem_get_mchunk(buffers, &first_chunk, 20, source) + 16, "the first chunk");
  for (int i = 0; i < 6; ++i) tslb_dynmem_get_mchunk(buffers, &last_chunk, 100, source);
  strcpy((char *)tslb_dynmem_get_mchunk64(buffers, &wide_chunk, 30, source64) + 16, "a wide address");
  tslb_dynmem_del_mchunk(buffers, first_chunk);

  bits = tslb_init_dynmem(64, 1, 0, MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, "bits", 21, 0);
  for (int i = 0; i < 600; ++i) memset(tslb_dynmem_get_mchunk(bits, &bit_chunk, 24, source), 0x55, 24);
}

static void look_here(void) {
  __asm__ volatile("");
}

int main(void) {
  tslb_set_timer_factor(1e12); /* the clock stays at 0 */
  make_readings();
  make_plain();
  make_damaged();
  make_pools();
  hanging.arr_base = (void *)16;
  hollow.arr_base = zeroes;
  hollow.daflag = TSLB_DA_DAFLAG_LL;
  look_here();
  return 0;
}
