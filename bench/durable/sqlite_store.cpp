#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "contestant.h"

namespace {

// A prepared statement with the parameters ?1, an id, and ?2, a record.
class statement_t {
 public:
  statement_t(sqlite3 *db, const char *text);
  ~statement_t() { sqlite3_finalize(statement_); }
  statement_t(const statement_t &) = delete;
  statement_t &operator=(const statement_t &) = delete;

  void run() {
    step(SQLITE_DONE);
    sqlite3_reset(statement_);
  }
  void run(uint32_t id, const record_t &record) {
    sqlite3_bind_int64(statement_, 1, id);
    sqlite3_bind_blob(statement_, 2, &record, sizeof record, SQLITE_STATIC);
    run();
  }
  record_t find(uint32_t id) {
    sqlite3_bind_int64(statement_, 1, id);
    step(SQLITE_ROW);
    record_t record;
    if (sqlite3_column_bytes(statement_, 0) != sizeof record)
      throw std::runtime_error("sqlite: a record of another size");
    std::memcpy(&record, sqlite3_column_blob(statement_, 0), sizeof record);
    sqlite3_reset(statement_);
    return record;
  }

 private:
  void step(int expected) {
    if (sqlite3_step(statement_) == expected) return;
    const std::string text = sqlite3_errmsg(sqlite3_db_handle(statement_));
    sqlite3_reset(statement_);
    throw std::runtime_error("sqlite: " + text);
  }

  sqlite3_stmt *statement_ = nullptr;
};

statement_t::statement_t(sqlite3 *db, const char *text) {
  if (sqlite3_prepare_v2(db, text, -1, &statement_, nullptr) != SQLITE_OK)
    throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db));
}

struct close_t {
  void operator()(sqlite3 *db) const { sqlite3_close(db); }
};
using database_t = std::unique_ptr<sqlite3, close_t>;

database_t open_database(const std::string &folder) {
  sqlite3 *opened = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  const int rc = sqlite3_open_v2((folder + "/records.db").c_str(), &opened, flags, nullptr);
  database_t db(opened);
  if (rc != SQLITE_OK) throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(opened));
  constexpr const char *SETTINGS =
      "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -262144; PRAGMA mmap_size = "
      "1073741824;"
      "CREATE TABLE IF NOT EXISTS records (id INTEGER PRIMARY KEY, record BLOB NOT NULL)";
  if (sqlite3_exec(opened, SETTINGS, nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(opened));
  return db;
}

// One thread uses it at a time.
class connection_t {
 public:
  explicit connection_t(const std::string &folder) : db_(open_database(folder)) {}

  void append(uint32_t first_id, std::span<const record_t> records) {
    begin_write_.run();
    for (const record_t &record : records) insert_.run(first_id++, record);
    commit_.run();
  }
  void update(std::span<const update_t> batch) {
    begin_write_.run();
    for (const update_t &update : batch) update_.run(update.id, update.record);
    commit_.run();
  }
  uint64_t read(std::span<const uint32_t> ids) {
    uint64_t sum = 0;
    begin_read_.run();
    for (const uint32_t id : ids) sum += sum_of(select_.find(id));
    commit_.run();
    return sum;
  }
  record_t get(uint32_t id) { return select_.find(id); }
  void checkpoint() {
    if (sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) != SQLITE_OK)
      throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_.get()));
  }

 private:
  const database_t db_;
  statement_t begin_write_ = {db_.get(), "BEGIN IMMEDIATE"};
  statement_t begin_read_ = {db_.get(), "BEGIN"};
  statement_t commit_ = {db_.get(), "COMMIT"};
  statement_t insert_ = {db_.get(), "INSERT INTO records VALUES (?1, ?2)"};
  statement_t update_ = {db_.get(), "UPDATE records SET record = ?2 WHERE id = ?1"};
  statement_t select_ = {db_.get(), "SELECT record FROM records WHERE id = ?1"};
};

class sqlite_contestant_t : public contestant_t {
 public:
  explicit sqlite_contestant_t(const setup_t &setup) : folder_(setup.folder) {
    connections_[0] = std::make_unique<connection_t>(folder_);
  }

  void append(uint32_t first_id, std::span<const record_t> records) override {
    connections_[0]->append(first_id, records);
  }

  // One writer at a time may write. With the mutex the next one waits until it can, not for a time.
  void update(unsigned writer, std::span<const update_t> batch) override {
    const std::lock_guard lock(writer_);
    if (!connections_[writer]) connections_[writer] = std::make_unique<connection_t>(folder_);
    connections_[writer]->update(batch);
  }

  uint64_t read(std::span<const uint32_t> ids) override {
    uint64_t sum = 0;
    for (size_t at = 0; at < ids.size(); at += READS_OF_TRANSACTION)
      sum += connections_[0]->read(ids.subspan(at, std::min(READS_OF_TRANSACTION, ids.size() - at)));
    return sum;
  }

  record_t get(uint32_t id) override { return connections_[0]->get(id); }
  void flush() override { connections_[0]->checkpoint(); }

 private:
  const std::string folder_;
  std::mutex writer_;
  std::unique_ptr<connection_t> connections_[WRITERS_MAX];
};

}  // namespace

std::unique_ptr<contestant_t> open_sqlite(const setup_t &setup) {
  return std::make_unique<sqlite_contestant_t>(setup);
}
