/* Routines that convert a stored array from a newer layout to an older layout.
 *
 * Each takes a TSDBVerCBArgs_t, reads the array h_mpool_prev and writes h_mpool_cur. It returns nothing and reports
 * only to the trace log. Recovery calls the routines through the version maps (tsdb_recovery_version_compatibility.h)
 * while no other code uses the two arrays. They take no lock of their own.
 *
 * For the record routines the caller creates a new, empty destination. Its record size holds the older layout. Its
 * number of direct slots is the number of records (its n_alloc gives the number to convert), at most n_used of the
 * source. Records are read by index, whatever their slot's status, and become active under the same index. Lists are
 * not copied. A routine ends early if the destination has no slot or the source no record; records converted before
 * that stay. */
#ifndef TSDB_RECOVERY_VERSION_DOWNGRADE_FN_H
#define TSDB_RECOVERY_VERSION_DOWNGRADE_FN_H

#include "tsdb_recovery_version_compatibility.h"
#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* The library's headers, from version 2 to 1: sets the version bytes, copies the pool header if both arrays have one of
 * the same size, and sets daflag to 0 in the destination's handle (its stored flags stay). Copies no record. */
TSLB_API void tsdb_recov_downgrade_rc_lib_2_1(void *cbargs);

/* The two pools, from version 1 to 0: only calls the host's tsdb_recov_version_copy_rc. */
TSLB_API void tsdb_recov_downgrade_rc_lib_bb_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_rc_lib_bv_1_0(void *cbargs);

/* Catalogue records. The name ends with the source and the target version. Fields that the newer version added are
 * dropped. */
TSLB_API void tsdb_recov_downgrade_rc_tysub_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_g_mg_2_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_g_mg_2_1(void *cbargs);
TSLB_API void tsdb_recov_downgrade_g_mt_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_derived_var_value_t_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_derived_metric_t_1_0(void *cbargs);

/* The length is that of the string; the stored length is ignored. A value of 256 characters or more is cut to 255. */
TSLB_API void tsdb_recov_downgrade_derived_subject_value_t_1_0(void *cbargs);

TSLB_END_DECLS

#endif
