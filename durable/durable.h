/* Arrays that survive a crash. A store is a folder with the arrays of a host: the last complete state of each (a
 * generation) and a journal of the batches since then. The host changes the arrays in memory as always, within a batch,
 * and names what it changed. The store writes the changes, restores the arrays at the next opening, and replaces the
 * generation when the journal has become long. Everything is in libtslb_durable.a, which also defines the redo hook
 * (tslb_rd_api.h).
 *
 * Terms
 *   batch        the unit of atomicity. After a crash all changes of a batch are there, or none.
 *   group        the batches that are written together. Batches of several threads share a group, and one sync.
 *   ticket       number of a batch, in the order of tslb_batch_end: 1, 2, 3 and so on. Tickets settle in this order: the
 *                batch is durable (as `sync` says), or it was refused.
 *   generation   one stored state of all arrays: a snapshot stream for each, and a manifest.
 *
 * Batches. Changes between tslb_batch_begin and tslb_batch_end belong to the batch; they are made by the thread that
 * began it, which has one batch of a store at a time and ends it; at most 64 are open at once.
 *
 * Changes outside of a batch. Taking, freeing, inactivating and activating a slot of a store's array, and taking or
 * releasing a memory slot of its pool, break the store: the library reports them. It does not report direct writes, new
 * ids of record arrays, and chunks that are taken or deleted in a memory slot which stays. Headers and counters that these
 * change are in the next group, the contents are not: after the next opening such a record or chunk exists and is zero,
 * and a deleted chunk is not deleted. With a shadow the store is broken at the end of that group.
 *
 * Groups. Reading needs no batch, but sees changes that are not durable yet. A group ends at a moment without an open
 * batch, so a batch should be short: while one is open, nothing becomes durable. A batch has no undo of its own: a host
 * that fails halfway changes the arrays back itself, and ends the batch; or it refuses the batch, with its group, and
 * restores the store.
 *
 * Locks of the host. tslb_batch_begin and _commit, tslb_store_wait, _snapshot, _backup, _reserve, _restore and _close wait
 * until no batch of another thread is open. So a lock that a thread takes within a batch is not held when one of them is
 * called.
 * tslb_batch_end does not wait, except with TSLB_SYNC_ALWAYS.
 *
 * What the host names, and what it does not:
 *   - the contents of records and chunks: tslb_batch_log_record, _bytes and _chunk. The store copies the bytes when the
 *     group ends, so they can be named before or after the change, and are written once for each group.
 *   - not: list nodes, gatekeeper words of freed slots, the clearing of a slot that is taken again, headers of arrays and
 *     pools, new ids, counters of memory slots, compaction headers of chunks that were taken or deleted through the store.
 *     The store logs these itself.
 *   - Chunks of the 32-bit or 64-bit allocator that were taken without the store, and their compaction headers, are
 *     named like other contents.
 * A content that was not named is not restored. With TSLB_STORE_SHADOW the store keeps a replica that is built from the
 * journal alone, and compares it with the arrays at the end of each group. The first difference is reported with array,
 * slot, byte and batch, and breaks the store. Tests of a host run with it.
 *
 * Errors. Functions that can fail take `error`, which may be null, and fill it on failure. Nothing is written to stderr
 * except by libtslb.so itself, for example when a bit-vector pool grows by 255 slots: its lines cannot be redirected. No
 * function throws.
 *
 * Child processes. A snapshot is written by a forked child, which the store waits for; a host that ignores SIGCHLD or waits
 * for any child may see it first, and no harm is done. A child that the host forks keeps the store locked until it ends or
 * calls exec. In it, functions of the store fail with TSLB_DURABLE_INVALID, or return 0, and nothing is released: it can
 * only read its copies of the arrays. So a host becomes a daemon before it opens a store.
 *
 * Threads. A store can be used by any number of threads, as each function says. The host must ignore SIGXFSZ if the size
 * of files is limited: the signal would end it. */
#ifndef TSLB_DURABLE_H
#define TSLB_DURABLE_H

