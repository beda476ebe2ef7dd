/* The debug log: one per process, for the host's own messages; the library writes nothing to it. Lines go straight to a
 * file, one write each, and files roll over by size. Callers use the macros of tslb_dlog_macros.h.
 *
 * Files are named "base.pid.version", so with the default base "/tmp/tslb_dlog" and process 4242 the first one is
 * /tmp/tslb_dlog.4242.0. Old versions stay. Each file begins with a header, each line with
 * date and time|source file|line|function|process|thread|thread's name|
 *
 * Until tslb_dl_init_internal was called, every operation does nothing.
 *
 * File names are predictable, and a file that exists is opened as it is. In a folder that others can write, such as
 * /tmp, another user can put a link or a FIFO there first: lines are then appended to the link's target, and the open
 * of a FIFO that nobody reads blocks, with the log's lock held. A host on a shared machine names a folder of its own.
 *
 * A child of fork keeps the parent's process id and files until it calls tslb_dl_init_internal. It does so before its
 * first line if the parent has several threads: one of them may have held the log's lock at the fork. */
#ifndef TSLB_DLOG_H
#define TSLB_DLOG_H

#include <pthread.h>
#include <sys/types.h>

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

typedef struct TSLBDLog_t {
  char fname_abs[1025];      /* base path; empty for standard output */
  int fd;                    /* -1: none open */
  int fmax_sz;               /* size from which a file rolls over, in bytes */
  int fver;                  /* version of the current file; -1 before the first */
  int level;                 /* messages up to this one are written */
  int rollover_flag;         /* not used */
  pid_t pid;                 /* as at initialisation: a line does not notice a fork */
  unsigned int n_threads;    /* next thread number */
  pthread_mutex_t dl_thlock; /* around formatting and writing; not recursive */
} TSLBDLog_t;

extern TSLB_API TSLBDLog_t *g_dl;           /* NULL until the log was initialised; never freed */
extern TSLB_API __thread int g_tid;         /* the thread's number in the log; -1 until it has one */
extern TSLB_API __thread char g_thname[33]; /* its name there */

/* Starts the log, or sets it anew: that is how its level is changed. The file is made by the first line. An out of
 * memory leaves it off, with a line on stderr.
 *
 * dlog_fname  base path, of which 1,023 characters are kept; NULL for "/tmp/tslb_dlog"; "stdout" for standard output.
 * dlevel      the level.
 * fmax_sz     size for rollover in MiB; 2,047 at most, -1 and below for 10. 0: a file for each line.
 * Threads     the caller becomes a thread without number, named "-". In a child of fork, any state of the parent's log
 *             is accepted, its lock included; no other thread of the child uses the log meanwhile. */
TSLB_API void tslb_dl_init_internal(const char *dlog_fname, int dlevel, int fmax_sz);

/* Names the calling thread in the log, with at most 31 characters; "-" for NULL or an empty name. Gives it a number. */
TSLB_API void tslb_dl_set_thname_internal(const char *thname);

/* Writes one line if `dlevel` is at or below the level of the log: 4,096 bytes at most with its newline; what is longer
 * is cut. A line that cannot be written is lost, with a line on stderr. errno is as before.
 *
 * file_name, fun_name, line_no
 *          the caller's place; of the file the base name is shown.
 * Threads  any; not from a signal handler. A thread must not be cancelled meanwhile: open, stat, write and close are
 *          cancellation points, and the log's lock would stay held for ever. */
TSLB_API void tslb_dl_logging(int dlevel, const char *file_name, const char *fun_name, int line_no, const char *fmt,
                              ...) __attribute__((format(printf, 5, 6)));

TSLB_END_DECLS

#endif
