// A small database in the folder of one test.
#ifndef DATABASE_SUPPORT_H
#define DATABASE_SUPPORT_H

#include <functional>
#include <optional>

#include "metricdb_support.h"
#include "store/database.h"
#include "store/store_internal.h"

namespace metricdb {

inline GenerationInfo keep(Database &database, const Store &store) {
  return NewGeneration(database).write_streams(store);
}

constexpr StoreKind STORE_KINDS[] = {StoreKind::snapshot, StoreKind::shm};
inline std::string name_of_kind(const testing::TestParamInfo<StoreKind> &kind) {
  return STORE_NAMES[static_cast<int>(kind.param)];
}

// Contains free slots, deleted chunks and inactive series.
class SmallDatabase : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    database_.emplace(path("db"), Database::Use::create);
  }

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

  fs::path generation() const { return root_ / "db" / "generation.1"; }

  // Returns the reason why the database cannot be opened, in one line; empty if it can. The folder must not change.
  std::string refusal() const {
    const auto before = tree_of(root_);
    const std::string what = refusal_of([this] { database_->open(); });
    EXPECT_TRUE(tree_of(root_) == before) << "the folder was changed";
    EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    return what;
  }

  void keep_filled(
      StoreKind kind, const std::function<void(Store &)> &damage = [](Store &) {}) {
    std::optional<NewGeneration> blocks;
    StoreConfig with_memory = config();
    if (kind == StoreKind::shm) {
      blocks.emplace(*database_).set_block_file_path();
      with_memory.mem_type = MPOOL_TYPE_SHM;
    }
    Store store(with_memory);
    ASSERT_NO_FATAL_FAILURE(fill(store));
    damage(store);
    if (blocks)
      blocks->seal_block_files(store);
    else
      keep(*database_, store);
  }

  std::optional<Database> database_;
};

}  // namespace metricdb

#endif