#include <stddef.h>
#include <stdint.h>

#include <tslb/array_convert.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

TSLB_BEGIN_DECLS

/* ---- Errors ------------------------------------------------------------------------------------------------------- */

typedef enum tslb_durable_code_t {
  TSLB_DURABLE_OK = 0,
  TSLB_DURABLE_INVALID,   /* an argument or a declaration is invalid, or a call is not allowed now */
  TSLB_DURABLE_IO,        /* a system call failed: errnum */
  TSLB_DURABLE_NO_MEMORY, /* memory was refused */
  TSLB_DURABLE_NO_STORE,  /* the folder does not exist, or is not a store */
  TSLB_DURABLE_NOT_EMPTY, /* the folder has other content, so no store is created in it */
  TSLB_DURABLE_LOCKED,    /* another writer has the store */
  TSLB_DURABLE_DAMAGED,   /* stored bytes are not what a writer left, and no crash explains it */
  TSLB_DURABLE_MISMATCH,  /* the store has other arrays than those declared */
  TSLB_DURABLE_FULL,      /* a pool has no room for a chunk; nothing was changed */
  TSLB_DURABLE_REFUSED,   /* a batch could not be written: tslb_store_restore */
  TSLB_DURABLE_BROKEN     /* the store accepts no more batches. Close it, and open it again */
} tslb_durable_code_t;

typedef struct tslb_error_t {
  int code;       /* tslb_durable_code_t */
  int errnum;     /* errno of a failed system call, else 0 */
  uint64_t byte;  /* position in `file` that the error is about, or 0 */
  char file[512]; /* path, or empty */
  char text[512]; /* one line that includes file and byte, cut to fit */
} tslb_error_t;

/* ---- Declaration of arrays ---------------------------------------------------------------------------------------- */

typedef enum tslb_array_kind_t {
  TSLB_ARRAY_RECORDS,   /* without nodes: ids only (get_dyn_arr_new_record_id_ex with daflag 0) */
  TSLB_ARRAY_SLOTS,     /* with lists: tslb_dynarr.h */
  TSLB_POOL_BIG_BUFFER, /* chunk pool with maddr_t or with maddr64_t (tslb_dynmem.h); which of them is not stored */
  TSLB_POOL_BIT_VECTOR  /* chunk pool with maddrBV_t */
} tslb_array_kind_t;

/* Zero in fields that a kind does not use. Of an array that is stored, kind, tbl_id, record_bytes, daflag, rec_version and
 * has_compat are compared. n_direct is used at creation only. The others can be another each time. */
typedef struct tslb_array_decl_t {
  const char *name; /* 1 to 31 of a-z, A-Z, 0-9, '_' and '-'; the array's name in the store and its ctx_name */
  tslb_array_kind_t kind;
  int32_t tbl_id;        /* table id; two arrays may have the same */
  uint32_t record_bytes; /* bytes of a record; pool: usable bytes of a memory slot, a multiple of 4, at most 16 MiB */
  uint32_t n_direct;     /* slots in block 0 */
  uint8_t daflag;        /* TSLB_ARRAY_SLOTS: TSLB_DA_DAFLAG_*; pools: the same, or 0 for a pool that frees no slot */
  uint8_t rec_version;   /* version of the records */
  uint8_t has_compat;    /* pools: not 0: chunks have compaction headers */
  int16_t max_slots;     /* pools: limit of memory slots for the functions of this header, or 0 */
  const tsdb_mem_pressure_config_t *reuse_policy; /* with TSLB_DA_DAFLAG_INLL: copied; or NULL, which changes nothing */
  const char *description;                        /* of the records, kept in the manifest: one line; or NULL */
  /* Used if the stored array has an older rec_version (array_convert.h). If it does not return 0, the opening fails with
   * TSLB_DURABLE_MISMATCH. NULL: the array is refused. A stored rec_version that is newer, or other sizes with the same
   * version, are refused. Pools are not converted. */
  tslb_record_converter_t convert;
  void *convert_arg;
  uint8_t converts_newer; /* not 0: `convert` is used for a newer rec_version too */
  /* Not 0: snapshot streams are zstd frames, and what no chunk of a pool with compaction headers has is zero in them. Streams
   * are read either way, but earlier versions of the library refuse a generation with compressed ones. */
  uint8_t compresses;
} tslb_array_decl_t;

