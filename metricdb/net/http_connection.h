// A connection that speaks the HTTP interface of InfluxDB 1.x: requests in, an answer for each, in their order.
#pragma once

#include <string_view>

#include "net/connection.h"
#include "net/gzip.h"
#include "net/http.h"
#include "net/influx_api.h"

namespace metricdb {

class HttpConnection : public Connection {
 public:
  HttpConnection(int fd, Hub &hub, InfluxApi &api, Gunzip &gunzip)
      : Connection(fd, hub), api_(api), gunzip_(gunzip), reader_(hub.options.max_body_bytes) {}

 protected:
  void consume() override;
  bool is_inside_request() const override { return reader_.is_inside_request(); }
  size_t room_wanted() const override { return reader_.room_wanted(input()); }
  void refuse_room() override;
  void refuse(Owed &owed, const std::string &reason) override;

 private:
  void answer_request();
  void write(const WriteRequest &write);
  void write_lines(std::string_view lines, Precision precision);
  void answer_expectation();
  void refuse_the_rest(const HttpAnswer &answer);
  void owe_answer(const HttpAnswer &answer, uint64_t ticket = 0, size_t bytes = 0);

  InfluxApi &api_;
  Gunzip &gunzip_;
  HttpReader reader_;
  bool is_continued_ = false;  // this request's body was asked for
};

}  // namespace metricdb
