// Tests of the conversion routines: where they end, maximum string lengths, trace lines, and the version maps.
// convert_test checks every byte of the records. This program defines its own trace log and recovery copy.
#include <stdarg.h>
#include <sys/mman.h>
#include <unistd.h>

#include <tslb/tsdb_multi_thread_trace_log.h>
#include <tslb/tsdb_recovery_schema.h>
#include <tslb/tsdb_recovery_version_downgrade_fn.h>
#include "array_support.h"
#include "stored_image.h"

struct trace_t {
  int level;
  std::string component, function, text;
};
static std::vector<trace_t> traced;
static int hook_mistakes;  // number of calls with a wrong value in an argument that never changes

MTTraceLogKey *trace_log_key = nullptr;
uint8_t g_tstl_module_debug_arr[TSTL_NUM_MODULES][4];
const char *g_tstl_module_names[TSTL_NUM_MODULES];

int tslb_mt_trace_log(void *log_key, const char *module_name, int32_t level, int64_t request_id, const char *component,
                      const char *severity, const char *file_name, int32_t line, const char *function,
                      const char *format, ...) {
  hook_mistakes += log_key != trace_log_key || std::string(module_name) != "the recovery" || request_id != -1 ||
                   std::string(severity) != "Info" || std::string(file_name) != "tsdb_recovery_version_downgrade_fn" ||
                   line <= 0;
  char text[8192];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof(text), format, values);
  va_end(values);
  traced.push_back({level, component, function, text});
  return -1;
}

static void *copy_called_with;
void tsdb_recov_version_copy_rc(void *cbargs) {
  copy_called_with = cbargs;
}

// Switches the module's two trace levels on for its lifetime.
struct trace_scope_t {
  trace_scope_t(bool on, bool level1, bool level2) {
    traced.clear();
    hook_mistakes = 0;
    trace_log_key = on ? reinterpret_cast<MTTraceLogKey *>(&traced) : nullptr;
    g_tstl_module_names[tstl_module_recovery] = "the recovery";
    // Every other switch has the opposite value, so that a wrong row or column is detected.
    memset(g_tstl_module_debug_arr, 1, sizeof(g_tstl_module_debug_arr));
    g_tstl_module_debug_arr[tstl_module_recovery][0] = level1;
    g_tstl_module_debug_arr[tstl_module_recovery][1] = level2;
  }
  ~trace_scope_t() {
    trace_log_key = nullptr;
    EXPECT_EQ(hook_mistakes, 0);
  }
};

static array_t array_of(int record_size, int n_direct, uint8_t daflag, uint8_t rec_version = 9) {
  return array_t(tslb_da_init_ver(record_size, n_direct, MPOOL_TYPE_DRAM, nullptr, 0, daflag, rec_version));
}

TEST(RecordDowngrade, EndsWithItsSourceOrDestination) {
  const array_t source = array_of(44, 3, 0);
  for (int i = 0; i < 5; ++i) tslb_da_get_newidx(source.get());
  TSDBVerCBArgs_t args = {RECTYPE_G_MG, source.get(), nullptr};
  const array_t none = array_of(36, 0, 0);
  args.h_mpool_cur = none.get();
  {
    const trace_scope_t tracing(true, true, true);
    tsdb_recov_downgrade_g_mg_2_0(&args);
    ASSERT_EQ(traced.size(), 1u) << "a call without records is not traced";
    EXPECT_EQ(traced[0].function, "tsdb_recov_downgrade_g_mg_2_0");
  }
  EXPECT_EQ(tslb_da_get_size(none.get()), 0u);
  EXPECT_EQ(static_cast<DynHdr_t *>(none->arr_base)->rec_version, 0) << "the version is not set without records";

  // A destination without a source becomes an empty array of the older version.
  const array_t alone = array_of(36, 9, 0);
  TSDBVerCBArgs_t sourceless = {RECTYPE_G_MG, nullptr, alone.get()};
  tsdb_recov_downgrade_g_mg_2_1(&sourceless);
  EXPECT_EQ(tslb_da_get_size(alone.get()), 0u);
  EXPECT_EQ(static_cast<DynHdr_t *>(alone->arr_base)->rec_version, 1);

  const array_t larger = array_of(36, 9, 0);
  args.h_mpool_cur = larger.get();
  const std::string before = stream_of(source.get());
  tsdb_recov_downgrade_g_mg_2_0(&args);
  EXPECT_EQ(tslb_da_get_size(larger.get()), 5u);
  EXPECT_EQ(stream_of(source.get()), before) << "the source was changed";

  const array_t full = array_of(36, 9, 0);
  get_dyn_hdr(full.get())->n_alloc = 0xFFFFFFFF;
  args.h_mpool_cur = full.get();
  stderr_of([&] { tsdb_recov_downgrade_g_mg_2_0(&args); });
  EXPECT_EQ(tslb_da_get_size(full.get()), 1u) << "allocation was tried again after a refusal";
}

