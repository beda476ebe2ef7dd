// No trace log: tracing is off, and every level of every module is off.
#include <tslb/tsdb_multi_thread_trace_log.h>

MTTraceLogKey *trace_log_key = nullptr;

uint8_t g_tstl_module_debug_arr[TSTL_NUM_MODULES][4];

const char *g_tstl_module_names[TSTL_NUM_MODULES] = {
    "ingestion_subject_registration",
    "ingestion_online_partition",
    "ingestion_metric",
    "ingestion_global_metric",
    "ingestion_ctx",
    "ingestion_interface",
    "bj_common",
    "bj_stats",
    "bj_uproll",
    "bj_uproll_soft_sla",
    "bj_uproll_hard_sla",
    "bj_offline_reclaim",
    "bj_offline",
    "bj_offline_soft_sla",
    "bj_offline_hard_sla",
    "bj_offline_usage_guard_time",
    "bj_stale_bitmask_update_time",
    "bj_osp_reclaim",
    "bj_osp_reclaim_soft_sla",
    "bj_osp_reclaim_hard_sla",
    "bj_osp_complete",
    "bj_percentile",
    "query_utils",
    "query_handler",
    "query_uproll",
    "query_worker",
    "query_data_calls",
    "query_tree_init",
    "query_tree_expand",
    "query_tree_search",
    "query_metadata_calls",
    "query_open_merge",
    "query_open_related",
    "query_pattern_matching",
    "query_group_graph",
    "query_derived",
    "query_hier_calls",
    "query_tag_list_calls",
    "common_mvt_utils",
    "common_tsdb_utils",
    "common_mvt_reuse",
    "rsb",
    "validation_error",
    "timer",
    "readmap",
    "recovery",
    "freq_cfg",
    "init",
    "access_log",
    "alert_calls",
    "snapshot",
    "tarn_tsdb",
};

int tslb_mt_trace_log(void *, const char *, int32_t, int64_t, const char *, const char *, const char *, int32_t,
                      const char *, const char *, ...) {
  return 0;
}
