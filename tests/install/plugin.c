/* A plugin on an installed library: a shared object that contains the stand-in. Its program uses neither. */
#define _POSIX_C_SOURCE 200809L /* fileno */
#include <stdio.h>
#include <tslb/array_loader.h>
#include <tslb/tslb.h>

/* Writes an array to a snapshot stream and loads it. Returns the number of loaded records, or -1. */
__attribute__((visibility("default"))) int plugin_records(void) {
  dynarr_t *array = tslb_da_init_ll(16, 4, MPOOL_TYPE_DRAM, "readings", 1, TSLB_DA_DAFLAG_INLL);
  tslb_da_get_range(array, 100);
  FILE *file = tmpfile();
  size_t written = 0;
  if (file == NULL || tslb_create_dump_for_dynarr(array, fileno(file), 0, &written) != 0) return -1;
  rewind(file);
  char error[128];
  const array_load_options_t options = {.ctx_name = "readings", .tbl_id = 1};
  dynarr_t *loaded = array_load_stream(fileno(file), &options, error, sizeof(error));
  const int records = loaded != NULL ? (int)tslb_da_get_size(loaded) : -1;
  destroy_dyn_arr(loaded);
  destroy_dyn_arr(array);
  fclose(file);
  return records;
}
