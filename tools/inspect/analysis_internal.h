// State shared by the steps of an analysis: the report, and the positions of slots.
#ifndef TSLB_INSPECT_ANALYSIS_INTERNAL_H
#define TSLB_INSPECT_ANALYSIS_INTERNAL_H

#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

#include "analysis.h"
#include "array_rules.h"

namespace inspect {

constexpr uint64_t MAX_FINDINGS = 200;  // findings kept in the report; all are counted
constexpr size_t MAX_SAMPLES = 1000;
constexpr size_t MAX_SAMPLE_BYTES = 1 << 20;  // of all samples together

class analysis_t final : public slot_rows_t, private rule_sink_t, private slot_source_t {
 public:
  analysis_t(store_t *store, const options_t &options) : store_(store), options_(options), rules_(this) {}

  report_t run();

  uint64_t n_node_slots() const override { return report_.has_nodes ? n_present_ : 0; }
  uint64_t n_pool_slots() const override { return is_pool() ? n_present_ : 0; }
  bool is_stray(uint32_t idx) override { return rules_.is_stray(idx, status_of(idx)); }
  pool_slot_t pool_slot(uint32_t idx) override;

 private:
  // In analysis.cpp: headers and sizes.
  bool read_headers();
  void measure();
  void measure_levels();
  void check_stream_end();
  void check_files();
  void check_file_size(const stored_file_t &file, uint64_t wanted);
  uint64_t present_slots() const;
  std::string slot_bytes(location_t at);
  void copy_record();
  void copy_samples();

  // In audit.cpp: nodes and lists.
  void read_nodes();
  void read_node(uint32_t idx);
  void count_status(uint32_t status);
  uint32_t status_of(uint32_t idx);
  void count_cells();
  void add_list(const char *name, int list);

  // In pool.cpp.
  void sum_pool();
  void add_to_sums(uint32_t idx, const pool_slot_t &slot);

  // The rules' view of the array.
  bool violated(tslb_rule_t rule, uint64_t pos, const uint64_t *values) override;
  void no_memory(uint32_t n_slots) override;
  nodes_t nodes_of(uint32_t idx) override;
  counters_t counters_of(uint32_t idx) override;

  // Counts a finding. Returns whether there is room to keep it.
  bool count(severity_t severity);
  void keep(severity_t severity, location_t at, const std::string &text);
  template <class... Values>
  void fault(location_t at, fmt::format_string<Values...> format, Values &&...values) {
    if (count(severity_t::FAULT)) keep(severity_t::FAULT, at, fmt::format(format, std::forward<Values>(values)...));
  }
  template <class... Values>
  void remark(location_t at, fmt::format_string<Values...> format, Values &&...values) {
    if (count(severity_t::REMARK)) keep(severity_t::REMARK, at, fmt::format(format, std::forward<Values>(values)...));
  }

  // Reads a value whose bytes are known to be in the file.
  template <class Value>
  Value read_value(location_t at) {
    Value value = {};
    const stored_file_t *const file = store_->file_of(at.block_num);
    if (file != nullptr) store_->read(*file, at.offset, &value, sizeof(value));
    return value;
  }

  geometry_t &geometry() { return *report_.geometry; }
  const geometry_t &geometry() const { return *report_.geometry; }
  bool is_pool() const { return report_.geometry && rules_.is_pool(); }
  // File and offset of a position in the flat image.
  location_t location_of(uint64_t pos) const;
  location_t slot_at(uint64_t idx) const { return location_of(rules_.slot_at(idx)); }

  // Each status is kept in one byte: 0 to 3, or one of these. A status of KIND_OTHER is read again from the store.
  enum : uint8_t { KIND_NOT_READY = 4, KIND_OTHER = 5 };

  store_t *const store_;
  const options_t options_;
  array_rules_t rules_;
  report_t report_;
  uint64_t n_present_ = 0;
  uint64_t cut_bytes_ = 0;  // bytes of a last slot that is cut at the pool's cursor, else 0
  // Nodes by slot, kept in memory because a walk along a list visits slots in any order.
  std::vector<uint8_t> kinds_;
  std::vector<uint32_t> next_, prev_;
};

// ---- Headers as fields, in fields.cpp ------------------------------------------------------------------------------

// `offset` is the position of the header. `bytes` has the header, or its beginning if the file ends within it.
header_t start_fields(const std::string &bytes);
header_t pool_fields(uint64_t offset, const std::string &bytes);
header_t user_header(uint64_t offset, uint64_t size, const std::string &bytes);
header_t list_fields(uint64_t offset, const std::string &bytes);
header_t array_fields(uint64_t offset, const std::string &bytes);

}  // namespace inspect

#endif
