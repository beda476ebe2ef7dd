/* Settings that the host writes and the library reads. They are plain words without a lock. No operation of the library
 * writes them. */
#ifndef TSLB_SETTINGS_H
#define TSLB_SETTINGS_H

#include <time.h>

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

typedef struct tslb_configuration_t {
  time_t tslb_recovery_snapshot;                 /* not read here */
  int8_t tslb_remove_indirect_slots_after_merge; /* not read here */
  char tslb_mvt_reuse_enabled;                   /* 0: tslb_da_get_newptr_inll* never reuse an inactive slot */
  uint8_t tslb_create_inline_bv;                 /* not read here */
  uint8_t tslb_enable_file_trimming_flag;        /* bit 0: a snapshot may end with a short slot */
} tslb_configuration_t;

extern TSLB_API tslb_configuration_t lib_config;    /* all zero at load */
extern TSLB_API char tslb_test_mode;                /* 0xFF at load; read by the snapshot */
extern TSLB_API int tslb_testidx;                   /* 0 at load; the run whose pid files are read */
extern TSLB_API uint8_t tslb_tsdb_mode;             /* 0xFF at load; not read here */
extern TSLB_API char tslb_qxwdir[1025];             /* empty at load; not read here */
extern TSLB_API uint8_t tstl_dont_merge_indr_slots; /* 1 at load; not read here */

TSLB_END_DECLS

#endif
