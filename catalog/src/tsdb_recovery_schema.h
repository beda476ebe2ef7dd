/* Stored layouts of the catalogue's versioned records. The records belong to the host; the library uses the layouts
 * only to convert records to an older version. Every offset and size is part of the format, gaps included. A gap is
 * named after its offset and has no meaning. Records lie in slots at any address: copy them, or parts of them. */
#ifndef TSDB_RECOVERY_SCHEMA_H
#define TSDB_RECOVERY_SCHEMA_H

#include <regex.h>
#include <sys/types.h>

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

typedef unsigned int bv_t;
typedef struct subject_value_t subject_value_t;         /* defined by the host */
typedef struct derived_metric_fn_t derived_metric_fn_t; /* defined by the host */

/* One entry of rsb_arr. */
typedef struct rsb_t_v0 {
  int base_seq_no;
  u_int32_t tt_rsb;
} rsb_t_v0;
TSLB_STORED_SIZE(rsb_t_v0, 8);
TSLB_STORED_AT(rsb_t_v0, base_seq_no, 0);
TSLB_STORED_AT(rsb_t_v0, tt_rsb, 4);

typedef struct rsb_t_v1 {
  int base_seq_no;
  u_int32_t tt_rsb;
  bv_t stale_rsb;
} rsb_t_v1;
TSLB_STORED_SIZE(rsb_t_v1, 12);
TSLB_STORED_AT(rsb_t_v1, base_seq_no, 0);
TSLB_STORED_AT(rsb_t_v1, tt_rsb, 4);
TSLB_STORED_AT(rsb_t_v1, stale_rsb, 8);

/* Types and local root subjects. */
typedef struct ty_sub_t_v0 {
  __extension__ union {
    u_int32_t i_name;
    u_int32_t size;
  };
  unsigned short prev_id;
  unsigned short next_id;
  unsigned short ts;
  char gap10[2];
  u_int32_t nodes_group;
  char flag_bitmask;
  char gap17[3];
  u_int32_t mg;
  u_int32_t ag;
  char reserved;
  char gap29[3];
  rsb_t_v0 rsb_arr[5];
  u_int32_t i_offline_dirpath;
  u_int32_t i_namepath;
} ty_sub_t_v0;
TSLB_STORED_SIZE(ty_sub_t_v0, 80);
TSLB_STORED_AT(ty_sub_t_v0, i_name, 0);
TSLB_STORED_AT(ty_sub_t_v0, prev_id, 4);
TSLB_STORED_AT(ty_sub_t_v0, next_id, 6);
TSLB_STORED_AT(ty_sub_t_v0, ts, 8);
TSLB_STORED_AT(ty_sub_t_v0, gap10, 10);
TSLB_STORED_AT(ty_sub_t_v0, nodes_group, 12);
TSLB_STORED_AT(ty_sub_t_v0, flag_bitmask, 16);
TSLB_STORED_AT(ty_sub_t_v0, gap17, 17);
TSLB_STORED_AT(ty_sub_t_v0, mg, 20);
TSLB_STORED_AT(ty_sub_t_v0, ag, 24);
TSLB_STORED_AT(ty_sub_t_v0, reserved, 28);
TSLB_STORED_AT(ty_sub_t_v0, gap29, 29);
TSLB_STORED_AT(ty_sub_t_v0, rsb_arr, 32);
TSLB_STORED_AT(ty_sub_t_v0, i_offline_dirpath, 72);
TSLB_STORED_AT(ty_sub_t_v0, i_namepath, 76);

