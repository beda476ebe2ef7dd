/* The trace log, which the host implements. Only the library's recovery routines call it, with the module
 * tstl_module_recovery, and only if tracing is on. The host defines all four symbols. */
#ifndef TSDB_MULTI_THREAD_TRACE_LOG_H
#define TSDB_MULTI_THREAD_TRACE_LOG_H

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* The host's trace modules: rows of g_tstl_module_debug_arr, indexes of g_tstl_module_names. */
typedef enum tstl_modules {
  tstl_module_ingestion_subject_registration,
  tstl_module_ingestion_online_partition,
  tstl_module_ingestion_metric,
  tstl_module_ingestion_global_metric,
  tstl_module_ingestion_ctx,
  tstl_module_ingestion_interface,
  tstl_module_bj_common,
  tstl_module_bj_stats,
  tstl_module_bj_uproll,
  tstl_module_bj_uproll_soft_sla,
  tstl_module_bj_uproll_hard_sla,
  tstl_module_bj_offline_reclaim,
  tstl_module_bj_offline,
  tstl_module_bj_offline_soft_sla,
  tstl_module_bj_offline_hard_sla,
  tstl_module_bj_offline_usage_guard_time,
  tstl_module_bj_stale_bitmask_update_time,
  tstl_module_bj_osp_reclaim,
  tstl_module_bj_osp_reclaim_soft_sla,
  tstl_module_bj_osp_reclaim_hard_sla,
  tstl_module_bj_osp_complete,
  tstl_module_bj_percentile,
  tstl_module_query_utils,
  tstl_module_query_handler,
  tstl_module_query_uproll,
  tstl_module_query_worker,
  tstl_module_query_data_calls,
  tstl_module_query_tree_init,
  tstl_module_query_tree_expand,
  tstl_module_query_tree_search,
  tstl_module_query_metadata_calls,
  tstl_module_query_open_merge,
  tstl_module_query_open_related,
  tstl_module_query_pattern_matching,
  tstl_module_query_group_graph,
  tstl_module_query_derived,
  tstl_module_query_hier_calls,
  tstl_module_query_tag_list_calls,
  tstl_module_common_mvt_utils,
  tstl_module_common_tsdb_utils,
  tstl_module_common_mvt_reuse,
  tstl_module_rsb,
  tstl_module_validation_error,
  tstl_module_timer,
  tstl_module_readmap,
  tstl_module_recovery,
  tstl_module_freq_cfg,
  tstl_module_init,
  tstl_module_access_log,
  tstl_module_alert_calls,
  tstl_module_snapshot,
  tstl_module_tarn_tsdb,
  TSTL_NUM_MODULES
} tstl_modules;

typedef struct MTTraceLogKey MTTraceLogKey; /* defined by the host; opaque here */

/* NULL: tracing is off, and the library reads nothing else of this header. */
extern TSLB_API MTTraceLogKey *trace_log_key;

/* Row: module. Column: level - 1. Non-zero: this level is on for this module. */
extern TSLB_API uint8_t g_tstl_module_debug_arr[TSTL_NUM_MODULES][4];

/* Passed to the trace log unchanged. */
extern TSLB_API const char *g_tstl_module_names[TSTL_NUM_MODULES];

/* Writes one trace line. The library ignores the result.
 *
 * log_key       trace_log_key.
 * module_name   an entry of g_tstl_module_names.
 * level         1 or 2.
 * request_id    always -1.
 * component, severity, file_name, line, function
 *               the source of the line.
 * format, ...   the text, as for printf.
 * Threads       any number at once. Does not throw: the library has no exceptions. */
TSLB_API int tslb_mt_trace_log(void *log_key, const char *module_name, int32_t level, int64_t request_id,
                               const char *component, const char *severity, const char *file_name, int32_t line,
                               const char *function, const char *format, ...) __attribute__((format(printf, 10, 11)));

TSLB_END_DECLS

#endif
