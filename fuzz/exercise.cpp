#include "exercise.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_settings.h>

static volatile uint8_t seen;  // so that no read is optimized away

static void need(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

array_load_options_t options_for(const uint8_t *data, size_t size) {
  const uint8_t choice = size > offsetof(DynHdr_t, rec_version) ? data[offsetof(DynHdr_t, rec_version)] : 0;
  static const uint8_t kinds[] = {ARRAY_LOAD_POOL_BY_SIZE, ARRAY_LOAD_POOL_BY_SIZE, ARRAY_LOAD_ANY, ARRAY_LOAD_POOL};
  const char mem_type = (choice & 0x80) != 0 ? MPOOL_TYPE_DRAM_TMP : MPOOL_TYPE_DRAM;
  return {"fuzz", 7, mem_type, kinds[(choice >> 5) & 3], 1 << 20, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
}

void expect_error_text(DynamicArray_t array, const char *error) {
  need((array != nullptr) == (error[0] == '\0'), "an error text with every refusal and only then");
}

// ---- Reading -------------------------------------------------------------------------------------------------------

static void read_all_slots(DynamicArray_t array) {
  int shift = 0;
  const uint32_t slot_bytes = tslb_da_get_slotsz(array, &shift);
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx) {
    const uint8_t *const slot = static_cast<const uint8_t *>(tslb_da_get_ptr(array, idx)) - shift;
    for (uint32_t i = 0; i < slot_bytes; ++i) seen = slot[i];
  }
  char text[2048];
  seen = static_cast<uint8_t>(strlen(tslb_print_poolhdr(array)) + strlen(tslb_dynarr_lli_string(array, text)));
}

// Stores the loaded array and compares the stream with the input: everything except n_alloc, up to the end of the
// image.
static void compare_with_image(DynamicArray_t array, const uint8_t *image, size_t size) {
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  size_t total = 0;
  need(tslb_create_dump_for_dynarr(array, fd, 0, &total) == 0, "a loaded array can be stored");
  std::vector<uint8_t> stream(total);
  need(pread(fd, stream.data(), total, 0) == static_cast<ssize_t>(total), "all of it was written");
  close(fd);
  const size_t n_alloc_at = static_cast<size_t>(tslb_dynmem_get_hdrsz(array)) - sizeof(DynArrHdr_t);
  const size_t common = std::min(size, total);
  need(memcmp(stream.data(), image, n_alloc_at) == 0, "headers are unchanged");
  need(memcmp(stream.data() + n_alloc_at + 4, image + n_alloc_at + 4, common - n_alloc_at - 4) == 0,
       "counts and slots are unchanged");
}

// ---- Use -----------------------------------------------------------------------------------------------------------

static void use_slots(DynamicArray_t array) {
  const uint32_t record_size = tslb_da_get_record_size(array);
  if (record_size < sizeof(uint32_t)) return;  // no room for the gatekeeper word: not a slot array's record
  uint32_t taken[3];
  for (uint32_t &idx : taken) {
    void *const record = tslb_da_get_newptr(array, &idx);
    if (record == nullptr) return;
    memset(record, 0xA5, record_size);
  }
  if (array->daflag == 0) return;
  if ((array->daflag & TSLB_DA_DAFLAG_INLL) != 0) {
    need(tslb_da_inactivate_idx(array, taken[0], 5) == 0, "an active slot can be inactivated");
    need(tslb_da_inactivate_idx(array, taken[1], 6) == 0, "a second active slot can be inactivated");
    need(tslb_da_activate_idx(array, taken[0]) == 0, "an inactive slot can be activated");
  }
  for (const uint32_t idx : taken) need(tslb_da_free_idx(array, idx) == 0, "a slot can be freed");
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx) tslb_da_free_idx(array, idx);
  const uint32_t n_free = static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array))->n_free;
  for (uint32_t i = 0; i < n_free; ++i) {
    uint32_t idx;
    need(tslb_da_get_newptr(array, &idx) != nullptr && idx < tslb_da_get_size(array), "each freed slot is taken again");
  }
}

static void use_chunks(DynamicArray_t pool) {
  DynMemHdr_t *const hdr = static_cast<DynMemHdr_t *>(get_user_hdr(pool));
  // A pool stops the process after its last slot.
  if (tslb_da_get_size(pool) > 240) return;
  // The chunk has space for the header and the data, and its length fits the header's field.
  const uint32_t overhead = (hdr->flag & MPOOL_FLAG_COMPAT) != 0 ? sizeof(compat_t) : 0;
  if (hdr->mslot_sz < overhead + 8) return;
  const uint32_t longest = std::min(hdr->mslot_sz - overhead, 0xFFF8u) & ~7u;
  std::vector<maddr_t> taken;
  for (const uint32_t len : {8u, longest, 8u, longest / 16 * 8 + 8, 8u}) {
    if (len > longest) continue;
    maddr_t address;
    char *const chunk =
        static_cast<char *>(tslb_dynmem_get_mchunk(pool, &address, static_cast<int>(len), srcaddr_t{1, 2, 3, {0, 0}}));
    if (chunk == nullptr) break;
    memset(chunk + overhead, 0x5A, len);
    if ((hdr->mslot_sz >> 24) == 0)
      need(tslb_dynmem_get_maddr2ptr(pool, address) == chunk + overhead, "an address leads to its chunk");
    taken.push_back(address);
  }
  for (const maddr_t address : taken) tslb_dynmem_del_mchunk(pool, address);
  size_t total, used, deleted;
  tslb_dynmem_update_free_list(pool, &total, &used, &deleted);
  maddr64_t address64;
  tslb_dynmem_get_mchunk64(pool, &address64, 8, srcaddr64_t{1, 2, 3});
}

// An empty array can have slots of any size, and its first block would be allocated here.
static bool may_grow(DynamicArray_t array) {
  return tslb_da_get_slotsz(array, nullptr) <= 1 << 16;
}

void exercise(DynamicArray_t array, uint8_t pool_kind, const uint8_t *image, size_t size) {
  compare_with_image(array, image, size);
  read_all_slots(array);
  const DynHdr_t *const hdr = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
  const bool is_pool = pool_kind != ARRAY_LOAD_ANY && hdr->hdr_size == sizeof(DynMemHdr_t);
  if (may_grow(array)) is_pool ? use_chunks(array) : use_slots(array);
  read_all_slots(array);
  destroy_dyn_arr(array);
}