/* ---- Stores -------------------------------------------------------------------------------------------------------- */

typedef struct tslb_store_t tslb_store_t;
typedef struct tslb_batch_t tslb_batch_t;

/* When a ticket settles. */
typedef enum tslb_sync_t {
  TSLB_SYNC_GROUP,  /* when its group is synced. tslb_batch_end does not wait */
  TSLB_SYNC_ALWAYS, /* the same, and tslb_batch_end waits for it */
  TSLB_SYNC_NONE    /* when its group is written: a crash of the machine can lose it, a crash of the process cannot */
} tslb_sync_t;

enum {
  TSLB_STORE_CREATE = 1, /* creates a store in a missing or empty folder. An existing store is opened */
  TSLB_STORE_IN_ANY = 2, /* with CREATE: also in a folder that has other files, which stay */
  TSLB_STORE_READ_ONLY =
      4,                  /* loads the arrays and changes nothing; also beside a writer, whose later batches it does not
                             * see. was_sealed is 0 then */
  TSLB_STORE_SALVAGE = 8, /* uses what precedes the damage; see tslb_store_info_t.warning */
  TSLB_STORE_SHADOW = 16, /* compares the arrays with a replica after each group. Needs twice the memory */
  TSLB_STORE_NO_FORK = 32, /* snapshots are written by the caller while batches wait, not by a child process */
  /* For imports: no batches and no journal. What is changed is durable when tslb_store_snapshot returns. Without it the
   * store stays as it was, and a new one is removed. One thread. */
  TSLB_STORE_BULK = 64,
  /* Opens a store that had a log as one without: it gets another identity, and a new generation without a position. Not
   * with BULK. */
  TSLB_STORE_DETACH = 128
};

/* ---- Logs ---------------------------------------------------------------------------------------------------------
 *
 * The groups of one store, the leader, can be kept in a log outside of the store, from which others, its followers, get
 * the same arrays. replica.h does this with NATS JetStream; what follows is the interface between it and a store. A store
 * with a log keeps the position of its last group in the journal, with the group itself, and in each generation. Positions
 * are given without gaps. A leader begins with an epoch of its own, so epoch and number name one group for all times.
 *
 * A store that is opened with a log is a follower: tslb_batch_begin fails with TSLB_DURABLE_INVALID until it is promoted.
 * A store that has a position is opened with a log, to read, or with TSLB_STORE_DETACH. */
typedef struct tslb_log_position_t {
  uint64_t epoch;
  uint64_t number; /* of the group, from 1; 0: none */
} tslb_log_position_t;

typedef struct tslb_group_t {
  const void *body; /* as it is journalled, before compression */
  size_t bytes;
  uint32_t n_batches;
  tslb_log_position_t position; /* also in the body */
} tslb_group_t;

/* What a store calls. The functions may not call functions of the store, except tslb_store_position. They return 0, or -1
 * after writing why, as a line of text of at most `capacity` bytes with the final zero. */
typedef struct tslb_store_log_t {
  void *arg;
  /* A leader's group was made durable, as `sync` says; its tickets are not settled. The groups come in order, one at a time,
   * from the threads that write them. Failure refuses the tickets and breaks the store. */
  int (*append)(void *arg, const tslb_group_t *group, char *why, size_t capacity);
  /* Waits until all groups that were appended are in the log for good. Called before a leader's generation replaces
   * the journals, so the groups of a generation are in the log. Failure fails the snapshot. May be null. */
  int (*confirm)(void *arg, char *why, size_t capacity);
  /* Called while the store is opened, with each group of its journals that has a position; perhaps again with the first
   * ones, if a file is read again. n_batches is 0. 1: keep it. 0: leave out this group and all later ones; the
   * store then has the state before it, in a new generation. -1: the opening fails. May be null. */
  int (*found)(void *arg, const tslb_group_t *group, char *why, size_t capacity);
} tslb_store_log_t;

