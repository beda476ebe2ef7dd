// A connection with the HTTP interface of InfluxDB 1.x. Answers are sent in the order of the requests.
#pragma once

#include <string_view>
#include <unordered_map>

#include "net/connection.h"
#include "net/gzip.h"
#include "net/http.h"
#include "net/influx_api.h"

namespace metricdb {

class HttpConnection : public Connection {
 public:
  HttpConnection(int fd, Hub &hub, InfluxApi &api, Gunzip &gunzip)
      : Connection(fd, hub), api_(api), gunzip_(gunzip), reader_(hub.options.max_body_bytes) {}
  ~HttpConnection() override;

 protected:
  void consume() override;
  bool is_inside_request() const override { return reader_.is_inside_request(); }
  size_t room_wanted() const override { return reader_.room_wanted(input()); }
  void refuse_room() override;
  void refuse(PendingAnswer &answer, const std::string &reason) override;
  std::string text_of(uint64_t query, const QueryAnswer &answer) override;
  void on_hung_up() override;

 private:
  void answer_request();
  void write(const WriteRequest &write);
  void write_lines(const WriteRequest &request, std::string_view lines);
  void begin_query(const QueryRequest &query);
  void check_head();
  void begin_promotion();
  void begin_backup(const BackupRequest &backup);
  // Queues the answer of a query or a backup, which follows later.
  void wait_for_query(uint64_t id);
  void answer_expectation();
  void refuse_connection(const HttpAnswer &answer);
  void queue_answer(const HttpAnswer &answer, uint64_t ticket = 0, size_t bytes = 0, const std::string &database = {});

  InfluxApi &api_;
  Gunzip &gunzip_;
  HttpReader reader_;
  // How the answers of the queries that this connection waits for are sent.
  struct Form {
    http_method method;
    bool keep_alive, is_http_1_0;
  };
  std::unordered_map<uint64_t, Form> queries_;
  // Of the current request:
  bool is_head_checked_ = false;  // its sender may send a body
  bool is_continued_ = false;     // the body was requested
};

}  // namespace metricdb
