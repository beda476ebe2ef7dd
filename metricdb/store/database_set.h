// Several databases in the subfolders of one folder, as one Ingest.
//
// The name of a database is that of its folder: 1 to 128 letters, digits, - _ and . (not first). Each has a durable store
// of its own, and so a journal, batches and a retention. A ticket of the set stands for the batches that were committed
// together; it is settled when all of them are. A database that cannot be written loses only its own lines.
//
// A database is created in a folder with another name, and is renamed before it is removed, so a crash leaves all of a
// database or nothing of it.
//
// Threads: one for the functions of Ingest and `close`; any for the others.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/database_writer.h"

namespace metricdb {

class DatabaseSet final : public Ingest {
 public:
  // Opens all databases of the folder, and creates the folder if it is missing. Throws DatabaseError.
  //
  // options  of all. The retention in them is that of new databases only.
  DatabaseSet(const std::string &folder, const WriterOptions &options);
  ~DatabaseSet() override;
  DatabaseSet(const DatabaseSet &) = delete;
  DatabaseSet &operator=(const DatabaseSet &) = delete;

  // Throws IngestRefused: a set does not know for which database.
  IngestResult take(std::string_view text, Precision precision) override;
  IngestResult take_for(const std::string &database, std::string_view text, Precision precision) override;
  bool has(const std::string &database) override { return find(database) != nullptr; }
  uint64_t commit() override;
  uint64_t settled() override;
  std::string failure(uint64_t ticket) override;
  Lost lost(uint64_t ticket) override;
  bool work() override;
  IngestFigures figures() override { return {}; }
  std::vector<std::pair<std::string, IngestFigures>> figures_of_all() override;
  std::string why_not_writable() override;
  int settled_fd() const override { return events_; }

  // Commits, waits, and closes all databases. Returns why a last batch was refused; empty if none was.
  std::string close();

  // Sorted.
  std::vector<std::string> names() const;
  // Null if there is none. Others may use it as `read` and `request` of DatabaseWriter allow.
  std::shared_ptr<DatabaseWriter> find(const std::string &name) const;

  // Does nothing if the database exists. Throws DatabaseError.
  void create(const std::string &name, std::optional<int64_t> retain_ns);

  // Removes a database and its folder, after its readers. Lines that are not durable are lost. Does nothing if it does not
  // exist. Waits for `work`, which another thread calls. Throws DatabaseError, also if is_interrupted returns true: then the
  // database is as before, and the changes that were requested meanwhile are made.
  void drop(const std::string &name, const std::function<bool()> &is_interrupted);

  // What was remarkable when the databases were opened, one line; empty if nothing was.
  const std::string &warnings() const { return warnings_; }

 private:
  struct Member {
    std::string name;
    std::shared_ptr<DatabaseWriter> writer;
    uint64_t last_ticket = 0;  // of the writer, when it was committed; the thread of the Ingest
    bool is_released = false;  // by that thread; with the mutex locked
  };
  using Members = std::vector<std::shared_ptr<Member>>;
  struct Part {
    std::shared_ptr<Member> member;
    uint64_t ticket;
  };
  struct Batch {
    uint64_t ticket;
    std::vector<Part> parts;
  };

  std::string path_of(const std::string &name) const { return folder_ + "/" + name; }
  void lock_folder();
  void open_all();
  void add(const std::string &name, const WriterOptions &options);
  void remove_folder(const std::string &name) const;
  Members members() const;
  bool is_in_use(const Member &member) const;
  void release_dropped();
  void wake() const;

  const std::string folder_;
  const WriterOptions options_;
  std::string warnings_;
  int lock_ = -1;
  int wake_ = -1;    // an eventfd
  int events_ = -1;  // an epoll descriptor, readable when wake_ or the settled_fd of a database is

  std::mutex changing_;  // held to create or drop
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Member>> members_;  // with the mutex locked, like dropped_
  Members dropped_;                                         // until they are released
  std::condition_variable released_;

  // The thread of the Ingest.
  std::deque<Batch> batches_;  // not settled
  uint64_t last_ticket_ = 0;
  std::map<uint64_t, Lost> lost_;  // settled tickets
};

}  // namespace metricdb