/* Options of tslb_store_open. A zeroed structure has the defaults. */
typedef struct tslb_store_options_t {
  uint32_t flags; /* TSLB_STORE_* */
  tslb_sync_t sync;
  uint64_t snapshot_bytes; /* writes a generation by itself when the journal has grown by so much; 0: never, so the
                            * journal grows until tslb_store_snapshot is called */
  /* Older generations that a snapshot keeps, with their journals. An upgrade, an import, an adopted copy and a detachment keep
   * none: no journal leads from an older generation to theirs. */
  uint32_t keep;
  uint64_t bytes_per_s;   /* limits the writing of generations by a child; 0: no limit */
  uint32_t journal_level; /* compression of the journal: 0: the default, 1 to 9: zstd, 10: none */
  /* Called while the store is opened, with bytes done and in all; or NULL. */
  void (*progress)(void *arg, uint64_t done_bytes, uint64_t all_bytes);
  void *progress_arg;
  const tslb_store_log_t *log; /* copied; or NULL */
} tslb_store_options_t;

/* What was found and done. Numbers are those of this opening. */
typedef struct tslb_store_info_t {
  uint8_t identity[16];       /* random, from the creation of the store */
  uint64_t generation;        /* number of the current generation */
  uint64_t journal_bytes;     /* of the journals since it */
  uint64_t n_batches_found;   /* batches that were recovered from journals when the store was opened */
  uint64_t cut_bytes;         /* bytes after the last complete group, as a crash leaves them */
  uint64_t n_groups;          /* groups that were written */
  uint64_t n_batches;         /* batches in them */
  uint64_t n_changes;         /* changed ranges in them */
  uint64_t raw_bytes;         /* their size before compression */
  uint64_t stored_bytes;      /* and after it */
  uint64_t n_snapshots;       /* generations that were written */
  uint64_t snapshot_pause_ns; /* of the last one: time during which no batch could begin */
  uint64_t fork_ns;           /* part of the pause: the fork */
  uint64_t max_pause_ns;      /* longest pause */
  uint8_t was_created;        /* the store was created by this opening */
  uint8_t was_sealed;         /* the last writer ended orderly */
  uint8_t was_upgraded;       /* arrays were added or converted */
  char warning[512];          /* what is remarkable, one line; empty if nothing is */
  char snapshot_failure[512]; /* why the last automatic snapshot failed; empty if it did not */
} tslb_store_info_t;

/* Opens a store.
 *
 * folder    path of the store. The process may change its working folder later.
 * arrays    declarations of all arrays of the store, in any order. Arrays that the store does not have are added.
 *           Copied, with the texts.
 * options   may be null.
 * Result    the store, or NULL: TSLB_DURABLE_NO_STORE for a missing folder, one without a store, and one whose creation did
 *           not end (with TSLB_STORE_CREATE these are created); _NOT_EMPTY; _LOCKED; _MISMATCH; _DAMAGED; _IO. The arrays
 *           have the last durable state.
 *
 * Arrays of an older rec_version are converted, and added arrays created; then a whole generation is written before the
 * call returns. With TSLB_STORE_READ_ONLY this happens in memory alone. A store that was not closed is recovered: bytes
 * after the last complete group are cut. Everything is checked before: files against the manifest, groups against their
 * checksums, arrays against the rules of the formats. Anything that a crash does not explain is TSLB_DURABLE_DAMAGED. */
tslb_store_t *tslb_store_open(const char *folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                              const tslb_store_options_t *options, tslb_error_t *error);

/* An array as a store describes it. */
typedef struct tslb_stored_array_t {
  char name[32];
  tslb_array_kind_t kind;
  int32_t tbl_id;
  uint32_t record_bytes; /* as in a declaration */
  uint32_t n_direct;
  uint32_t n_slots; /* in the generation */
  uint8_t daflag;
  uint8_t rec_version;
  uint8_t has_compat;
  char description[256]; /* cut to fit */
} tslb_stored_array_t;