typedef struct ty_sub_t_v1 {
  __extension__ union {
    u_int32_t i_name;
    u_int32_t size;
  };
  unsigned short prev_id;
  unsigned short next_id;
  unsigned short ts;
  char gap10[2];
  u_int32_t nodes_group;
  char flag_bitmask;
  char gap17[3];
  u_int32_t mg;
  u_int32_t ag;
  char reserved;
  char gap29[3];
  rsb_t_v1 rsb_arr[5];
  u_int32_t i_offline_dirpath;
  u_int32_t i_namepath;
} ty_sub_t_v1;
TSLB_STORED_SIZE(ty_sub_t_v1, 100);
TSLB_STORED_AT(ty_sub_t_v1, i_name, 0);
TSLB_STORED_AT(ty_sub_t_v1, prev_id, 4);
TSLB_STORED_AT(ty_sub_t_v1, next_id, 6);
TSLB_STORED_AT(ty_sub_t_v1, ts, 8);
TSLB_STORED_AT(ty_sub_t_v1, gap10, 10);
TSLB_STORED_AT(ty_sub_t_v1, nodes_group, 12);
TSLB_STORED_AT(ty_sub_t_v1, flag_bitmask, 16);
TSLB_STORED_AT(ty_sub_t_v1, gap17, 17);
TSLB_STORED_AT(ty_sub_t_v1, mg, 20);
TSLB_STORED_AT(ty_sub_t_v1, ag, 24);
TSLB_STORED_AT(ty_sub_t_v1, reserved, 28);
TSLB_STORED_AT(ty_sub_t_v1, gap29, 29);
TSLB_STORED_AT(ty_sub_t_v1, rsb_arr, 32);
TSLB_STORED_AT(ty_sub_t_v1, i_offline_dirpath, 92);
TSLB_STORED_AT(ty_sub_t_v1, i_namepath, 96);

/* Metric groups, plain and derived. Each version adds fields at the end. */
typedef struct g_mg_t_v0 {
  u_int32_t i_name;
  u_int32_t i_description;
  u_int32_t i_heirarchy;
  u_int32_t i_mgt_name;
  u_int32_t mt;
  u_int32_t gdf_mg_id;
  u_int16_t num_graphs;
  char group_type;
  char flags;
  u_int32_t vir_mt;
  u_int16_t num_virtual_graph;
  u_int16_t max_used_virtual_idx;
} g_mg_t_v0;
TSLB_STORED_SIZE(g_mg_t_v0, 36);
TSLB_STORED_AT(g_mg_t_v0, i_name, 0);
TSLB_STORED_AT(g_mg_t_v0, i_description, 4);
TSLB_STORED_AT(g_mg_t_v0, i_heirarchy, 8);
TSLB_STORED_AT(g_mg_t_v0, i_mgt_name, 12);
TSLB_STORED_AT(g_mg_t_v0, mt, 16);
TSLB_STORED_AT(g_mg_t_v0, gdf_mg_id, 20);
TSLB_STORED_AT(g_mg_t_v0, num_graphs, 24);
TSLB_STORED_AT(g_mg_t_v0, group_type, 26);
TSLB_STORED_AT(g_mg_t_v0, flags, 27);
TSLB_STORED_AT(g_mg_t_v0, vir_mt, 28);
TSLB_STORED_AT(g_mg_t_v0, num_virtual_graph, 32);
TSLB_STORED_AT(g_mg_t_v0, max_used_virtual_idx, 34);

typedef struct g_mg_t_v1 {
  u_int32_t i_name;
  u_int32_t i_description;
  u_int32_t i_heirarchy;
  u_int32_t i_mgt_name;
  u_int32_t mt;
  u_int32_t gdf_mg_id;
  u_int16_t num_graphs;
  char group_type;
  char flags;
  u_int32_t vir_mt;
  u_int16_t num_virtual_graph;
  u_int16_t max_used_virtual_idx;
  uint32_t tags_list_head;
} g_mg_t_v1;
TSLB_STORED_SIZE(g_mg_t_v1, 40);
TSLB_STORED_AT(g_mg_t_v1, i_name, 0);
TSLB_STORED_AT(g_mg_t_v1, i_description, 4);
TSLB_STORED_AT(g_mg_t_v1, i_heirarchy, 8);
TSLB_STORED_AT(g_mg_t_v1, i_mgt_name, 12);
TSLB_STORED_AT(g_mg_t_v1, mt, 16);
TSLB_STORED_AT(g_mg_t_v1, gdf_mg_id, 20);
TSLB_STORED_AT(g_mg_t_v1, num_graphs, 24);
TSLB_STORED_AT(g_mg_t_v1, group_type, 26);
TSLB_STORED_AT(g_mg_t_v1, flags, 27);
TSLB_STORED_AT(g_mg_t_v1, vir_mt, 28);
TSLB_STORED_AT(g_mg_t_v1, num_virtual_graph, 32);
TSLB_STORED_AT(g_mg_t_v1, max_used_virtual_idx, 34);
TSLB_STORED_AT(g_mg_t_v1, tags_list_head, 36);

