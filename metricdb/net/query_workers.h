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
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/event.h"

namespace metricdb {

// The parameters of a request to /query.
struct QueryRequest {
  std::string text;
  std::string epoch;  // unit of times in the answer; empty: text
  bool is_pretty = false;
  bool is_chunked = false;
  size_t chunk_rows = 10'000;
  bool is_csv = false;
  bool is_partial = false;        // for a client that asks several servers
  std::optional<int64_t> now_ns;  // the value of now(); none: this server's
  std::string database;           // of statements that name none
  // As in InfluxqlRequest.
  std::string refusal_of_reads = {}, refusal_of_creations = {}, refusal_of_changes = {};
};

struct QueryAnswer {
  http_status status = HTTP_STATUS_OK;
  std::string content_type;
  std::string body;
  std::string error = {};  // in one line, for the header; empty: none
};

// Asked now and then by a query, on any of its threads: whether it should end. The query can throw then.
using IsInterrupted = std::function<bool()>;

// Called by several threads at once. An exception becomes an answer with status 500.
using QueryFunction = std::function<QueryAnswer(const QueryRequest &, const IsInterrupted &)>;

enum class QueryResult { answered, failed, interrupted, refused };

class QueryWorkers {
 public:
  using Clock = std::chrono::steady_clock;

  struct Done {
    uint64_t id;
    QueryAnswer answer;
    QueryResult result;
    Clock::duration duration;  // since it was submitted
  };
  struct Load {
    size_t n_waiting, n_running;
  };

  // Without a function no thread is started, and `submit` is not called.
  //
  // max_duration      after which a query is interrupted.
  // unread_bytes      bytes of answers in memory. Each answer is added; the caller subtracts it when it is sent.
  // max_unread_bytes  while there are more, a query whose turn comes is refused.
  QueryWorkers(QueryFunction function, unsigned n_threads, size_t max_waiting, std::chrono::milliseconds max_duration,
               std::atomic<size_t> &unread_bytes, size_t max_unread_bytes);
  ~QueryWorkers() { stop(); }
  QueryWorkers(const QueryWorkers &) = delete;
  QueryWorkers &operator=(const QueryWorkers &) = delete;

  // Interrupts the queries that have begun, and waits for their threads.
  void stop();

  // The server's thread. Returns false if too many queries wait.
  bool submit(uint64_t id, QueryRequest request);
  // The server's thread. A query that runs ends soon, a waiting one does not begin, and its answer says that it was
  // interrupted. Does nothing if it was answered.
  void interrupt(uint64_t id);
  Load load() const;
  // Readable when there are answers. Calling `take_answers` resets it.
  int event_fd() const { return event_.fd(); }
  std::vector<Done> take_answers();

 private:
  struct Query {
    Query(uint64_t number, QueryRequest asked) : id(number), request(std::move(asked)) {}

    const uint64_t id;
    const QueryRequest request;
    const Clock::time_point since = Clock::now();
    std::atomic<bool> is_interrupted = false;
  };
  using Queries = std::deque<std::shared_ptr<Query>>;

  static Queries::const_iterator find(const Queries &queries, uint64_t id);
  void run();
  std::shared_ptr<Query> next();
  Done answer(const Query &query) const;
  void add_done(Done done);

  const QueryFunction function_;
  const size_t max_waiting_;
  const std::chrono::milliseconds max_duration_;
  std::atomic<size_t> &unread_bytes_;
  const size_t max_unread_bytes_;
  Event event_;
  mutable std::mutex mutex_;  // guards the following members
  std::condition_variable work_;
  Queries waiting_, running_;
  std::vector<Done> done_;
  std::atomic<bool> is_ending_ = false;  // written with the mutex locked
  std::vector<std::thread> threads_;
};

}  // namespace metricdb