/* Reads which arrays a store has, without loading them.
 *
 * arrays    receives the first `capacity` of them; may be null with 0.
 * Result    their number, or -1. */
int32_t tslb_store_describe(const char *folder, tslb_stored_array_t *arrays, uint32_t capacity, tslb_error_t *error);

/* Writes what is pending, seals the journal and releases the store with its arrays. Waits until no batch of another thread
 * is open; no other thread may begin one or use the store. Null is ignored. Result: 0, or -1: the store is released all the
 * same, except with TSLB_DURABLE_INVALID: a batch of this thread is open, or the store was opened by the parent process. */
int tslb_store_close(tslb_store_t *store, tslb_error_t *error);

/* Returns the array of declaration `idx`. It belongs to the store. The pointer stays the same until the store is closed.
 * NULL if there is no such declaration. Any thread. */
DynamicArray_t tslb_store_array(tslb_store_t *store, uint32_t idx);

/* Any thread. */
void tslb_store_get_info(tslb_store_t *store, tslb_store_info_t *info);

/* Returns the payload of the last durable batch that had one, as it was found when the store was opened or restored, and
 * its size; of a follower, and of a leader that was one, the last that came from the log. NULL with size 0 if there was
 * none. Valid until the store is restored or closed; of a follower until tslb_store_end_reading. */
const void *tslb_store_payload(tslb_store_t *store, size_t *size);

/* In an import (TSLB_STORE_BULK): sets the payload of the next snapshot. Result: 0, or -1. */
int tslb_store_set_payload(tslb_store_t *store, const void *bytes, size_t size, tslb_error_t *error);

/* ---- Batches ------------------------------------------------------------------------------------------------------- */

/* Begins a batch on this thread. Waits while a group ends, and while 64 batches are open. NULL with TSLB_DURABLE_REFUSED,
 * _BROKEN, _NO_MEMORY, or _INVALID (the store is read-only, or the thread has a batch already). */
tslb_batch_t *tslb_batch_begin(tslb_store_t *store, tslb_error_t *error);

/* Name changed contents. `array` is the index of the declaration. A range is within a record (pools: within MemSlot_t with
 * its chunks); an invalid range refuses the whole group. tslb_batch_log_record names the list nodes of a slot
 * too, so it is needed after tslb_da_get_newptr_inll, tslb_da_make_ready, and a status that the host wrote. Thread of the
 * batch. */
void tslb_batch_log_record(tslb_batch_t *batch, uint32_t array, uint32_t idx);
void tslb_batch_log_bytes(tslb_batch_t *batch, uint32_t array, uint32_t idx, uint32_t offset, uint32_t bytes);
/* Bytes of a chunk's data, which begin after a compaction header. */
void tslb_batch_log_chunk(tslb_batch_t *batch, uint32_t array, maddr_t address, uint32_t offset, uint32_t bytes);
void tslb_batch_log_chunk64(tslb_batch_t *batch, uint32_t array, maddr64_t address, uint32_t offset, uint32_t bytes);

/* Takes a chunk. Never ends the process, unless memory is refused: at the pool's last slot it fails, also with many
 * threads. The rules for lengths are checked (tslb_dynmem.h).
 *
 * bytes     of data.
 * referrer  stored in the compaction header, if there is one.
 * address   receives the address.
 * Result    the data, after a compaction header. It is zero. NULL with TSLB_DURABLE_FULL or
 *           _INVALID: nothing was changed. After FULL: delete chunks, and call tslb_batch_sweep, which also releases slots
 *           that were emptied while they were current. */
void *tslb_batch_take_chunk(tslb_batch_t *batch, uint32_t array, uint32_t bytes, srcaddr_t referrer, maddr_t *address,
                            tslb_error_t *error);