TEST(RecordDowngrade, StringsOfMaximumLength) {
  static const struct {
    const char *fault;
    size_t tag, value;  // characters; a string of the field's size has no terminator
    size_t tag_kept, value_kept;
  } rows[] = {
      {"empty value", 0, 0, 0, 0},
      {"stored length used, or longest tag cut", 63, 254, 63, 254},
      {"255 characters cut", 1, 255, 1, 255},
      {"256 characters become an empty string", 1, 256, 1, 255},
      {"read on past fields without a terminator", 64, 4096, 63, 255},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t source = array_of(sizeof(subject_value_t_v1), 1, TSLB_DA_DAFLAG_LL);
    const array_t destination = array_of(sizeof(subject_value_t_v0), 1, TSLB_DA_DAFLAG_LL);
    uint32_t idx;
    char *const newer = bytes_of(tslb_da_get_newptr(source.get(), &idx));
    memset(newer, 0, sizeof(subject_value_t_v1));
    newer[0] = 99;  // a length that disagrees with its string
    write_at(newer, 66, uint16_t{999});
    for (size_t i = 0; i < row.tag; ++i) newer[1 + i] = static_cast<char>('a' + i % 26);
    for (size_t i = 0; i < row.value; ++i) newer[68 + i] = static_cast<char>('A' + i % 23);
    newer[4164] = 5;
    for (size_t i = 0; i < 64; ++i) newer[4168 + i] = static_cast<char>(200 + i);
    TSDBVerCBArgs_t args = {RECTYPE_DMT_SUBJECT, source.get(), destination.get()};
    tsdb_recov_downgrade_derived_subject_value_t_1_0(&args);
    std::string want(392, '\0');
    want[0] = static_cast<char>(row.tag_kept);
    want.replace(1, row.tag_kept, newer + 1, row.tag_kept);
    want[65] = static_cast<char>(row.value_kept);
    want.replace(66, row.value_kept, newer + 68, row.value_kept);
    want[322] = 5;
    want.replace(328, 64, newer + 4168, 64);
    EXPECT_EQ(std::string(bytes_of(tslb_da_get_ptr(destination.get(), 0)), 392), want);
  }
}

