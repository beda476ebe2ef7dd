// Where messages of NATS come from.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace metricdb {

struct NatsOptions {
  std::string subject = {};  // of the messages; it can have the wildcards * and >. Empty: no messages
  std::string servers = "nats://127.0.0.1:4222";  // URLs, separated by commas. With tls:// the connection is encrypted
  // Empty: the stream that has the subject, and if there is none, a new one with a name made of the subject.
  std::string stream = {};
  std::string consumer = {};  // its durable name, without dots. Empty: made of the subject
  std::string user = {}, password = {};
  std::string credentials_file = {};  // as the tools of NATS write it
  std::string ca_file = {};           // PEM. Encrypts the connection, and replaces the system's authorities
  std::string database = "nats";      // of messages without the header `db`, for an Ingest with several databases

  // Of messages that were taken and are not acknowledged. The number is that of a consumer that is made here.
  int max_messages = 4096;
  size_t max_bytes = size_t{64} << 20;
  std::chrono::seconds ack_wait{60};              // then the servers deliver a message again
  std::chrono::milliseconds return_delay{5'000};  // the same for a message that could not be stored
  std::chrono::milliseconds retry{500};           // from a lost connection to the next attempt
};

}  // namespace metricdb
