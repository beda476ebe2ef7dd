/* The argument of conversions that take a stored array down a version, and the host's copy hook. */
#ifndef TSDB_RECOVERY_VERSION_COMPATIBILITY_H
#define TSDB_RECOVERY_VERSION_COMPATIBILITY_H

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* One conversion: what is stored, and where it goes. The caller's; a routine keeps no pointer to it. */
typedef struct TSDBVerCBArgs_t {
  uint16_t rec_type;  /* record type, for messages */
  void *h_mpool_prev; /* DynArrHandle_t * of the source, in the higher version */
  void *h_mpool_cur;  /* DynArrHandle_t * of the destination, in the lower version */
} TSDBVerCBArgs_t;

/* Brings the whole content of h_mpool_prev into h_mpool_cur. Defined by the host.
 *
 * cbargs  a TSDBVerCBArgs_t. */
TSLB_API void tsdb_recov_version_copy_rc(void *cbargs);

TSLB_END_DECLS

#endif
