// What tests of a database's writer share: input in batches, and a store in memory that took the same.
#ifndef WRITER_SUPPORT_H
#define WRITER_SUPPORT_H

#include <string>

#include "database_writer.h"
#include "io_faults.h"
#include "metricdb_support.h"
#include "store_internal.h"

namespace metricdb {

// The points of each key, and behind them what its record says.
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

// Batch `number` of an endless input: keys that come, fall silent and return, one that stays,
// and points that come late.
inline std::string batch_text(int number) {
  std::mt19937 random(static_cast<uint32_t>(number) + 20261125u);
  std::string text;
  for (int i = 0; i < 60; ++i) {
    const int64_t ts_ns = 10'000 + number * 60 + i - (random() % 16 == 0 ? random() % 3000 : random() % 8);
    const int source = i % 4 == 0 ? 0 : 1 + number / 15 * 5 + static_cast<int>(random() % 9);
    text += fmt::format("m,n={} f={},g={} {}\n", source, random() % 100, random() * 0.25, ts_ns);
  }
  return text;
}

// A store in memory alone. Never beside a writer: its arrays would be logged as the writer's.
class Model {
 public:
  explicit Model(const StoreConfig &config = {}) : store_(config) {}
  void take(std::string_view text) { load(store_, text); }
  Store &store() { return store_; }

 private:
  Store store_;
};

class Writer : public Folder {
 protected:
  std::string db() const { return path("db"); }

  // A database of this kind, and nothing in it.
  void create(const StoreConfig &config) const {
    Database database(db(), Database::Use::create);
    NewGeneration(database).write_streams(Store(config));
  }

  // A batch, waited for. Why it was refused, or nothing.
  static std::string put(DatabaseWriter &writer, std::string_view text) {
    try {
      const Taken taken = writer.take(text, Precision::ns);
      EXPECT_EQ(taken.malformed, 0u) << taken.first_reason;
      return writer.wait(writer.commit());
    } catch (const IngestRefused &refused) {
      return refused.what();
    }
  }

  Opened reopened() const { return Database(db(), Database::Use::read).open(); }
};

}  // namespace metricdb

#endif
