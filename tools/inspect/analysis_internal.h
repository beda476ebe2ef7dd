// What the steps of an analysis share: the report as it grows, and where slots lie.
#ifndef TSLB_INSPECT_ANALYSIS_INTERNAL_H
#define TSLB_INSPECT_ANALYSIS_INTERNAL_H

#include <fmt/format.h>

#include <string>
#include <utility>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

#include "analysis.h"

namespace inspect {

constexpr uint64_t MAX_FINDINGS = 200;  // kept; all are counted

class analysis_t {
 public:
  analysis_t(store_t *store, const options_t &options) : store_(store), options_(options) {}

  report_t run();

 private:
  // In analysis.cpp: headers and sizes.
  bool read_headers();
  void check_start();
  void check_user_header();
  void check_list_flags();
  void measure();
  void measure_levels();
  void check_sizes();
  void check_stream_end();
  void check_files();
  void check_file_size(const stored_file_t &file, uint64_t wanted);
  uint64_t present_slots() const;
  void copy_record();

  // In audit.cpp: nodes and lists.
  void read_nodes();
  slot_t read_node(uint32_t idx);
  void audit_lists();
  void audit_list(const char *name, size_t head_offset, size_t tail_offset, size_t count_offset, bool is_free_list);
  void audit_member(const list_t &list, uint32_t idx, uint32_t before, bool is_free_list);
  void audit_strays();
  void count_status(uint32_t idx);

  // In pool.cpp.
  void audit_pool();
  bool pool_sizes_fit();
  void audit_cursor();
  pool_slot_t read_pool_slot(uint32_t idx);
  void audit_pool_slot(uint32_t idx, const pool_slot_t &slot);
  void sum_pool();

  void add(severity_t severity, location_t at, const std::string &text);
  template <class... Values>
  void fault(location_t at, fmt::format_string<Values...> format, Values &&...values) {
    add(severity_t::FAULT, at, fmt::format(format, std::forward<Values>(values)...));
  }
  template <class... Values>
  void remark(location_t at, fmt::format_string<Values...> format, Values &&...values) {
    add(severity_t::REMARK, at, fmt::format(format, std::forward<Values>(values)...));
  }

  // A value of the stored form that is known to be there.
  template <class Value>
  Value read_value(location_t at) {
    Value value = {};
    const stored_file_t *const file = store_->file_of(at.block_num);
    if (file != nullptr) store_->read(*file, at.offset, &value, sizeof(value));
    return value;
  }

  uint64_t lli_at() const { return sizeof(DynHdr_t) + hdr_.hdr_size; }
  uint64_t arr_hdr_at() const { return lli_at() + hdr_.lli_sz; }
  geometry_t &geometry() { return *report_.geometry; }
  const geometry_t &geometry() const { return *report_.geometry; }
  location_t slot_at(uint64_t idx) const;
  bool has_inactive_list() const { return (geometry().daflag & TSLB_DA_DAFLAG_INLL) != 0; }
  bool is_bitvector() const { return (pool_hdr_.flag & MPOOL_FLAG_BV) != 0; }
  bool is_ring_shaped() const { return is_bitvector() && geometry().n_used == TSLB_RING_SLOTS; }

  store_t *const store_;
  const options_t options_;
  report_t report_;
  DynHdr_t hdr_ = {};
  DynArrLLI_t lli_ = {};
  DynMemHdr_t pool_hdr_ = {};
  bool is_pool_ = false;
  bool has_lists_ = false;  // DynArrLLI_t is whole and names a list
  uint32_t n_alloc_ = 0;
  uint64_t cut_bytes_ = 0;  // of a last slot that ends with what its pool's cursor has reached
};

// ---- Headers as fields, in fields.cpp ------------------------------------------------------------------------------

// `bytes` holds as much of the header as is there, which begins at `offset`.
header_t start_fields(const std::string &bytes);
header_t pool_fields(uint64_t offset, const std::string &bytes);
header_t user_header(uint64_t offset, uint64_t size, const std::string &bytes);
header_t list_fields(uint64_t offset, const std::string &bytes);
header_t array_fields(uint64_t offset, const std::string &bytes);

}  // namespace inspect

#endif
