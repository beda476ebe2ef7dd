// Creation of pools and slot arrays, and the one-line diagnostics.
#include "tslb_dynmem.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>

#include "dynarr_redo.h"
#include "dynmem_internal.h"

GlobalMemStats_t g_mem_st;
__thread char g_mpool_hdr_str[2049];
__thread int g_mpool_hdr_str_sz;

// ---- Creation -----------------------------------------------------------------------------------------------------

// Returns the record size of a pool: slot header and usable bytes, rounded up to a multiple of 4. A negative request
// stays negative and one beyond 31 bits stays too large, so that array creation refuses both.
static int record_bytes_of(int mslot_sz) {
  if (mslot_sz < 0) return mslot_sz;
  const int64_t bytes = (int64_t{mslot_sz} + static_cast<int64_t>(sizeof(MemSlot_t)) + 3) & ~int64_t{3};
  return bytes <= INT_MAX ? static_cast<int>(bytes) : INT_MAX;
}

static void fill_pool_hdr(dynmem_t *pool, uint64_t direct_bytes, int record_bytes, char flag_bits, bool growth_logged,
                          short max_slots) {
  DynMemHdr_t *const hdr = pool_hdr_of(pool);
  hdr->cur_slot_addr = tslb_stored_cursor(TSLB_DA_NIL_IDX, 0);
  hdr->total_msz = direct_bytes + header_bytes_of(pool);
  hdr->mslot_sz = static_cast<uint32_t>(record_bytes) - static_cast<uint32_t>(sizeof(MemSlot_t));
  // Unknown bits in the two arguments are kept. Only MPOOL_FLAG_PERSIST is decided by the library.
  hdr->flag = static_cast<char>(growth_logged ? flag_bits | MPOOL_FLAG_PERSIST : flag_bits & ~MPOOL_FLAG_PERSIST);
  hdr->max_slots = max_slots;
}

dynmem_t *tslb_init_dynmem_ex1(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type, char slot_type,
                               const char *ctx_name, int tbl_id, uint8_t daflag, uint8_t rec_version,
                               uint8_t is_persist, short max_slots) {
  const bool is_pool = slot_type != MPOOL_SLOT_TYPE_DA;
  const int tot_mslot_sz = is_pool ? record_bytes_of(mslot_sz) : mslot_sz;
  const int user_hdrsz = is_pool ? static_cast<int>(sizeof(DynMemHdr_t)) : 0;
  dynmem_t *const pool = get_default_dyn_array_ex_ex(user_hdrsz, tot_mslot_sz, num_mslot, static_cast<char>(mpool_type),
                                                     tbl_id, ctx_name, daflag, rec_version);
  if (pool == nullptr) return nullptr;

  // Without the slots' nodes: the figure counts bytes that chunks and records can use.
  const uint64_t direct_bytes = static_cast<uint64_t>(tot_mslot_sz) * static_cast<uint64_t>(num_mslot);
  get_and_inc64(&g_mem_st.total_msz, direct_bytes);
  get_and_inc64(&g_mem_st.pool_hdr_overhead, header_bytes_of(pool));
  if (is_pool)
    fill_pool_hdr(pool, direct_bytes, tot_mslot_sz, static_cast<char>(compat_flag | slot_type), is_persist == 1,
                  max_slots);

  // For every memory type, unlike the slot layer's records: the caller asks for it with is_persist. The record has the
  // handle's name, like all later records of the array.
  if (redo_log_exists() && pool->ctx_name[0] != '\0' && is_persist != 0) redo_header(pool);
  return pool;
}

dynmem_t *tslb_init_dynmem_ex(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type, char slot_type,
                              const char *ctx_name, int tbl_id, uint8_t daflag, uint8_t rec_version) {
  return tslb_init_dynmem_ex1(mslot_sz, num_mslot, compat_flag, mpool_type, slot_type, ctx_name, tbl_id, daflag,
                              rec_version, mpool_type == MPOOL_TYPE_DRAM ? 1 : 0, 0);
}

