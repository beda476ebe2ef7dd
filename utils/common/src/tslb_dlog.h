/* The debug log. A process has one. It is for the host's messages; the library writes nothing to it. Each line is one
 * write to a file, and files roll over by size. Callers use the macros of tslb_dlog_macros.h.
 *
 * Files are named "base.pid.version". With the default base "/tmp/tslb_dlog" and process 4242 the first file is
 * /tmp/tslb_dlog.4242.0. Old versions are kept. Each file begins with a header. Each line begins with date and
 * time|source file|line|function|process|thread|thread's name|
 *
 * Before tslb_dl_init_internal is called, every operation does nothing.
 *
 * File names are predictable, and an existing file is opened as it is. In a folder that others can write, such as /tmp,
 * another user can create a link or a FIFO with that name first. Lines are then appended to the link's target, and the
 * open of a FIFO without a reader blocks with the log's lock held. On a shared machine a host uses a folder of its own.
 *
 * A child of fork keeps the parent's process id and files until it calls tslb_dl_init_internal. If the parent has
 * several threads, the child calls it before its first line: a thread of the parent may have held the log's lock at the
 * fork. */
#ifndef TSLB_DLOG_H
#define TSLB_DLOG_H

#include <pthread.h>
#include <sys/types.h>

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

typedef struct TSLBDLog_t {
  char fname_abs[1025];      /* base path; empty for standard output */
  int fd;                    /* -1: no file is open */
  int fmax_sz;               /* a file of this size or more rolls over, in bytes */
  int fver;                  /* version of the current file; -1 before the first */
  int level;                 /* messages up to this level are written */
  int rollover_flag;         /* not used */
  pid_t pid;                 /* set at initialisation; a fork does not change it */
  unsigned int n_threads;    /* next thread number */
  pthread_mutex_t dl_thlock; /* held while a line is formatted and written; not recursive */
} TSLBDLog_t;

extern TSLB_API TSLBDLog_t *g_dl;           /* NULL until the log is initialised; never freed */
extern TSLB_API __thread int g_tid;         /* the thread's number in the log; -1 before it has one */
extern TSLB_API __thread char g_thname[33]; /* the thread's name in the log */

/* Starts the log, or changes the settings of a running log, for example its level. The first line creates the file. If
 * memory is refused, the log stays off and a line is written to stderr.
 *
 * dlog_fname  base path, of which 1,023 characters are kept; NULL for "/tmp/tslb_dlog"; "stdout" for standard output.
 * dlevel      the level.
 * fmax_sz     size for rollover in MiB, at most 2,047. A negative value means 10. 0: one file per line.
 * Threads     the calling thread loses its number, and its name becomes "-". In a child of fork, the parent's log may
 *             be in any state, also with its lock held; no other thread of the child uses the log during the call. */
TSLB_API void tslb_dl_init_internal(const char *dlog_fname, int dlevel, int fmax_sz);

/* Sets the name of the calling thread in the log, at most 31 characters; NULL or an empty name means "-". Gives the
 * thread a number. */
TSLB_API void tslb_dl_set_thname_internal(const char *thname);

/* Writes one line if `dlevel` is at or below the level of the log. The line is cut to 4,096 bytes with its newline. A
 * line that cannot be written is lost, and a line is written to stderr. errno is not changed.
 *
 * file_name, fun_name, line_no
 *          the caller's source position. The base name of the file is shown.
 * Threads  any; not from a signal handler. The thread must not be cancelled during the call: open, stat, write and
 *          close are cancellation points, and the log's lock would stay held forever. */
TSLB_API void tslb_dl_logging(int dlevel, const char *file_name, const char *fun_name, int line_no, const char *fmt,
                              ...) __attribute__((format(printf, 5, 6)));

TSLB_END_DECLS

#endif