/* With a 64-bit address, in a big-buffer pool without a limit of slots. Such chunks cannot be deleted one by one. */
void *tslb_batch_take_chunk64(tslb_batch_t *batch, uint32_t array, uint32_t bytes, srcaddr64_t referrer,
                              maddr64_t *address, tslb_error_t *error);

/* Deletes a chunk of a pool with compaction headers. */
void tslb_batch_delete_chunk(tslb_batch_t *batch, uint32_t array, maddr_t address);

/* Releases the empty slots of a pool (tslb_dynmem_update_free_list). Returns their number, which is too small if other
 * threads take slots meanwhile. */
uint32_t tslb_batch_sweep(tslb_batch_t *batch, uint32_t array);

/* Gives the batch a payload of at most 65,536 bytes, which is copied. Result: 0, or -1. The store keeps the last payload
 * in the order of the tickets, also beyond a generation. With several threads, set it and call tslb_batch_end under one
 * lock of the host, and wait after that. */
int tslb_batch_set_payload(tslb_batch_t *batch, const void *bytes, size_t size, tslb_error_t *error);

/* Ends the batch and releases it. Thread of the batch. Returns its ticket. With TSLB_SYNC_ALWAYS it waits until the ticket is settled. */
uint64_t tslb_batch_end(tslb_batch_t *batch);

/* Ends the batch, and refuses its group: nothing of it becomes durable, and tslb_store_restore is next. For a host that
 * cannot change the arrays back. `why` is in the text of the errors. Thread of the batch. Returns the ticket, as
 * tslb_batch_end does. */
uint64_t tslb_batch_refuse(tslb_batch_t *batch, const char *why);

/* Ends the batch, releases it, and waits until it is settled; the calling thread writes the group if no other does. Thread of
 * the batch. Result: 0: it is durable. -1: it was refused. */
int tslb_batch_commit(tslb_batch_t *batch, tslb_error_t *error);

/* ---- Tickets ------------------------------------------------------------------------------------------------------- */

/* Waits until the ticket is settled. Result: 0: it is durable. -1: it was refused. Any thread. No batch of the calling
 * thread may be open. */
int tslb_store_wait(tslb_store_t *store, uint64_t ticket, tslb_error_t *error);

/* Returns at once: 1: the ticket is not settled. 0: it is durable. -1: it was refused, or never given. Any thread, also with
 * an open batch. */
int tslb_store_check(tslb_store_t *store, uint64_t ticket, tslb_error_t *error);

/* Reserves disk space for so many bytes of journal, so that a full disk is detected before the arrays are changed.
 * Result: 0, also if the file system cannot reserve space. -1 with TSLB_DURABLE_IO: there is no space. Any thread.
 * No batch of the calling thread may be open. */
int tslb_store_reserve(tslb_store_t *store, uint64_t bytes, tslb_error_t *error);

/* Returns the last settled ticket; 0 if there is none. Any thread. */
uint64_t tslb_store_settled(tslb_store_t *store);

/* Returns an eventfd that is readable when tickets have settled. The reader resets it. It belongs to the store. */
int tslb_store_event_fd(tslb_store_t *store);

/* A refusal concerns a whole group, and all batches that were open then or had ended: their tickets are settled and fail.
 * From the end of that group until this call tslb_batch_begin, tslb_store_reserve, _snapshot and _backup fail with
 * TSLB_DURABLE_REFUSED. After tslb_batch_refuse, batches can begin until the group ends; they are refused with it. Tickets
 * continue after the last one.
 *
 * After TSLB_DURABLE_REFUSED: brings the arrays back to the last durable batch, in place, so pointers to arrays stay
 * valid. Afterwards batches can begin again. A batch that ended and is not written yet is written before, or refused. Reads
 * the store from the disk, and needs twice the memory meanwhile. No batch may be open, and no thread may read the arrays.
 * State of the host that follows from the arrays is made anew by the host. Result: 0, also if nothing was refused. -1 with
 * _BROKEN: close the store and open it again. -1 with another code: reading failed, memory was refused, or the disk has no
 * space for the entry that the journal gets then; it can be tried again. */