typedef struct g_mg_t_v2 {
  u_int32_t i_name;
  u_int32_t i_description;
  u_int32_t i_heirarchy;
  u_int32_t i_mgt_name;
  u_int32_t mt;
  u_int32_t gdf_mg_id;
  u_int16_t num_graphs;
  char group_type;
  char flags;
  u_int32_t vir_mt;
  u_int16_t num_virtual_graph;
  u_int16_t max_used_virtual_idx;
  uint32_t tags_list_head;
  uint16_t metric_delay_in_sec;
  uint16_t reserved;
} g_mg_t_v2;
TSLB_STORED_SIZE(g_mg_t_v2, 44);
TSLB_STORED_AT(g_mg_t_v2, i_name, 0);
TSLB_STORED_AT(g_mg_t_v2, i_description, 4);
TSLB_STORED_AT(g_mg_t_v2, i_heirarchy, 8);
TSLB_STORED_AT(g_mg_t_v2, i_mgt_name, 12);
TSLB_STORED_AT(g_mg_t_v2, mt, 16);
TSLB_STORED_AT(g_mg_t_v2, gdf_mg_id, 20);
TSLB_STORED_AT(g_mg_t_v2, num_graphs, 24);
TSLB_STORED_AT(g_mg_t_v2, group_type, 26);
TSLB_STORED_AT(g_mg_t_v2, flags, 27);
TSLB_STORED_AT(g_mg_t_v2, vir_mt, 28);
TSLB_STORED_AT(g_mg_t_v2, num_virtual_graph, 32);
TSLB_STORED_AT(g_mg_t_v2, max_used_virtual_idx, 34);
TSLB_STORED_AT(g_mg_t_v2, tags_list_head, 36);
TSLB_STORED_AT(g_mg_t_v2, metric_delay_in_sec, 40);
TSLB_STORED_AT(g_mg_t_v2, reserved, 42);

/* Metrics. The byte at 12 holds metric_priority in its low 3 bits and unit in the others. */
typedef struct g_mt_t_v0 {
  u_int32_t i_name;
  u_int32_t i_description;
  char graph_type;
  u_int8_t data_type;
  char formula;
  char graph_state;
  unsigned int metric_priority : 3;
  unsigned int unit : 5;
  char flags;
  u_int16_t gdf_mt_id;
  u_int8_t data_size;
  __extension__ union {
    int8_t native_mt_idx;
    int8_t percentile_mt_idx;
    int8_t reserved;
  };
  u_int16_t rollup_level;
  u_int16_t rollup_type;
  char gap22[2];
} g_mt_t_v0;
TSLB_STORED_SIZE(g_mt_t_v0, 24);
TSLB_STORED_AT(g_mt_t_v0, i_name, 0);
TSLB_STORED_AT(g_mt_t_v0, i_description, 4);
TSLB_STORED_AT(g_mt_t_v0, graph_type, 8);
TSLB_STORED_AT(g_mt_t_v0, data_type, 9);
TSLB_STORED_AT(g_mt_t_v0, formula, 10);
TSLB_STORED_AT(g_mt_t_v0, graph_state, 11);
TSLB_STORED_AT(g_mt_t_v0, flags, 13);
TSLB_STORED_AT(g_mt_t_v0, gdf_mt_id, 14);
TSLB_STORED_AT(g_mt_t_v0, data_size, 16);
TSLB_STORED_AT(g_mt_t_v0, native_mt_idx, 17);
TSLB_STORED_AT(g_mt_t_v0, rollup_level, 18);
TSLB_STORED_AT(g_mt_t_v0, rollup_type, 20);
TSLB_STORED_AT(g_mt_t_v0, gap22, 22);

