/* Routines that turn a stored array of a newer layout into one of an older layout.
 *
 * Each takes a TSDBVerCBArgs_t, reads the array h_mpool_prev and writes h_mpool_cur; it returns nothing and its only
 * report is the trace log. Called through the version maps (tsdb_recovery_version_compatibility.h), at recovery, while
 * nobody else uses the two arrays. They take no lock of their own.
 *
 * For the record routines the caller makes a new, empty destination whose record size holds the older layout and whose
 * direct slots are as many as there are records (its n_alloc is what is converted), not above n_used of the source.
 * Records are taken by position, whatever their slot's status, and come out active under the same index; lists are not
 * carried over. A routine ends early if the destination has no slot or the source no record; what was converted
 * stays. */
#ifndef TSDB_RECOVERY_VERSION_DOWNGRADE_FN_H
#define TSDB_RECOVERY_VERSION_DOWNGRADE_FN_H

#include "tsdb_recovery_version_compatibility.h"
#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* The library's headers, from version 2 to 1: version bytes, the pool header where both arrays have one of a size, and
 * daflag 0 in the destination's handle (its stored flags stay). Moves no record. */
TSLB_API void tsdb_recov_downgrade_rc_lib_2_1(void *cbargs);

/* The two pools, from version 1 to 0: by the host's tsdb_recov_version_copy_rc alone. */
TSLB_API void tsdb_recov_downgrade_rc_lib_bb_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_rc_lib_bv_1_0(void *cbargs);

/* Catalogue records: from_to in the name. What the newer version added is dropped. */
TSLB_API void tsdb_recov_downgrade_rc_tysub_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_g_mg_2_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_g_mg_2_1(void *cbargs);
TSLB_API void tsdb_recov_downgrade_g_mt_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_derived_var_value_t_1_0(void *cbargs);
TSLB_API void tsdb_recov_downgrade_derived_metric_t_1_0(void *cbargs);

/* The strings decide over the stored lengths. A value of 256 characters or more is carried as its first 255. */
TSLB_API void tsdb_recov_downgrade_derived_subject_value_t_1_0(void *cbargs);

TSLB_END_DECLS

#endif
