/* Record types of the catalogue and of the library: row numbers of the version maps. There are two numberings; the
 * caller states which one a number belongs to. */
#ifndef MVT_H
#define MVT_H

typedef enum tsdb_record_type_t {
  RECTYPE_SUBJECT,
  RECTYPE_TYPE,
  RECTYPE_G_MG,
  RECTYPE_G_MT,
  RECTYPE_L_MG,
  RECTYPE_L_MT,
  RECTYPE_MSG,
  RECTYPE_TS_DATA_TYPE,
  RECTYPE_UMG,
  RECTYPE_OSP,
  RECTYPE_LOCAL_ROOT_SUBJECT,
  RECTYPE_OD,
  RECTYPE_TT,
  RECTYPE_OD_IDX,
  RECTYPE_G_DMT_INFO,
  RECTYPE_G_VMT,
  RECTYPE_G_DMG,
  RECTYPE_G_CACHEQ,
  RECTYPE_G_RULET,
  RECTYPE_DMT_MEMBER,
  RECTYPE_DMT_SUBJECT,
  RECTYPE_TT_RSB,
  RECTYPE_TAG,
  RECTYPE_TAG_NAME,
  RECTYPE_TAG_VALUE,
  RECTYPE_UTVT_IDX,
  RECTYPE_AG,
  RECTYPE_ATTR,
  RECTYPE_ATTR_NAME,
  RECTYPE_ATTR_UTVT_IDX,
  RECTYPE_ATTR_VALUE,
  RECTYPE_MG_TAG,
  RECTYPE_MG_TAG_MAPPING,
  __TSDB_RECORD_TYPES_LAST__
} tsdb_record_type_t;

typedef enum tsdb_lib_record_type_t {
  RECTYPE_LIB,    /* the headers of any array */
  RECTYPE_LIB_BB, /* the big-buffer pool */
  RECTYPE_LIB_BV, /* the bit-vector pool */
  RECTYPE_TOC,
  RECTYPE_TOT,
  __TSDB_LIB__RECORD_TYPESLAST__
} tsdb_lib_record_type_t;

#endif
