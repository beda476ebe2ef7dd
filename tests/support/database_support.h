// A small database in the folder of one test.
#ifndef DATABASE_SUPPORT_H
#define DATABASE_SUPPORT_H

#include <functional>
#include <optional>

#include "metricdb_support.h"
#include "store/database.h"
#include "store/store_internal.h"

namespace metricdb {

// Creates a database with a configuration, or opens it, for changes that `write` makes durable.
inline OpenDatabase open_to_change(const std::string &folder, const StoreConfig &config = {}) {
  return OpenDatabase(folder, {}, OpenDatabase::Use::load, config);
}

// Contains free slots, deleted chunks and inactive series.
class SmallDatabase : public Folder {
 protected:
  static StoreConfig config() {
    return {.key_slot_bytes = 64, .point_slot_bytes = 2400, .forgetting = {.retain_ns = 100, .idle_ns = 50}};
  }

  static void fill(Store &store) {
    for (int i = 0; i < 100; ++i) store.add("a f", {i, 1.0 * i});
    for (int i = 0; i < 30; ++i) store.add(fmt::format("gone,n={} f", i % 3), {i, 1.0});
    for (int i = 0; i < 400; ++i) store.add("b f", {100 + i / 16, 2.0 * i});
    store.add("c f", {180, 3.0});
    store.sweep();
    ASSERT_EQ(store.forgotten().series_aged, 3u);
    ASSERT_EQ(store.n_inactive(), 2u);
    ASSERT_GT(store.key_bytes().deleted + lists_of(store.keys())->n_free, 0u);
    ASSERT_GT(store.point_bytes().deleted, 0u);
  }

  std::string db() const { return path("db"); }

  // Returns the reason why the database cannot be opened, in one line; empty if it can. The folder must not change.
  std::string refusal() const {
    const auto before = tree_of(root_);
    const std::string what = refusal_of([this] { OpenDatabase opened(db()); });
    EXPECT_TRUE(tree_of(root_) == before) << "the folder was changed";
    EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    return what;
  }

  // Writes a new database with the small store, after `damage`.
  void keep_filled(const std::function<void(Store &)> &damage = [](Store &) {}) const {
    fs::remove_all(db());
    OpenDatabase database = open_to_change(db(), config());
    ASSERT_NO_FATAL_FAILURE(fill(database.store()));
    damage(database.store());
    database.write();
  }
};

}  // namespace metricdb

#endif
