/* What callers of the debug log write. The format is checked by the compiler, the caller's place is filled in, and the
 * arguments of a line that is not wanted are not evaluated. */
#ifndef TSLB_DLOG_MACROS_H
#define TSLB_DLOG_MACROS_H

#include "tslb_dlog.h"

/* TSLB_DLOG(level, format, ...) */
#define TSLB_DLOG(level, ...)                                                       \
  do {                                                                              \
    const int tslb_dlog_level_ = (level);                                           \
    if (TSLB_DLOG_WANTS(tslb_dlog_level_))                                          \
      tslb_dl_logging(tslb_dlog_level_, __FILE__, __func__, __LINE__, __VA_ARGS__); \
  } while (0)

/* Whether a line of this level would be written: for work that only serves the log. */
#define TSLB_DLOG_WANTS(wanted)                        \
  (__atomic_load_n(&g_dl, __ATOMIC_ACQUIRE) != NULL && \
   (wanted) <= __atomic_load_n(&__atomic_load_n(&g_dl, __ATOMIC_ACQUIRE)->level, __ATOMIC_RELAXED))

#define TSLB_DLOG_INIT(base_path, level, max_mib) tslb_dl_init_internal((base_path), (level), (max_mib))
#define TSLB_DLOG_THREAD_NAME(name) tslb_dl_set_thname_internal(name)

#endif
