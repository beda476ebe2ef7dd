#include "cli/open_databases.h"

#include <fmt/format.h>

#include <utility>

#include "codec/printable.h"
#include "query/influxql_table.h"
#include "query/store_source.h"
#include "store/erasure.h"

namespace metricdb {
namespace {

// Limits for the names of an only database.
constexpr size_t MAX_DATABASES = 64;
constexpr size_t MAX_DATABASE_BYTES = 128;

constexpr uint32_t WORK_OF_STEP = 200'000;  // of an erasure; the unit is about 10 ns

using influxql::ExecutionFailed;

}  // namespace

std::vector<std::string> DatabaseNames::all() const {
  const std::lock_guard lock(mutex_);
  return {names_.begin(), names_.end()};
}

void DatabaseNames::add(const std::string &name) {
  if (name.empty() || name.size() > MAX_DATABASE_BYTES)
    throw ExecutionFailed("the name of a database has 1 to 128 bytes");
  const std::lock_guard lock(mutex_);
  if (names_.size() < MAX_DATABASES) names_.insert(name);
}

// ---- Reading and changing ----

std::shared_ptr<DatabaseWriter> OpenDatabases::writer_of(const std::string &database) const {
  std::shared_ptr<DatabaseWriter> writer = find(database);
  if (!writer) throw ExecutionFailed(fmt::format("database not found: {}", printable(database)));
  return writer;
}

void OpenDatabases::read(const std::string &database, const Use &use) const {
  writer_of(database)->read([&](const Store &store) { use(StoreSource(store)); });
}

std::string OpenDatabases::await(DatabaseWriter &, StoreChange &change) const {
  return change.wait(is_interrupted_);
}

void OpenDatabases::finish(DatabaseWriter &writer, StoreChange &change) const {
  if (const std::string why = await(writer, change); !why.empty()) throw ExecutionFailed(why);
}

void OpenDatabases::erase(const std::string &database, const Choose &choose, int64_t from_ns, int64_t to_ns) {
  const std::shared_ptr<DatabaseWriter> writer = writer_of(database);
  std::shared_ptr<StoreChange> change;
  writer->read([&](const Store &store) {
    const StoreSource source(store);
    Erasure erasure;
    erasure.range = {from_ns, to_ns};
    for (const uint32_t series : choose(source)) erasure.series.push_back(source.live_series(series));
    if (erasure.series.empty()) return;
    change = writer->request(
        [erasure = std::move(erasure)](Store &changed) mutable { return changed.erase_some(erasure, WORK_OF_STEP); });
  });
  if (change) finish(*writer, *change);
}

int64_t OpenDatabases::retention_ns(const std::string &database) const {
  int64_t retention_ns = 0;
  writer_of(database)->read([&](const Store &store) { retention_ns = store.live()->retain_ns; });
  return retention_ns;
}

void OpenDatabases::set_retention(const std::string &database, int64_t retention_ns) {
  const std::shared_ptr<DatabaseWriter> writer = writer_of(database);
  const auto change = writer->request([retention_ns](Store &store) {
    Forgetting forgetting = store.config().forgetting;
    forgetting.retain_ns = retention_ns;
    store.set_forgetting(forgetting);
    return true;
  });
  finish(*writer, *change);
}

// ---- One database ----

std::string OnlyDatabase::await(DatabaseWriter &writer, StoreChange &change) const {
  if (!is_own_) return OpenDatabases::await(writer, change);
  for (bool has_more = true; has_more;) {
    has_more = writer.work();
    // What is refused fails the change, too.
    writer.wait(writer.commit());
  }
  writer.settled();
  return change.wait(is_interrupted());
}

// Any name stands for the database, so its retention must not change because of a name.
void OnlyDatabase::create(const std::string &name, std::optional<int64_t> retention_ns) {
  if (retention_ns && *retention_ns != OpenDatabases::retention_ns(name))
    throw ExecutionFailed("retention policy conflicts with an existing policy");
  names_.add(name);
}

void OnlyDatabase::drop(const std::string &) {
  throw ExecutionFailed("DROP DATABASE needs a server of several databases (serve --data)");
}

// ---- Several databases ----

void SeveralDatabases::create(const std::string &name, std::optional<int64_t> retention_ns) {
  if (has(name)) {
    if (retention_ns && *retention_ns != OpenDatabases::retention_ns(name))
      throw ExecutionFailed("retention policy conflicts with an existing policy");
    return;
  }
  try {
    set_.create(name, retention_ns);
  } catch (const DatabaseError &error) {
    throw ExecutionFailed(error.what());
  }
}

void SeveralDatabases::drop(const std::string &name) {
  try {
    set_.drop(name, is_interrupted());
  } catch (const DatabaseError &error) {
    throw ExecutionFailed(error.what());
  }
}

}  // namespace metricdb