dynmem_t *tslb_init_dynmem(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type, char slot_type,
                           const char *ctx_name, int tbl_id, uint8_t daflag) {
  return tslb_init_dynmem_ex(mslot_sz, num_mslot, compat_flag, mpool_type, slot_type, ctx_name, tbl_id, daflag, 0);
}

int tslb_dynmem_get_hdrsz(dynmem_t *dynmem_handle) {
  return static_cast<int>(header_bytes_of(dynmem_handle));
}

// ---- Diagnostics --------------------------------------------------------------------------------------------------

// Appends formatted text to a buffer, never past its end.
struct line_t {
  char *text;
  size_t room;
  size_t used;
};

__attribute__((format(printf, 2, 3))) static void append(line_t *line, const char *format, ...) {
  if (line->used >= line->room) return;
  va_list values;
  va_start(values, format);
  const int wbytes = vsnprintf(line->text + line->used, line->room - line->used, format, values);
  va_end(values);
  if (wbytes > 0) line->used += static_cast<size_t>(wbytes);
}

static void append_handle(line_t *line, const DynArrHandle_t *array) {
  const DynHdr_t *const hdr = dyn_hdr_of(array);
  append(line,
         "[MPOOL-HDR] DynArrHandle(%p): {arr_base = %p, ir_base = %p, ctx_name = %s, tbl_id = %u, mem_type = "
         "%d, "
         "daflag = 0x%02x, n_direct = %d}, DynHdr(%p): {lib_version = %hhu, rec_version = %hhu, pad = %hu, "
         "hdr_size = %hu, lli_sz = %hu}, ",
         static_cast<const void *>(array), array->arr_base,
         static_cast<void *>(__atomic_load_n(&array->ir_base, __ATOMIC_RELAXED)), array->ctx_name, array->tbl_id,
         array->mem_type, array->daflag, static_cast<int>(array->n_direct), static_cast<const void *>(hdr),
         hdr->lib_version, hdr->rec_version, hdr->pad, hdr->hdr_size, hdr->lli_sz);
}

static void append_pool_hdr(line_t *line, const DynMemHdr_t *hdr) {
  if (hdr == nullptr) {
    append(line, "DynMemHdr(%p): {--}, ", static_cast<const void *>(nullptr));
    return;
  }
  const uint64_t cursor = get64(hdr, &DynMemHdr_t::cur_slot_addr);
  append(line,
         "DynMemHdr(%p): {flag = 0x%02x, cur_slot_addr = %lu (mslot_idx = %u, byte_off = %u), mslot_sz = %u, "
         "total_msz = %lu, total_mused = %lu, total_mwast = %lu, total_mavail = %lu}, ",
         static_cast<const void *>(hdr), static_cast<unsigned int>(hdr->flag), cursor, tslb_stored_cursor_slot(cursor),
         tslb_stored_cursor_off(cursor), hdr->mslot_sz, get64(hdr, &DynMemHdr_t::total_msz),
         get64(hdr, &DynMemHdr_t::total_mused), get64(hdr, &DynMemHdr_t::total_mwast),
         get64(hdr, &DynMemHdr_t::total_mavail));
}

static void append_policy(line_t *line, const DynArrLLI_t *lli) {
  const tsdb_mem_pressure_config_t policy = lli->mem_pressure_conf;
  append(line,
         "mvt_reuse_policy_use = %hhd, critical.inactive_threshold_pct = %hhd, "
         "critical.inactive_threshold_cnt = %hd, "
         "critical.min_days_since_inactive = %u, major.inactive_threshold_pct = %hhd, "
         "major.inactive_threshold_cnt = %hd, majot.min_days_since_inactive = %u}, ",
         static_cast<signed char>(policy.mvt_reuse_policy_use),
         static_cast<signed char>(policy.critical.inactive_threshold_pct),
         static_cast<short>(policy.critical.inactive_threshold_cnt), policy.critical.min_days_since_inactive,
         static_cast<signed char>(policy.major.inactive_threshold_pct),
         static_cast<short>(policy.major.inactive_threshold_cnt), policy.major.min_days_since_inactive);
}