typedef struct g_mt_t_v1 {
  u_int32_t i_name;
  u_int32_t i_description;
  char graph_type;
  u_int8_t data_type;
  char formula;
  char graph_state;
  unsigned int metric_priority : 3;
  unsigned int unit : 5;
  char flags;
  u_int16_t gdf_mt_id;
  u_int8_t data_size;
  __extension__ union {
    int8_t native_mt_idx;
    int8_t percentile_mt_idx;
    int8_t reserved;
  };
  u_int16_t rollup_level;
  u_int16_t rollup_type;
  char gap22[2];
  uint32_t tags_list_head;
} g_mt_t_v1;
TSLB_STORED_SIZE(g_mt_t_v1, 28);
TSLB_STORED_AT(g_mt_t_v1, i_name, 0);
TSLB_STORED_AT(g_mt_t_v1, i_description, 4);
TSLB_STORED_AT(g_mt_t_v1, graph_type, 8);
TSLB_STORED_AT(g_mt_t_v1, data_type, 9);
TSLB_STORED_AT(g_mt_t_v1, formula, 10);
TSLB_STORED_AT(g_mt_t_v1, graph_state, 11);
TSLB_STORED_AT(g_mt_t_v1, flags, 13);
TSLB_STORED_AT(g_mt_t_v1, gdf_mt_id, 14);
TSLB_STORED_AT(g_mt_t_v1, data_size, 16);
TSLB_STORED_AT(g_mt_t_v1, native_mt_idx, 17);
TSLB_STORED_AT(g_mt_t_v1, rollup_level, 18);
TSLB_STORED_AT(g_mt_t_v1, rollup_type, 20);
TSLB_STORED_AT(g_mt_t_v1, gap22, 22);
TSLB_STORED_AT(g_mt_t_v1, tags_list_head, 24);

/* Parts of a member of a derived metric. */
typedef struct subject_t {
  uint8_t subject_mem_count;
  char gap1[1];
  uint16_t subject_total_count;
  char gap4[4];
  subject_value_t *subject_value;
  uint32_t subject_array;
  char gap20[4];
} subject_t;
TSLB_STORED_SIZE(subject_t, 24);
TSLB_STORED_AT(subject_t, subject_mem_count, 0);
TSLB_STORED_AT(subject_t, gap1, 1);
TSLB_STORED_AT(subject_t, subject_total_count, 2);
TSLB_STORED_AT(subject_t, gap4, 4);
TSLB_STORED_AT(subject_t, subject_value, 8);
TSLB_STORED_AT(subject_t, subject_array, 16);
TSLB_STORED_AT(subject_t, gap20, 20);

typedef struct measure_t {
  uint32_t mgt_id;
  uint32_t mg_id;
  uint32_t mt_id;
  uint8_t measure_mem_count;
  char mgt_name[128];
  char mg_name[128];
  char mt_name[128];
  char gap397[3];
} measure_t;
TSLB_STORED_SIZE(measure_t, 400);
TSLB_STORED_AT(measure_t, mgt_id, 0);
TSLB_STORED_AT(measure_t, mg_id, 4);
TSLB_STORED_AT(measure_t, mt_id, 8);
TSLB_STORED_AT(measure_t, measure_mem_count, 12);
TSLB_STORED_AT(measure_t, mgt_name, 13);
TSLB_STORED_AT(measure_t, mg_name, 141);
TSLB_STORED_AT(measure_t, mt_name, 269);
TSLB_STORED_AT(measure_t, gap397, 397);

/* Members of derived metrics. Pointers are stored as raw bytes and are meaningless in other processes. */
typedef struct derived_var_value_t_v0 {
  char *var_exp;
  uint32_t i_var_exp;
  uint8_t agg_fn;
  uint8_t unary_fn_count;
  uint8_t ctx_len;
  u_int8_t flags;
  uint8_t unary_fn[8];
  char var_name[64];
  subject_t subject[1];
  measure_t measure[1];
} derived_var_value_t_v0;
TSLB_STORED_SIZE(derived_var_value_t_v0, 512);
TSLB_STORED_AT(derived_var_value_t_v0, var_exp, 0);
TSLB_STORED_AT(derived_var_value_t_v0, i_var_exp, 8);
TSLB_STORED_AT(derived_var_value_t_v0, agg_fn, 12);
TSLB_STORED_AT(derived_var_value_t_v0, unary_fn_count, 13);
TSLB_STORED_AT(derived_var_value_t_v0, ctx_len, 14);
TSLB_STORED_AT(derived_var_value_t_v0, flags, 15);
TSLB_STORED_AT(derived_var_value_t_v0, unary_fn, 16);
TSLB_STORED_AT(derived_var_value_t_v0, var_name, 24);
TSLB_STORED_AT(derived_var_value_t_v0, subject, 88);
TSLB_STORED_AT(derived_var_value_t_v0, measure, 112);

