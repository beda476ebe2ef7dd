// A connection that receives lines of Graphite's plaintext protocol and sends nothing.
#pragma once

#include <string>

#include "codec/graphite.h"
#include "net/connection.h"

namespace metricdb {

class GraphiteConnection : public Connection {
 public:
  // The converter is shared by the connections, because it keeps no state between calls.
  GraphiteConnection(int fd, Hub &hub, GraphiteConverter &converter) : Connection(fd, hub), converter_(converter) {}
  ~GraphiteConnection() override;

 protected:
  void consume() override;
  bool is_inside_request() const override { return !input().empty(); }
  size_t room_wanted() const override { return BlockPool::MIN_BYTES / 2; }
  void refuse_room() override { close_with_error("no memory to receive more"); }
  void refuse(PendingAnswer &answer, const std::string &reason) override;
  std::string text_of(uint64_t, const QueryAnswer &) override { return {}; }  // it sends no query
  void on_input_end() override;

 private:
  void ingest_lines(std::string_view lines);
  void count_malformed(uint64_t n, const std::string &reason);
  void count_refused(const std::string &reason);

  GraphiteConverter &converter_;
  uint64_t n_malformed_ = 0;
  uint64_t n_refused_ = 0;
};

}  // namespace metricdb
