/* Version maps: the stored version of each record type, and the routines that convert it to each lower version; the
 * argument of these routines; and the host's copy hook. The library converts nothing by itself: the host's recovery
 * looks up a routine and calls it. */
#ifndef TSDB_RECOVERY_VERSION_COMPATIBILITY_H
#define TSDB_RECOVERY_VERSION_COMPATIBILITY_H

#include "mvt.h"
#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* One conversion: source and destination. Owned by the caller; a routine keeps no pointer to it. */
typedef struct TSDBVerCBArgs_t {
  uint16_t rec_type;  /* record type, for messages */
  void *h_mpool_prev; /* DynArrHandle_t * of the source, in the higher version */
  void *h_mpool_cur;  /* DynArrHandle_t * of the destination, in the lower version */
} TSDBVerCBArgs_t;

/* Conversion to one target version. */
typedef struct TSDBVerCB_t {
  uint8_t depricate;            /* 0; not read */
  void (*upgrade_cb)(void *);   /* NULL; not read */
  void (*downgrade_cb)(void *); /* from the row's version directly to the target; NULL if there is no conversion */
} TSDBVerCB_t;

/* One record type. */
typedef struct TSDBVerMap_t {
  uint8_t rec_type;  /* same as the row's index; the index decides */
  uint8_t version;   /* of stored data */
  uint8_t daflag;    /* TSLB_DA_DAFLAG_* of arrays of this type */
  TSDBVerCB_t cb[4]; /* by target version */
} TSDBVerMap_t;

extern TSLB_API const TSDBVerMap_t g_old_vermap[__TSDB_RECORD_TYPES_LAST__];         /* by tsdb_record_type_t */
extern TSLB_API const TSDBVerMap_t g_old_lib_vermap[__TSDB_LIB__RECORD_TYPESLAST__]; /* by tsdb_lib_record_type_t */

/* The versions that the running host uses, in the same form. The host may define them; the library does not use
 * them. */
extern TSLB_API const TSDBVerMap_t g_vermap[__TSDB_RECORD_TYPES_LAST__];
extern TSLB_API const TSDBVerMap_t g_lib_vermap[__TSDB_LIB__RECORD_TYPESLAST__];

/* Returns the routine, of type void (*)(void *cbargs), that converts records of a type to a target version.
 *
 * rec_type        a row of the selected map.
 * version         the target, 0 to 3.
 * is_lib_rc_type  0: g_old_vermap. Any other value: g_old_lib_vermap.
 * Result          NULL if there is no conversion, for example to the row's own version, and for values outside the map.
 * Threads         any. */
TSLB_API void *tsdb_recovery_version_get_downgrade_fn_ptr(uint16_t rec_type, uint8_t version, uint8_t is_lib_rc_type);

/* Writes the versions of g_old_vermap to the trace log. Returns NULL. */
TSLB_API void *tsdb_print_old_version_tb(void);

/* Copies the whole content of h_mpool_prev to h_mpool_cur. Defined by the host. Does not throw.
 *
 * cbargs  a TSDBVerCBArgs_t. */
TSLB_API void tsdb_recov_version_copy_rc(void *cbargs);

TSLB_END_DECLS

#endif