typedef struct derived_var_value_t_v1 {
  char *var_exp;
  uint32_t i_var_exp;
  uint8_t agg_fn;
  uint8_t unary_fn_count;
  uint8_t ctx_len;
  u_int8_t flags;
  uint8_t unary_fn[8];
  char var_name[64];
  subject_t subject[1];
  measure_t measure[1];
  uint32_t tags_filters_bb_offset;
  uint32_t tags_filter_length_in_req;
  int *utvt_idx_arr;
  void *tags_filter_in_req;
} derived_var_value_t_v1;
TSLB_STORED_SIZE(derived_var_value_t_v1, 536);
TSLB_STORED_AT(derived_var_value_t_v1, var_exp, 0);
TSLB_STORED_AT(derived_var_value_t_v1, i_var_exp, 8);
TSLB_STORED_AT(derived_var_value_t_v1, agg_fn, 12);
TSLB_STORED_AT(derived_var_value_t_v1, unary_fn_count, 13);
TSLB_STORED_AT(derived_var_value_t_v1, ctx_len, 14);
TSLB_STORED_AT(derived_var_value_t_v1, flags, 15);
TSLB_STORED_AT(derived_var_value_t_v1, unary_fn, 16);
TSLB_STORED_AT(derived_var_value_t_v1, var_name, 24);
TSLB_STORED_AT(derived_var_value_t_v1, subject, 88);
TSLB_STORED_AT(derived_var_value_t_v1, measure, 112);
TSLB_STORED_AT(derived_var_value_t_v1, tags_filters_bb_offset, 512);
TSLB_STORED_AT(derived_var_value_t_v1, tags_filter_length_in_req, 516);
TSLB_STORED_AT(derived_var_value_t_v1, utvt_idx_arr, 520);
TSLB_STORED_AT(derived_var_value_t_v1, tags_filter_in_req, 528);

/* How a derived metric aggregates. */
typedef struct reco_agg_type_t {
  u_int8_t type;
  u_int8_t by;
  u_int8_t level[64];
} reco_agg_type_t;
TSLB_STORED_SIZE(reco_agg_type_t, 66);
TSLB_STORED_AT(reco_agg_type_t, type, 0);
TSLB_STORED_AT(reco_agg_type_t, by, 1);
TSLB_STORED_AT(reco_agg_type_t, level, 2);

/* Derived metrics. The field that version 1 adds is at the offset where version 0 ends in padding, so both versions
 * have one size. */
typedef struct derived_metric_t_v0 {
  u_int32_t i_name;
  u_int32_t i_description;
  char graph_type;
  u_int8_t data_type;
  char formula;
  char graph_state;
  char metric_priority;
  char flags;
  u_int16_t gdf_id;
  u_int8_t data_size;
  char gap17[3];
  u_int32_t members;
  reco_agg_type_t agg_type;
  char gap90[2];
  u_int32_t dervd_mt_formula;
  derived_metric_fn_t *fn_ptr;
  char reserved;
  char gap105[3];
  char gap108[4];
} derived_metric_t_v0;
TSLB_STORED_SIZE(derived_metric_t_v0, 112);
TSLB_STORED_AT(derived_metric_t_v0, i_name, 0);
TSLB_STORED_AT(derived_metric_t_v0, i_description, 4);
TSLB_STORED_AT(derived_metric_t_v0, graph_type, 8);
TSLB_STORED_AT(derived_metric_t_v0, data_type, 9);
TSLB_STORED_AT(derived_metric_t_v0, formula, 10);
TSLB_STORED_AT(derived_metric_t_v0, graph_state, 11);
TSLB_STORED_AT(derived_metric_t_v0, metric_priority, 12);
TSLB_STORED_AT(derived_metric_t_v0, flags, 13);
TSLB_STORED_AT(derived_metric_t_v0, gdf_id, 14);
TSLB_STORED_AT(derived_metric_t_v0, data_size, 16);
TSLB_STORED_AT(derived_metric_t_v0, gap17, 17);
TSLB_STORED_AT(derived_metric_t_v0, members, 20);
TSLB_STORED_AT(derived_metric_t_v0, agg_type, 24);
TSLB_STORED_AT(derived_metric_t_v0, gap90, 90);
TSLB_STORED_AT(derived_metric_t_v0, dervd_mt_formula, 92);
TSLB_STORED_AT(derived_metric_t_v0, fn_ptr, 96);
TSLB_STORED_AT(derived_metric_t_v0, reserved, 104);
TSLB_STORED_AT(derived_metric_t_v0, gap105, 105);
TSLB_STORED_AT(derived_metric_t_v0, gap108, 108);

