// Threads that answer queries beside the thread of the server.
#pragma once

#include <http_parser.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/descriptor.h"

namespace metricdb {

// The parameters of a request to /query.
struct QueryRequest {
  std::string text;
  std::string epoch;  // unit of times in the answer; empty: text
  bool is_pretty = false;
  bool is_chunked = false;
  size_t chunk_rows = 10'000;
  bool is_csv = false;
  std::string database;  // of statements that name none
  bool is_read_only = false;
};

struct QueryAnswer {
  http_status status = HTTP_STATUS_OK;
  std::string content_type;
  std::string body;
};

// Asked now and then by a query: whether it should end. It can throw then.
using IsInterrupted = std::function<bool()>;

// Called by several threads at once. An exception becomes an answer with status 500.
using QueryFunction = std::function<QueryAnswer(const QueryRequest &, const IsInterrupted &)>;

class QueryWorkers {
 public:
  struct Done {
    uint64_t id;
    QueryAnswer answer;
  };

  // Without a function no thread is started, and `submit` is not called.
  //
  // max_duration  after which a query is interrupted.
  QueryWorkers(QueryFunction function, unsigned n_threads, size_t max_waiting, std::chrono::milliseconds max_duration);
  ~QueryWorkers() { stop(); }
  QueryWorkers(const QueryWorkers &) = delete;
  QueryWorkers &operator=(const QueryWorkers &) = delete;

  // Interrupts the queries that have begun, and waits for their threads.
  void stop();

  // The server's thread. Returns false if too many queries wait.
  bool submit(uint64_t id, QueryRequest request);
  // Readable when there are answers. Calling `take_answers` resets it.
  int event_fd() const { return event_.get(); }
  std::vector<Done> take_answers();

 private:
  struct Waiting {
    uint64_t id;
    QueryRequest request;
  };

  void run();
  QueryAnswer answer(const QueryRequest &request) const;

  const QueryFunction function_;
  const size_t max_waiting_;
  const std::chrono::milliseconds max_duration_;
  const Descriptor event_;
  std::mutex mutex_;  // guards the following members
  std::condition_variable work_;
  std::deque<Waiting> waiting_;
  std::vector<Done> done_;
  std::atomic<bool> is_ending_ = false;  // written with the mutex locked
  std::vector<std::thread> threads_;
};

}  // namespace metricdb
