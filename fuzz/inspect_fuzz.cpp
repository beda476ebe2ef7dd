// Inspects any bytes as a stored array, as a stream and as block files, and renders the report in every form. An array
// that the inspector calls sound must load.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include <tslb/array_loader.h>
#include <tslb/tslb_dynarr.h>
#include "inspect/analysis.h"
#include "inspect/render.h"

static void need(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

// The input as one stream, or cut into block files of a length that the input selects.
class bytes_store_t final : public inspect::store_t {
 public:
  bytes_store_t(const uint8_t *data, size_t size, bool is_stream) : data_(data), is_stream_(is_stream) {
    const size_t cut = is_stream || size < 4 ? size : std::min<size_t>(size, 24 + data[size - 1]);
    const size_t step = is_stream || size < 4 ? size : 1 + data[size - 2] * size_t{2};
    files_.push_back({"0", 0, cut});
    begins_.push_back(0);
    for (size_t at = cut; at < size; at += step) {
      files_.push_back({"data", static_cast<uint32_t>(files_.size()), std::min(step, size - at)});
      begins_.push_back(at);
    }
    // Removes one of the blocks.
    if (files_.size() > 3 && (data[size - 3] & 1) != 0) {
      files_.erase(files_.begin() + 2);
      begins_.erase(begins_.begin() + 2);
    }
  }

  std::string name() const override { return "fuzz"; }
  bool is_stream() const override { return is_stream_; }
  const std::vector<inspect::stored_file_t> &files() const override { return files_; }
  std::string file_name(uint32_t block_num) const override { return std::to_string(block_num); }
  size_t read(const inspect::stored_file_t &file, uint64_t offset, void *to, size_t bytes) override {
    const size_t which = static_cast<size_t>(&file - files_.data());
    if (offset >= file.bytes) return 0;
    const size_t got = std::min<uint64_t>(bytes, file.bytes - offset);
    memcpy(to, data_ + begins_[which] + offset, got);
    return got;
  }

 private:
  const uint8_t *const data_;
  const bool is_stream_;
  std::vector<inspect::stored_file_t> files_;
  std::vector<size_t> begins_;
};

static void check_report(const inspect::report_t &report, const inspect::store_t &store) {
  for (const inspect::finding_t &finding : report.findings) {
    const inspect::stored_file_t *const file = store.file_of(static_cast<uint32_t>(std::stoul(finding.file)));
    need(finding.offset <= (file != nullptr ? file->bytes : 0), "a finding lies in its file or at its end");
  }
  need(report.findings.size() <= report.n_faults + report.n_remarks, "all findings are counted");
  need(!inspect::text_of(report).empty(), "a text");
}

// One form per input: rendering takes much longer than the analysis, and a page longest.
static void show(const inspect::report_t &report, inspect::slot_rows_t *rows, size_t choice) {
  const inspect::reports_t reports = {report};
  if (choice % 16 == 0) {
    std::string text;
    inspect::json_writer_t writer([&text](const std::string &piece) { text += piece; });
    writer.add(report, rows);
    writer.end();
    const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    need(!json.is_discarded() && json["arrays"][0]["sound"] == report.is_sound(), "JSON can be read back");
  } else if (choice % 16 == 1) {
    need(inspect::svg_of(reports).size() < 1 << 20, "a picture of bounded size");
  } else if (choice % 64 == 2) {
    need(inspect::html_of(reports).size() < 8 << 20, "a page of bounded size");
  }
}

// Fields that overlap, and of which most records have only some.
static std::optional<inspect::layout_t> layout_for(const inspect::report_t &report) {
  if (!report.geometry) return std::nullopt;
  return inspect::layout_t{"fuzz",
                           64,
                           {{"a", 0, *inspect::parse_type("u32:3-9")},
                            {"b", 2, *inspect::parse_type("char[60]")},
                            {"c", 56, *inspect::parse_type("f64")}}};
}

static void compare_with_loader(const inspect::report_t &report, const uint8_t *data, size_t size, uint8_t kind) {
  // An empty array can claim gigabytes for block 0, which the loader would allocate.
  if (!report.is_sound() || report.geometry->block0_bytes > 1 << 20 || report.geometry->data_block_bytes > 1 << 22)
    return;
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || lseek(fd, 0, SEEK_SET) != 0) abort();
  const array_load_options_t options = {
      nullptr, 7, MPOOL_TYPE_DRAM, kind, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
  char error[256];
  const DynamicArray_t array = array_load_stream(fd, &options, error, sizeof(error));
  close(fd);
  if (array == nullptr) fprintf(stderr, "refused: %s\n", error);
  need(array != nullptr, "a sound array can be loaded");
  need(tslb_da_get_size(array) == report.geometry->n_present, "all of its slots are loaded");
  destroy_dyn_arr(array);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const uint8_t choice = size > offsetof(DynHdr_t, rec_version) ? data[offsetof(DynHdr_t, rec_version)] : 0;
  static const uint8_t kinds[] = {ARRAY_LOAD_POOL_BY_SIZE, ARRAY_LOAD_POOL_BY_SIZE, ARRAY_LOAD_ANY, ARRAY_LOAD_POOL};
  const inspect::options_t options = {kinds[(choice >> 5) & 3], choice & 31u, size % 64 == 2};
  for (const bool is_stream : {true, false}) {
    bytes_store_t store(data, size, is_stream);
    inspect::analysis_result_t analysed = inspect::analyse(&store, options);
    if (choice % 2 == 0) analysed.report.layout = layout_for(analysed.report);
    const inspect::report_t &report = analysed.report;
    check_report(report, store);
    show(report, analysed.rows.get(), size);
    if (is_stream) compare_with_loader(report, data, size, options.kind);
  }
  return 0;
}
