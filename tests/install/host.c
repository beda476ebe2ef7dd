/* A host on an installed library: writes an array to a snapshot stream and loads it. It uses a loader from the
 * stand-in's archive, so the library gets its atomic hooks from there too. */
#define _POSIX_C_SOURCE 200809L /* fileno */
#include <stdio.h>
#include <string.h>
#include <tslb/array_loader.h>
#include <tslb/tslb.h>

typedef struct reading_t {
  uint32_t gatekeeper;
  char place[12];
} reading_t;

int main(void) {
  dynarr_t *array = tslb_da_init_ll(sizeof(reading_t), 4, MPOOL_TYPE_DRAM, "readings", 1, TSLB_DA_DAFLAG_INLL);
  uint32_t idx = 0;
  for (int i = 0; i < 100; ++i) strcpy(((reading_t *)tslb_da_get_newptr(array, &idx))->place, "hill");

  FILE *file = tmpfile();
  size_t written = 0;
  if (file == NULL || tslb_create_dump_for_dynarr(array, fileno(file), 0, &written) != 0) return 1;
  rewind(file);
  char error[128];
  const array_load_options_t options = {.ctx_name = "readings", .tbl_id = 1, .record_size = sizeof(reading_t)};
  dynarr_t *loaded = array_load_stream(fileno(file), &options, error, sizeof(error));
  if (loaded == NULL) {
    fprintf(stderr, "%s\n", error);
    return 1;
  }
  printf("%u records, the last from the %s\n", tslb_da_get_size(loaded),
         ((const reading_t *)tslb_da_get_ptr(loaded, idx))->place);
  destroy_dyn_arr(loaded);
  destroy_dyn_arr(array);
  fclose(file);
  return 0;
}