int tslb_store_restore(tslb_store_t *store, tslb_error_t *error);

/* ---- Generations --------------------------------------------------------------------------------------------------- */

/* Writes a generation and removes older ones (options.keep). Batches go on meanwhile, except for a short pause
 * (tslb_store_info_t). Waits until it is complete. Result: 0, or -1: the store goes on with the generation before.
 * Any thread; a second snapshot waits for the first. No batch of the calling thread may be open. */
int tslb_store_snapshot(tslb_store_t *store, tslb_error_t *error);

/* Writes a copy of the store to a missing or empty folder that is not in the store, as of the last settled ticket, and
 * verifies it there. Opening it restores the copy, which has the same identity. Batches go on. Any thread. Not with a store
 * that was opened to read. Result: 0, or -1: files of the copy were removed. If the process is killed, the folder has a part
 * of a copy; remove it. */
int tslb_store_backup(tslb_store_t *store, const char *folder, tslb_error_t *error);

/* ---- Stores with a log ----------------------------------------------------------------------------------------------- */

/* Returns the position of the last settled group. Any thread. */
tslb_log_position_t tslb_store_position(tslb_store_t *store);

/* Returns a checksum of what bodies depend on: names, kinds and parameters of the arrays, and their numbers in bodies. A
 * body can be applied to a store with the same layout. Any thread. */
uint32_t tslb_store_layout(tslb_store_t *store);

/* Applies a leader's group to a follower, journals it, and makes it durable as `sync` says. The body can be empty: only the
 * position is journalled. Result: 0, or -1 with TSLB_DURABLE_INVALID: the store is no follower, the position is not
 * after that of the store, or the body does not fit; or with another code as for a batch. Nothing is applied then: arrays
 * that were changed in part are read from the disk again, as by tslb_store_restore. One thread at a time. */
int tslb_store_apply(tslb_store_t *store, const tslb_group_t *group, tslb_error_t *error);

/* Gives a follower the content of a copy of the leader's store (tslb_store_backup), in place, and with it the identity and
 * the position: they are durable when the call returns. Pointers to arrays stay valid. Needs twice the memory. Result: 0, or
 * -1: the store has its content of before, or is broken, or readers wait until a tslb_store_restore succeeds. Any thread. */
int tslb_store_adopt(tslb_store_t *store, const char *folder, tslb_error_t *error);

/* Makes a follower a leader: journals `position`, the begin of its epoch, without a call of `append`, unless it is the
 * store's position already. Then batches can begin. Result: 0, or -1: it is still a follower. Any thread. */
int tslb_store_promote(tslb_store_t *store, const tslb_log_position_t *position, tslb_error_t *error);

/* Between begin and end no group is applied, and no array restored or replaced: a thread that reads a follower sees a whole
 * state. Application waits meanwhile, so reading should be short. At most 64 threads read at once; others wait. Every store
 * has these functions; those of a leader do not wait. If a group or a copy could be neither applied nor taken back, readers wait
 * until a tslb_store_restore succeeds. Not allowed between begin and end: another begin, beginning or ending a batch, waiting for a
 * ticket, _reserve, _snapshot, _backup, _restore, _apply, _adopt, _promote and _close. */
void tslb_store_begin_reading(tslb_store_t *store);
void tslb_store_end_reading(tslb_store_t *store);

/* Bytes of a pool that can still be taken. */
typedef struct tslb_pool_room_t {
  uint64_t current;  /* left in the current slot */
  uint64_t free;     /* in slots on the free list */
  uint64_t inactive; /* in slots on the inactive list */
  uint64_t fresh;    /* in slots that do not exist yet and that 32-bit addresses can name */
} tslb_pool_room_t;

/* Returns how much room a pool of 32-bit addresses has. -1 if it is not a pool. Any thread; out of date at once while
 * others take chunks. */
int tslb_store_pool_room(tslb_store_t *store, uint32_t array, tslb_pool_room_t *room);

TSLB_END_DECLS

#endif