TEST(LibraryDowngrade, HeadersAndPoolHeader) {
  static const struct {
    const char *fault;
    int prev_hdr, cur_hdr;
    size_t copied;
    const char *mismatch;
  } rows[] = {
      {"header of another size copied", 56, 0, 0, ", mismatched, prev_sz = 56, cur_sz = 0"},
      {"nothing to copy is a mismatch", 0, 56, 0, nullptr},
      {"pool header not copied", 56, 56, 56, nullptr},
      {"copied past a short header", 8, 8, 8, nullptr},
      {"more than a pool header copied", 100, 100, 56, nullptr},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t source(get_default_dyn_array_ex_ex(row.prev_hdr, 8, 1, MPOOL_TYPE_DRAM, 0, nullptr, 1, 2));
    const array_t destination(get_default_dyn_array_ex_ex(row.cur_hdr, 8, 1, MPOOL_TYPE_DRAM, 0, nullptr, 1, 7));
    memset(bytes_of(source->arr_base) + 8, 'S', static_cast<size_t>(row.prev_hdr));
    memset(bytes_of(destination->arr_base) + 8, 'D', static_cast<size_t>(row.cur_hdr));
    const std::string lists_and_counts(bytes_of(destination->arr_base) + 8 + row.cur_hdr, 60 + 16 + 16);
    TSDBVerCBArgs_t args = {RECTYPE_LIB_BV, source.get(), destination.get()};
    const trace_scope_t tracing(true, false, true);
    tsdb_recov_downgrade_rc_lib_2_1(&args);
    const DynHdr_t *const hdr = static_cast<const DynHdr_t *>(destination->arr_base);
    EXPECT_EQ(hdr->lib_version, 1);
    EXPECT_EQ(hdr->rec_version, 2);
    EXPECT_EQ(std::string(bytes_of(destination->arr_base) + 8, static_cast<size_t>(row.cur_hdr)),
              std::string(row.copied, 'S') + std::string(static_cast<size_t>(row.cur_hdr) - row.copied, 'D'));
    EXPECT_EQ(std::string(bytes_of(destination->arr_base) + 8 + row.cur_hdr, 60 + 16 + 16), lists_and_counts);
    EXPECT_EQ(destination->daflag, 0) << "it is no plain array from here on";
    EXPECT_EQ(list_roots(destination.get()).lltype, 1) << "stored flags changed";
    destination->daflag = 1;

    char called[200];
    snprintf(called, sizeof(called), "Method called, rec_type = 2, args.h_mpool_prev = %p, args.h_mpool_cur = %p",
             args.h_mpool_prev, args.h_mpool_cur);
    ASSERT_EQ(traced.size(), row.mismatch != nullptr ? 2u : 1u);
    EXPECT_EQ(traced[0].text, called);
    if (row.mismatch != nullptr) {
      EXPECT_EQ(traced[1].text, std::string("DynMemHdr size for rec_type = 2") + row.mismatch);
    }
    for (const trace_t &line : traced) {
      EXPECT_EQ(line.level, 2);
      EXPECT_EQ(line.component, "TSDBRecovery");
      EXPECT_EQ(line.function, "tsdb_recov_downgrade_rc_lib_2_1");
    }
    for (const bool on : {false, true}) {
      const trace_scope_t without_its_switch(on, true, !on);
      tsdb_recov_downgrade_rc_lib_2_1(&args);
      EXPECT_TRUE(traced.empty()) << on;
    }
  }
}

TEST(LibraryDowngrade, PoolsUseTheHostsCopy) {
  TSDBVerCBArgs_t args = {};
  for (const auto routine : {tsdb_recov_downgrade_rc_lib_bb_1_0, tsdb_recov_downgrade_rc_lib_bv_1_0}) {
    copy_called_with = nullptr;
    routine(&args);
    EXPECT_EQ(copy_called_with, &args);
  }
}

TEST(Trace, LinesDependOnTheirSwitches) {
  const array_t subjects = array_of(sizeof(subject_value_t_v1), 2, 0);
  for (int i = 0; i < 2; ++i) {
    uint32_t idx;
    char *const record = bytes_of(tslb_da_get_newptr(subjects.get(), &idx));
    memset(record, 0, sizeof(subject_value_t_v1));
    memcpy(record + 1, "tier", 4);
    memcpy(record + 68, i == 0 ? "web" : "db", 3);
    record[4164] = static_cast<char>(i + 4);
  }
  for (const unsigned switches : {0, 1, 2, 3, 4, 5, 6, 7}) {
    SCOPED_TRACE(switches);
    const bool on = (switches & 1) != 0, level1 = (switches & 2) != 0, level2 = (switches & 4) != 0;
    const array_t older = array_of(sizeof(subject_value_t_v0), 2, 0);
    const trace_scope_t tracing(on, level1, level2);
    TSDBVerCBArgs_t args = {1, subjects.get(), older.get()};
    tsdb_recov_downgrade_derived_subject_value_t_1_0(&args);
    char frame[200];
    snprintf(frame, sizeof(frame), "Method called, h_mpool_newver = %p, h_mpool_oldver = %p, n_alloc = 2",
             args.h_mpool_cur, args.h_mpool_prev);
    std::vector<std::string> want, got;
    if (on && level1) want.push_back(frame);
    if (on && level2) want.insert(want.end(), {"Subjet:- tier:web, mode:- 4", "Subjet:- tier:db, mode:- 5"});
    for (const trace_t &trace : traced) {
      got.push_back(trace.text);
      EXPECT_EQ(trace.component, "TSDBRecovery");
      EXPECT_EQ(trace.level, trace.text[0] == 'S' ? 2 : 1);
      EXPECT_EQ(trace.function, "tsdb_recov_downgrade_derived_subject_value_t_1_0");
    }
    EXPECT_EQ(got, want);
  }
}

