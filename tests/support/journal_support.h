// Shared by tests of the journal: numbered batches, and the content of a scanned journal.
#ifndef JOURNAL_SUPPORT_H
#define JOURNAL_SUPPORT_H

#include <string>
#include <vector>

#include "journal/io_faults.h"
#include "journal/journal.h"
#include "journal/journal_reader.h"
#include "metricdb_support.h"

namespace metricdb {

constexpr uint64_t GENERATION = 7;

class JournalTest : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    path_ = path("journal");
  }
  void TearDown() override {
    fail_at_io(0, 0);
    Folder::TearDown();
  }

  std::string path_;
};

// A record that owns its data.
struct RecordWithBytes {
  std::string name, bytes;
  redo_args_t record;

  redo_args_t get() const {
    redo_args_t whole = record;
    whole.ctx_name = name.data();
    whole.ctx_name_len = name.size();
    if (whole.data_ptr == nullptr) return whole;
    whole.data_ptr = bytes.data();
    whole.data_sz = static_cast<uint32_t>(bytes.size());
    return whole;
  }
};

inline std::string text_of_record(const redo_args_t &record) {
  const std::string_view bytes(static_cast<const char *>(record.data_ptr),
                               record.data_ptr != nullptr ? record.data_sz : 0);
  return fmt::format("{} {} \"{}\" {} {} {} {} {} {}", record.txn_id, static_cast<int>(record.rec_type),
                     std::string_view(record.ctx_name, record.ctx_name_len), record.tbl_id, record.data_off,
                     record.aux_idx, record.data_ptr != nullptr, record.data_sz, bytes);
}

inline RecordWithBytes small_record(uint64_t number) {
  return {"metricdb", fmt::format("record {}", number), {number, 5, nullptr, 0, 1, 84 + number, ~0u, "", 0}};
}

// Batch `number` has `number` records, and its payload contains the number.
inline std::string payload_of(uint64_t number) {
  return fmt::format("state {}", number);
}
inline uint64_t commit_batch(Journal &journal, uint64_t number) {
  for (uint64_t i = 0; i < number; ++i) journal.append(small_record(100 * number + i).get());
  return journal.commit(payload_of(number));
}

// The result of a scan.
struct JournalContent {
  ScanResult result;
  std::vector<std::string> records;  // of all batches
  std::vector<std::string> payloads;
  std::vector<uint64_t> ends;
};

inline JournalContent read_journal(const std::string &path) {
  JournalContent read;
  const JournalVisitor visitor = {
      [&read](const redo_args_t &record) { read.records.push_back(text_of_record(record)); },
      [&read](std::string_view payload, uint64_t position) {
        read.payloads.emplace_back(payload);
        read.ends.push_back(position);
      }};
  read.result = scan_journal(path, visitor);
  EXPECT_EQ(read.result.n_batches, read.payloads.size());
  EXPECT_EQ(read.result.n_records, read.records.size());
  EXPECT_EQ(read.result.place.position + read.result.bytes_cut, fs::file_size(path));
  EXPECT_EQ(read.result.fault.empty(), read.result.end == JournalEnd::clean);
  return read;
}

}  // namespace metricdb

#endif
