// Parses requests of HTTP/1.0 and 1.1 from received bytes, and formats answers.
//
// The body of a request is not copied. The parts of a chunked body are moved together in the buffer, so that the body
// is contiguous.
#pragma once

#include <http_parser.h>

#include <string>
#include <string_view>

#include "net/bytes.h"

namespace metricdb {

struct HttpRequest {
  http_method method = HTTP_GET;
  std::string target;  // as on the request line
  std::string authorization;
  // Values of headers, in lower case. If a header is repeated, they are joined by commas, as above.
  std::string content_encoding;
  std::string content_type;
  std::string expect;
  std::string accept;
  std::string transfer_encoding;
  std::string_view body;
  bool has_body = false;  // known with the head: a body follows, or has arrived
  bool keep_alive = false;
  bool is_http_1_0 = false;  // HTTP/1.0
};

struct HttpAnswer {
  http_status status = HTTP_STATUS_NO_CONTENT;
  std::string json;   // the body, of another type if content_type says so; none if empty
  std::string error;  // the error in one line, for the header
  std::string log;    // a line for the log; none if empty
  std::string allow;  // with METHOD_NOT_ALLOWED: the allowed methods
  std::string content_type = "application/json";
};

// Returns the text of the answer. Without keep_alive it says that the connection is closed.
std::string answer_text(const HttpAnswer &answer, http_method method, bool keep_alive, bool is_http_1_0);

class HttpReader {
 public:
  enum class Outcome {
    more,     // the request is not complete
    request,  // `request()` is valid until the next call of `read` or `done`
    refused   // `refusal()` has the reason; no later bytes can be parsed
  };

  explicit HttpReader(size_t max_body_bytes);
  HttpReader(const HttpReader &) = delete;
  HttpReader &operator=(const HttpReader &) = delete;

  // Parses the bytes in the buffer, and removes all but those of the body. The buffer may only grow between calls.
  Outcome read(ByteBuffer &input);
  // Discards the request.
  void done(ByteBuffer &input);

  const HttpRequest &request() const { return request_; }
  const HttpAnswer &refusal() const { return refusal_; }

  bool is_inside_request() const { return is_begun_; }
  // The header is complete, and the body is not.
  bool has_head_only() const { return is_head_whole_ && !is_whole_; }
  // The header is complete, and the client waits for permission to send the body.
  bool is_asked_to_continue(const ByteBuffer &input) const;
  // Room that the buffer should have for the next bytes.
  size_t room_wanted(const ByteBuffer &input) const;

 private:
  static const http_parser_settings SETTINGS;
  static HttpReader &of(http_parser *parser) { return *static_cast<HttpReader *>(parser->data); }

  int on_begin();
  int on_target(std::string_view piece);
  int on_header_name(std::string_view piece);
  int on_header_value(std::string_view piece);
  int on_head();
  int on_chunk();
  int on_body(const char *piece, size_t n);
  int on_end();
  int refuse(http_status status, std::string reason);
  bool fits_head(size_t n);
  int refuse_long_body();
  void set_parser_refusal();

  const size_t max_body_bytes_;
  http_parser parser_;
  HttpRequest request_;
  HttpAnswer refusal_;
  std::string header_name_;        // in lower case
  std::string *header_ = nullptr;  // destination of the current header's value; null if it is not needed
  bool is_in_header_value_ = false;
  size_t head_bytes_ = 0;
  bool is_begun_ = false;
  bool is_head_whole_ = false;
  bool is_whole_ = false;
  char *body_ = nullptr;
  size_t body_bytes_ = 0;
  const char *end_of_request_ = nullptr;  // end of the request
};

}  // namespace metricdb