// The convert_test program checks the available conversions, their flags and their versions through the tool.
TEST(Maps, RowsHaveTheirOwnNumbersAndNoUpgrades) {
  const auto expect_row = [](const TSDBVerMap_t &row, int rec_type, uint8_t is_lib) {
    SCOPED_TRACE(testing::Message() << rec_type << (is_lib != 0 ? ", the library's" : ""));
    EXPECT_EQ(row.rec_type, rec_type);
    for (uint8_t version = 0; version < 4; ++version) {
      EXPECT_EQ(row.cb[version].depricate, 0);
      EXPECT_EQ(row.cb[version].upgrade_cb, nullptr);
      EXPECT_EQ(tsdb_recovery_version_get_downgrade_fn_ptr(static_cast<uint16_t>(rec_type), version, is_lib),
                reinterpret_cast<void *>(row.cb[version].downgrade_cb));
    }
  };
  for (int row = 0; row < 33; ++row) expect_row(g_old_vermap[row], row, 0);
  for (int row = 0; row < 3; ++row) expect_row(g_old_lib_vermap[row], row, 2);
}

// Fills the upgrade cells of a map, which are null in every row. A lookup after the last version of a row would read
// such a cell of the next row.
class filled_map_t {
 public:
  filled_map_t(const TSDBVerMap_t *rows, size_t count) : rows_(const_cast<TSDBVerMap_t *>(rows)), count_(count) {
    fill(&tsdb_recov_downgrade_g_mg_2_0);
  }
  ~filled_map_t() { fill(nullptr); }
  filled_map_t(const filled_map_t &) = delete;

 private:
  void fill(void (*routine)(void *)) {
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = reinterpret_cast<uintptr_t>(rows_) / page * page;
    const size_t bytes = reinterpret_cast<uintptr_t>(rows_ + count_) - begin;
    ASSERT_EQ(mprotect(reinterpret_cast<void *>(begin), bytes, PROT_READ | PROT_WRITE), 0);
    for (size_t row = 0; row < count_; ++row) {
      for (TSDBVerCB_t &cell : rows_[row].cb) cell.upgrade_cb = routine;
    }
  }
  TSDBVerMap_t *rows_;
  size_t count_;
};

TEST(Maps, ValuesOutsideTheMapsGiveNull) {
  const filled_map_t records(g_old_vermap, 33), library(g_old_lib_vermap, 5);
  static const struct {
    uint16_t rec_type;
    uint8_t version, is_lib;
  } rows[] = {{33, 0, 0}, {65535, 0, 0}, {1, 4, 0}, {1, 255, 0}, {5, 0, 1}, {20, 0, 1}, {0, 4, 1}};
  for (const auto &row : rows)
    EXPECT_EQ(tsdb_recovery_version_get_downgrade_fn_ptr(row.rec_type, row.version, row.is_lib), nullptr);
}

TEST(Maps, LookupAndPrintAreTraced) {
  for (const bool level1 : {false, true}) {
    {
      const trace_scope_t none(false, level1, level1);
      tsdb_recovery_version_get_downgrade_fn_ptr(RECTYPE_G_MG, 1, 2);
      tsdb_print_old_version_tb();
      EXPECT_TRUE(traced.empty()) << "traced although the log is off";
    }
    const trace_scope_t tracing(true, level1, !level1);
    tsdb_recovery_version_get_downgrade_fn_ptr(RECTYPE_G_MG, 1, 2);
    EXPECT_EQ(tsdb_print_old_version_tb(), nullptr);
    ASSERT_EQ(traced.size(), level1 ? 34u : 0u);
    if (!level1) continue;
    EXPECT_EQ(traced[0].text, "Method Called. is_lib_rc_type 2 rec_type 2, version - 1");
    EXPECT_EQ(traced[0].function, "tsdb_recovery_version_get_downgrade_fn_ptr");
    EXPECT_EQ(traced[3].text, "Rec_type = 2, rec_version_prev = 2");
    EXPECT_EQ(traced[33].text, "Rec_type = 32, rec_version_prev = 0");
    for (const trace_t &line : traced) {
      EXPECT_EQ(line.component, "TSDBRecovVerCompat");
      EXPECT_EQ(line.level, 1);
    }
    EXPECT_EQ(traced[33].function, "tsdb_print_old_version_tb");
  }
}