static void append_list_roots(line_t *line, const DynArrLLI_t *lli) {
  append(line,
         "DynArrLLI_t(%p): {free_head = %u, free_tail = %u, inact_head = %u, inact_tail = %u, n_inact = %u, "
         "n_act = %u, n_free = %u",
         static_cast<const void *>(lli), get32(lli, &DynArrLLI_t::free_head), get32(lli, &DynArrLLI_t::free_tail),
         get32(lli, &DynArrLLI_t::inact_head), get32(lli, &DynArrLLI_t::inact_tail), get32(lli, &DynArrLLI_t::n_inact),
         get32(lli, &DynArrLLI_t::n_act), get32(lli, &DynArrLLI_t::n_free));
}

static void append_array_and_totals(line_t *line, const DynArrHdr_t *hdr) {
  append(line, "DynArr(%p): {n_alloc = %u, n_used = %u, n_direct = %u, record_size = %u}, ",
         static_cast<const void *>(hdr), get32(hdr, &DynArrHdr_t::n_alloc), get32(hdr, &DynArrHdr_t::n_used),
         get32(hdr, &DynArrHdr_t::n_direct), get32(hdr, &DynArrHdr_t::record_size));
  append(line,
         "DS_SIZE: {DynHdr_t = %lu, DynMemHdr_t = %lu, DynArrLLI_t = %lu, DynArrHdr = %lu, "
         "DynMemCompactAttr_t = %lu}, ",
         sizeof(DynHdr_t), sizeof(DynMemHdr_t), sizeof(DynArrLLI_t), sizeof(DynArrHdr_t), sizeof(compat_t));
  append(line,
         "GlobalMemStats: {total_msz = %lu, total_nused = %lu, total_mwaist = %lu, total_avaial = %lu, "
         "total_mdel = %lu}",
         get64(&g_mem_st, &GlobalMemStats_t::total_msz), get64(&g_mem_st, &GlobalMemStats_t::total_mused),
         get64(&g_mem_st, &GlobalMemStats_t::total_mwaist), get64(&g_mem_st, &GlobalMemStats_t::total_mavail),
         get64(&g_mem_st, &GlobalMemStats_t::total_mdel));
}

char *tslb_print_poolhdr(void *h_pool) {
  const DynArrHandle_t *const array = static_cast<const DynArrHandle_t *>(h_pool);
  const DynHdr_t *const hdr = dyn_hdr_of(array);
  line_t line = {g_mpool_hdr_str, sizeof(g_mpool_hdr_str) - 1, 0};
  append_handle(&line, array);
  // A shorter user header is not a pool's. Reading it as one would read past block 0.
  append_pool_hdr(&line, hdr->hdr_size >= sizeof(DynMemHdr_t) ? pool_hdr_of(array) : nullptr);
  if (hdr->lli_sz != 0) {
    append_list_roots(&line, lli_of(array));
    append(&line, ", ");
    append_policy(&line, lli_of(array));
  } else {
    append(&line, "DynArrLLI_t(%p): {--}, ", static_cast<const void *>(nullptr));
  }
  append_array_and_totals(&line, arr_hdr_of(array));
  g_mpool_hdr_str[sizeof(g_mpool_hdr_str) - 1] = '\0';
  return g_mpool_hdr_str;
}

char *tslb_dynarr_lli_string(void *h_pool, char *out) {
  const DynArrHandle_t *const array = static_cast<const DynArrHandle_t *>(h_pool);
  out[0] = '\0';
  if (dyn_hdr_of(array)->lli_sz == 0) return out;
  line_t line = {out, 2048, 0};
  append_list_roots(&line, lli_of(array));
  append(&line, "}");
  return out;
}
