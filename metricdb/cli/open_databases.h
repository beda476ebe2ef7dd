// The open databases of a process, for statements of InfluxQL: one, or a set of several.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "query/influxql_databases.h"
#include "store/database_set.h"

namespace metricdb {

// The names of the only database: clients create some, and each stands for it. Threads: any.
class DatabaseNames {
 public:
  std::vector<std::string> all() const;
  void add(const std::string &name);  // throws influxql::ExecutionFailed

 private:
  mutable std::mutex mutex_;
  std::set<std::string> names_{"metricdb"};
};

// What the two kinds share: reading and changing through a DatabaseWriter.
class OpenDatabases : public InfluxqlDatabases {
 public:
  using IsInterrupted = std::function<bool()>;

  void read(const std::string &database, const Use &use) const override;
  void erase(const std::string &database, const Choose &choose, int64_t from_ns, int64_t to_ns) override;
  int64_t retention_ns(const std::string &database) const override;
  void set_retention(const std::string &database, int64_t retention_ns) override;

 protected:
  explicit OpenDatabases(IsInterrupted is_interrupted) : is_interrupted_(std::move(is_interrupted)) {}
  const IsInterrupted &is_interrupted() const { return is_interrupted_; }

  virtual std::shared_ptr<DatabaseWriter> find(const std::string &database) const = 0;
  // Waits until a change is durable. Returns why it is not.
  virtual std::string await(DatabaseWriter &writer, StoreChange &change) const;

 private:
  std::shared_ptr<DatabaseWriter> writer_of(const std::string &database) const;
  void finish(DatabaseWriter &writer, StoreChange &change) const;

  const IsInterrupted is_interrupted_;
};

class OnlyDatabase : public OpenDatabases {
 public:
  // is_own  the calling thread is that of the writer, and makes the changes.
  OnlyDatabase(std::shared_ptr<DatabaseWriter> writer, DatabaseNames &names, bool is_own, IsInterrupted is_interrupted)
      : OpenDatabases(std::move(is_interrupted)), writer_(std::move(writer)), names_(names), is_own_(is_own) {}

  std::vector<std::string> names() const override { return names_.all(); }
  bool has(const std::string &) const override { return true; }
  void create(const std::string &name, std::optional<int64_t> retention_ns) override;
  void drop(const std::string &name) override;

 protected:
  std::shared_ptr<DatabaseWriter> find(const std::string &) const override { return writer_; }
  std::string await(DatabaseWriter &writer, StoreChange &change) const override;

 private:
  const std::shared_ptr<DatabaseWriter> writer_;
  DatabaseNames &names_;
  const bool is_own_;
};

class SeveralDatabases : public OpenDatabases {
 public:
  SeveralDatabases(DatabaseSet &set, IsInterrupted is_interrupted)
      : OpenDatabases(std::move(is_interrupted)), set_(set) {}

  std::vector<std::string> names() const override { return set_.names(); }
  bool has(const std::string &database) const override { return set_.find(database) != nullptr; }
  void create(const std::string &name, std::optional<int64_t> retention_ns) override;
  void drop(const std::string &name) override;

 protected:
  std::shared_ptr<DatabaseWriter> find(const std::string &database) const override { return set_.find(database); }

 private:
  DatabaseSet &set_;
};

}  // namespace metricdb
