/* Macros for callers of the debug log. The compiler checks the format. The macros pass the caller's source position.
 * The arguments of a line above the log's level are not evaluated. */
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

/* True if a line of this level would be written. For work that only serves the log. */
#define TSLB_DLOG_WANTS(wanted)                        \
  (__atomic_load_n(&g_dl, __ATOMIC_ACQUIRE) != NULL && \
   (wanted) <= __atomic_load_n(&__atomic_load_n(&g_dl, __ATOMIC_ACQUIRE)->level, __ATOMIC_RELAXED))

#define TSLB_DLOG_INIT(base_path, level, max_mib) tslb_dl_init_internal((base_path), (level), (max_mib))
#define TSLB_DLOG_THREAD_NAME(name) tslb_dl_set_thname_internal(name)

#endif
