// Shared by tests of a database's writer: batches of input, and a store in memory for comparison.
#ifndef WRITER_SUPPORT_H
#define WRITER_SUPPORT_H

#include <io_faults.h>

#include <numeric>

#include "metricdb_support.h"
#include "store/database_writer.h"
#include "store/store_internal.h"

namespace metricdb {

// The points of each key, followed by fields of its record.
inline Content records_of(const Store &store) {
  Content content = content_of(store);
  for (uint32_t series = 0; series < store.n_slots(); ++series) {
    if (!store.holds_series(series)) continue;
    const SeriesRecord record = store.record(series);
    content[std::string(store.key(series))] +=
        fmt::format("| {} {} {} {} {}", series, store.is_inactive(series), record.n_points(), record.written_at_ns(),
                    record.interval_ms());
  }
  return content;
}

// first, first + 1 and so on, below `end`.
inline std::vector<int> numbers_from(int first, int end) {
  std::vector<int> numbers(static_cast<size_t>(end - first));
  std::iota(numbers.begin(), numbers.end(), first);
  return numbers;
}

// Of a store in memory with these batches.
inline Content records_after(const std::vector<int> &numbers) {
  Store store;
  for (const int number : numbers) load(store, batch_text(number));
  return records_of(store);
}

class Writer : public Folder {
 protected:
  std::string db() const { return path("db"); }

  // Creates an empty database with this configuration.
  void create(const StoreConfig &config) const { OpenDatabase(db(), {}, OpenDatabase::Use::load, config).write(); }

  // Writes a batch and waits for it; `meanwhile` is stored before. Returns the reason of a refusal, or nothing.
  static std::string put(DatabaseWriter &writer, std::string_view text, std::string_view meanwhile = "") {
    try {
      const IngestResult taken = writer.take(text, Precision::ns);
      EXPECT_EQ(taken.malformed, 0u) << taken.first_reason;
      const uint64_t ticket = writer.commit();
      if (!meanwhile.empty()) refusal_of([&] { writer.take(meanwhile, Precision::ns); });
      return writer.wait(ticket);
    } catch (const IngestRefused &refused) {
      return refused.what();
    }
  }

  OpenDatabase reopened() const { return OpenDatabase(db()); }
};

}  // namespace metricdb

#endif