typedef struct derived_metric_t_v1 {
  u_int32_t i_name;
  u_int32_t i_description;
  char graph_type;
  u_int8_t data_type;
  char formula;
  char graph_state;
  char metric_priority;
  char flags;
  u_int16_t gdf_id;
  u_int8_t data_size;
  char gap17[3];
  u_int32_t members;
  reco_agg_type_t agg_type;
  char gap90[2];
  u_int32_t dervd_mt_formula;
  derived_metric_fn_t *fn_ptr;
  char reserved;
  char gap105[3];
  u_int32_t tag_attr_for_group_by_bb_offset;
} derived_metric_t_v1;
TSLB_STORED_SIZE(derived_metric_t_v1, 112);
TSLB_STORED_AT(derived_metric_t_v1, i_name, 0);
TSLB_STORED_AT(derived_metric_t_v1, i_description, 4);
TSLB_STORED_AT(derived_metric_t_v1, graph_type, 8);
TSLB_STORED_AT(derived_metric_t_v1, data_type, 9);
TSLB_STORED_AT(derived_metric_t_v1, formula, 10);
TSLB_STORED_AT(derived_metric_t_v1, graph_state, 11);
TSLB_STORED_AT(derived_metric_t_v1, metric_priority, 12);
TSLB_STORED_AT(derived_metric_t_v1, flags, 13);
TSLB_STORED_AT(derived_metric_t_v1, gdf_id, 14);
TSLB_STORED_AT(derived_metric_t_v1, data_size, 16);
TSLB_STORED_AT(derived_metric_t_v1, gap17, 17);
TSLB_STORED_AT(derived_metric_t_v1, members, 20);
TSLB_STORED_AT(derived_metric_t_v1, agg_type, 24);
TSLB_STORED_AT(derived_metric_t_v1, gap90, 90);
TSLB_STORED_AT(derived_metric_t_v1, dervd_mt_formula, 92);
TSLB_STORED_AT(derived_metric_t_v1, fn_ptr, 96);
TSLB_STORED_AT(derived_metric_t_v1, reserved, 104);
TSLB_STORED_AT(derived_metric_t_v1, gap105, 105);
TSLB_STORED_AT(derived_metric_t_v1, tag_attr_for_group_by_bb_offset, 108);

/* Subjects of derived metrics. Strings are terminated. The regex is stored as raw bytes, like pointers. */
typedef struct subject_value_t_v0 {
  uint8_t tag_len;
  char tag[64];
  uint8_t value_len;
  char value[256];
  uint8_t mode;
  char gap323[5];
  regex_t regex;
} subject_value_t_v0;
TSLB_STORED_SIZE(subject_value_t_v0, 392);
TSLB_STORED_AT(subject_value_t_v0, tag_len, 0);
TSLB_STORED_AT(subject_value_t_v0, tag, 1);
TSLB_STORED_AT(subject_value_t_v0, value_len, 65);
TSLB_STORED_AT(subject_value_t_v0, value, 66);
TSLB_STORED_AT(subject_value_t_v0, mode, 322);
TSLB_STORED_AT(subject_value_t_v0, gap323, 323);
TSLB_STORED_AT(subject_value_t_v0, regex, 328);

typedef struct subject_value_t_v1 {
  uint8_t tag_len;
  char tag[64];
  char gap65[1];
  uint16_t value_len;
  char value[4096];
  uint8_t mode;
  char gap4165[3];
  regex_t regex;
} subject_value_t_v1;
TSLB_STORED_SIZE(subject_value_t_v1, 4232);
TSLB_STORED_AT(subject_value_t_v1, tag_len, 0);
TSLB_STORED_AT(subject_value_t_v1, tag, 1);
TSLB_STORED_AT(subject_value_t_v1, gap65, 65);
TSLB_STORED_AT(subject_value_t_v1, value_len, 66);
TSLB_STORED_AT(subject_value_t_v1, value, 68);
TSLB_STORED_AT(subject_value_t_v1, mode, 4164);
TSLB_STORED_AT(subject_value_t_v1, gap4165, 4165);
TSLB_STORED_AT(subject_value_t_v1, regex, 4168);

TSLB_END_DECLS

#endif
