/* The redo log, which the host implements. The library reports changed bytes of arrays through one function, and one
 * variable switches this on. The host defines both.
 *
 * Offsets are those of an array's flat image: its headers, then its slots in id order, wherever the slots lie in
 * memory. A reader of the log needs the header size and the slot size, but no memory address. */
#ifndef TSLB_RD_API_H
#define TSLB_RD_API_H

#include <pthread.h>
#include <sys/types.h>
#include <time.h>

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* Record types that the library writes. All others come from the host through the logging operations. */
#define TSLB_REDO_DEFAULT 2 /* replaces a caller's 0 when slots are logged */
#define TSLB_REDO_SLOT 5    /* slots and headers */
#define TSLB_REDO_GROWTH 13 /* a pool grew: data_off is its new size, no bytes follow */

/* Table ids reserved for the host's own arrays. Other ids are above them. */
typedef enum tslb_fixed_tblid_t {
  __FIXED_TBLIDS_FISRT__ = -17,
  PDP2_TBLID = -16,
  PDP3_TBLID = -15,
  PDP4_TBLID = -14,
  PDP5_TBLID = -13,
  PDP6_TBLID = -12,
  DP0_TBLID = -11,
  DP1_TBLID = -10,
  DP2_TBLID = -9,
  DP3_TBLID = -8,
  DP4_TBLID = -7,
  DP5_TBLID = -6,
  DP6_TBLID = -5,
  BBP_TBLID = -4, /* big-buffer pool */
  BVP_TBLID = -3, /* bit-vector pool */
  TOT_TBLID = -2,
  TOC_TBLID = -1,
  __FIXED_TBLIDS_LAST__ = 0
} tslb_fixed_tblid_t;

/* The host's writer and its buffers. The library tests g_redo_handle against NULL and reads nothing through it. */
typedef struct RedoBuffer_t {
  char buffer[16777000];
  int fd;
  int fd_next;
  uint64_t fver;
  uint64_t fver_next;
  int fwrite_bytes;
} RedoBuffer_t;

typedef struct RedoHandler_t {
  char redo_home[128];
  RedoBuffer_t *buffers;
  uint32_t r_bufinfo;
  uint32_t r_bufinfo_next;
  uint32_t w_bufinfo;
  int rbuf_idx;
  int wbuf_idx;
  int fd;
  uint64_t fver;
  uint64_t fwrite_bytes;
  int fver_fd;
  int buf_2ndfd;
  uint64_t txn_id;
  short rec_hdrsz;
  short rec_sz;
  uint64_t total_rec;
  pthread_t rdw_thid;
  int api_flag;
  time_t stime_ms;
  time_t rlw_stime;
  pid_t rlw_pid;
  pid_t main_thpid;
  char redobuf_dump_flag;
  int fsync_mode;
  __useconds_t get_write_cursor_sleep; /* useconds_t, by the name that strict C11 also defines */
  uint8_t buffer_count;
} RedoHandler_t;

/* NULL: nothing is logged, and the hook is never called. It is read without a lock. */
extern TSLB_API RedoHandler_t *g_redo_handle;

/* Receives one redo record. Defined by the host; the library ignores the result.
 *
 * txn_id    the caller's transaction; all ones for the library's own records.
 * rec_type  a TSLB_REDO_* value, or the host's own.
 * ctx_name, tbl_id
 *           the array's name (possibly empty) and table id.
 * data_off  offset in the flat image of the array, in bytes; for TSLB_REDO_GROWTH the pool's new size.
 * aux_idx   always 0xFFFFFFFF.
 * data_ptr  the bytes in live array memory, not a copy. The hook consumes them before returning, since the next
 *           operation overwrites them. NULL if data_sz is 0.
 * Threads   any number at once, also for one array. Some calls hold the array's spin lock. The hook therefore has its
 *           own locking, and calls nothing that waits for that spin lock: that call would wait forever. It does not
 *           throw: an exception would leave the spin lock held forever. */
TSLB_API int tslb_redo_log_ex(uint64_t txn_id, char rec_type, char *ctx_name, uint32_t tbl_id, uint64_t data_off,
                              uint32_t aux_idx, void *data_ptr, unsigned int data_sz);

TSLB_END_DECLS

#endif
