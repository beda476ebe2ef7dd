// The version maps and their lookup.
#include "recovery_trace.h"
#include "tsdb_recovery_version_compatibility.h"
#include "tsdb_recovery_version_downgrade_fn.h"
#include "tslb_dynarr.h"

constexpr const char *COMPONENT = "TSDBRecovVerCompat";

// ---- Maps ----------------------------------------------------------------------------------------------------------

constexpr uint8_t PLAIN = 0;
constexpr uint8_t LL = TSLB_DA_DAFLAG_LL;
constexpr uint8_t INLL = TSLB_DA_DAFLAG_INLL;

// Routines to target versions 0 and 1. There are none to 2 and 3.
struct routines_t {
  void (*to_0)(void *);
  void (*to_1)(void *);
};
constexpr routines_t NO_ROUTINES = {nullptr, nullptr};

static constexpr TSDBVerMap_t row(uint8_t rec_type, uint8_t version, uint8_t daflag, routines_t routines) {
  return {rec_type,
          version,
          daflag,
          {{0, nullptr, routines.to_0}, {0, nullptr, routines.to_1}, {0, nullptr, nullptr}, {0, nullptr, nullptr}}};
}

const TSDBVerMap_t g_old_vermap[__TSDB_RECORD_TYPES_LAST__] = {
    row(RECTYPE_SUBJECT, 0, INLL, NO_ROUTINES),
    row(RECTYPE_TYPE, 1, INLL, {tsdb_recov_downgrade_rc_tysub_1_0, nullptr}),
    row(RECTYPE_G_MG, 2, PLAIN, {tsdb_recov_downgrade_g_mg_2_0, tsdb_recov_downgrade_g_mg_2_1}),
    row(RECTYPE_G_MT, 1, PLAIN, {tsdb_recov_downgrade_g_mt_1_0, nullptr}),
    row(RECTYPE_L_MG, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_L_MT, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_MSG, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_TS_DATA_TYPE, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_UMG, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_OSP, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_LOCAL_ROOT_SUBJECT, 1, INLL, {tsdb_recov_downgrade_rc_tysub_1_0, nullptr}),
    row(RECTYPE_OD, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_TT, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_OD_IDX, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_G_DMT_INFO, 1, PLAIN, {tsdb_recov_downgrade_derived_metric_t_1_0, nullptr}),
    row(RECTYPE_G_VMT, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_G_DMG, 2, PLAIN, {tsdb_recov_downgrade_g_mg_2_0, tsdb_recov_downgrade_g_mg_2_1}),
    row(RECTYPE_G_CACHEQ, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_G_RULET, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_DMT_MEMBER, 1, PLAIN, {tsdb_recov_downgrade_derived_var_value_t_1_0, nullptr}),
    row(RECTYPE_DMT_SUBJECT, 1, PLAIN, {tsdb_recov_downgrade_derived_subject_value_t_1_0, nullptr}),
    row(RECTYPE_TT_RSB, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_TAG, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_TAG_NAME, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_TAG_VALUE, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_UTVT_IDX, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_AG, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_ATTR, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_ATTR_NAME, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_ATTR_UTVT_IDX, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_ATTR_VALUE, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_MG_TAG, 0, PLAIN, NO_ROUTINES),
    row(RECTYPE_MG_TAG_MAPPING, 0, PLAIN, NO_ROUTINES),
};

// In the last two rows everything is zero, also the record type.
const TSDBVerMap_t g_old_lib_vermap[__TSDB_LIB__RECORD_TYPESLAST__] = {
    row(RECTYPE_LIB, 2, PLAIN, {nullptr, tsdb_recov_downgrade_rc_lib_2_1}),
    row(RECTYPE_LIB_BB, 1, LL, {tsdb_recov_downgrade_rc_lib_bb_1_0, nullptr}),
    row(RECTYPE_LIB_BV, 1, LL, {tsdb_recov_downgrade_rc_lib_bv_1_0, nullptr}),
    row(0, 0, PLAIN, NO_ROUTINES),
    row(0, 0, PLAIN, NO_ROUTINES),
};

// ---- Lookup --------------------------------------------------------------------------------------------------------

void *tsdb_recovery_version_get_downgrade_fn_ptr(uint16_t rec_type, uint8_t version, uint8_t is_lib_rc_type) {
  RECOVERY_TRACE(1, COMPONENT, __func__, "Method Called. is_lib_rc_type %d rec_type %d, version - %d", is_lib_rc_type,
                 rec_type, version);
  const bool is_lib = is_lib_rc_type != 0;
  const int n_rows = is_lib ? int{__TSDB_LIB__RECORD_TYPESLAST__} : int{__TSDB_RECORD_TYPES_LAST__};
  if (rec_type >= n_rows || version >= 4) return nullptr;
  const TSDBVerMap_t *const table = is_lib ? g_old_lib_vermap : g_old_vermap;
  return reinterpret_cast<void *>(table[rec_type].cb[version].downgrade_cb);
}

void *tsdb_print_old_version_tb(void) {
  for (uint16_t rec_type = 0; rec_type < __TSDB_RECORD_TYPES_LAST__; ++rec_type)
    RECOVERY_TRACE(1, COMPONENT, __func__, "Rec_type = %hu, rec_version_prev = %hhu", rec_type,
                   g_old_vermap[rec_type].version);
  return nullptr;
}
