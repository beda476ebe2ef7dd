/* Functions of the shared object of the Python package: declarations alone, without a preprocessor. The compiler reads
 * them in shim.cpp, and cffi reads them when the package is imported.
 *
 * A function that can fail returns NULL or -1 and fills `error`. */

typedef struct tslb_py_error {
  int code; /* tslb_durable_code_t */
  int errnum;
  uint64_t byte;
  char file[512];
  char text[512];
} tslb_py_error;

/* What the headers of an array say. */
typedef struct tslb_py_array {
  char name[40];
  int32_t tbl_id;
  uint8_t daflag;
  uint8_t rec_version;
  uint8_t is_pool;
  uint8_t is_bit_vector;
  uint8_t has_compat;
  uint32_t n_used;
  uint32_t n_direct;
  uint32_t record_bytes;
  uint32_t header_bytes; /* before slot 0 */
  uint32_t record_at;    /* in a slot */
  uint64_t slot_bytes;
  uint32_t free_head;
  uint32_t inactive_head;
  uint32_t n_free;
  uint32_t n_inactive;
  uint32_t cursor_slot; /* of a pool */
  uint32_t cursor_byte;
  uint32_t mslot_bytes;
  uint64_t pool_bytes;
  uint64_t reserved_bytes;
  uint64_t overhead_bytes;
  int64_t available_bytes;
} tslb_py_array;

/* A declaration, and an array as a store describes it. */
typedef struct tslb_py_decl {
  char name[40];
  char description[256];
  int32_t kind; /* tslb_array_kind_t */
  int32_t tbl_id;
  uint32_t record_bytes;
  uint32_t n_direct;
  uint8_t daflag;
  uint8_t rec_version;
  uint8_t has_compat;
  int16_t max_slots;
} tslb_py_decl;

/* Arrays that are loaded from files. The caller releases them. `path` of an open stream is for the error. */
void *tslb_py_load_stream(int fd, const char *path, int rebuilds_lists, tslb_py_error *error);
void *tslb_py_load_block_files(const char *base_path, const char *name, int32_t tbl_id, int rebuilds_lists,
                               tslb_py_error *error);
void tslb_py_release(void *array);

/* CRC-32C (Castagnoli). `previous`: that of the bytes before these, or 0. */
uint32_t tslb_py_crc32c(const void *bytes, size_t n_bytes, uint32_t previous);

/* Any array. */
void tslb_py_describe(void *array, tslb_py_array *described);
void *tslb_py_block0(void *array);
char *tslb_py_record(void *array, uint32_t idx); /* NULL: there is no such slot */
/* Copies the headers and the first n_slots slots, at most n_used: header_bytes + n_slots * slot_bytes bytes. The image
 * is that of an array with n_slots slots, also while other threads add some. */
void tslb_py_flatten(void *array, uint32_t n_slots, void *image);
/* Slot of a chunk, and the byte in the slot's record at which its data begins. `wide`: a 64-bit address. */
void tslb_py_place(const tslb_py_array *pool, uint64_t address, int wide, uint32_t *slot, uint32_t *byte);

/* Stores. */
int32_t tslb_py_store_describe(const char *folder, tslb_py_decl *arrays, uint32_t capacity, tslb_py_error *error);
void *tslb_py_store_open(const char *folder, const tslb_py_decl *arrays, uint32_t n_arrays, int writes, int creates,
                         int shadow, tslb_py_error *error);
int tslb_py_store_close(void *store, tslb_py_error *error);
void *tslb_py_store_array(void *store, uint32_t index);
int tslb_py_store_restore(void *store, tslb_py_error *error);
int tslb_py_store_snapshot(void *store, tslb_py_error *error);
int tslb_py_store_backup(void *store, const char *folder, tslb_py_error *error);
const void *tslb_py_store_payload(void *store, size_t *bytes);
void tslb_py_store_warning(void *store, char *text, size_t capacity);

/* Batches, on the thread that began them. Indices of arrays are those of the declarations. */
void *tslb_py_begin(void *store, tslb_py_error *error);
int tslb_py_commit(void *batch, tslb_py_error *error);
void tslb_py_refuse(void *batch, const char *why);
uint32_t tslb_py_take(void *array, int has_lists); /* 0xFFFFFFFF: there is no slot */
/* Copies bytes to a record and names them. The range is within the record. */
int tslb_py_write(void *batch, uint32_t index, void *array, uint32_t idx, uint32_t offset, const void *bytes,
                  uint32_t n_bytes);
/* Adds records, which lie one after the other, from their byte `offset` on. Fills the indices. Result: the number of
 * records for which there was a slot. */
uint32_t tslb_py_add_many(void *batch, uint32_t index, void *array, int has_lists, uint32_t offset, const void *records,
                          uint32_t record_bytes, uint32_t n_records, uint32_t *indices);
/* what: 0: free, 1: inactivate, 2: activate. Result: 0, 1: refused, -1: there is no such slot. */
int tslb_py_change(void *array, uint32_t idx, int what, int64_t time);
uint32_t tslb_py_status(void *array, uint32_t idx);
/* Copies bytes to a new chunk and names them. `referrer`: table, index and offset of the field with the address. */
int tslb_py_put_chunk(void *batch, uint32_t index, int wide, const void *bytes, uint32_t n_bytes,
                      const uint32_t referrer[3], uint64_t *address, tslb_py_error *error);
void tslb_py_delete_chunk(void *batch, uint32_t index, uint32_t address);
uint32_t tslb_py_sweep(void *batch, uint32_t index);
int tslb_py_set_payload(void *batch, const void *bytes, size_t n_bytes, tslb_py_error *error);
