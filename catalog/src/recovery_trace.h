// Writes a line to the host's trace log. The recovery routines use only this macro. A macro, so that the arguments are
// not evaluated while tracing is off. Private.
#ifndef RECOVERY_TRACE_H
#define RECOVERY_TRACE_H

#include "tsdb_multi_thread_trace_log.h"

#define RECOVERY_TRACE(level, component, function, ...)                                                             \
  do {                                                                                                              \
    if (trace_log_key != nullptr && g_tstl_module_debug_arr[tstl_module_recovery][(level)-1] != 0)                  \
      tslb_mt_trace_log(trace_log_key, g_tstl_module_names[tstl_module_recovery], (level), -1, (component), "Info", \
                        "tsdb_recovery_version_downgrade_fn", __LINE__, (function), __VA_ARGS__);                   \
  } while (0)

#endif
