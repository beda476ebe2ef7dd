// Requests of HTTP/1.0 and 1.1 out of a connection's bytes, and answers as text. What they mean is not known here.
//
// A body stays where it was received. That of a request in chunks is moved together there, so that it lies in one piece
// too; nothing of it is copied otherwise.
#pragma once

#include <http_parser.h>

#include <string>
#include <string_view>

#include "net/bytes.h"

namespace metricdb {

struct HttpRequest {
  http_method method = HTTP_GET;
  std::string target;  // as on the request line
  std::string content_encoding;
  std::string content_type;
  std::string expect;
  std::string_view body;
  bool keep_alive = false;
  bool is_old = false;  // HTTP/1.0
};

struct HttpAnswer {
  http_status status = HTTP_STATUS_NO_CONTENT;
  std::string json;   // the body; none if empty
  std::string error;  // what went wrong, in one line, for the head
  std::string allow;  // with METHOD_NOT_ALLOWED: the methods
};

// The whole answer to `request`. Without keep_alive it tells that the connection ends with it.
std::string answer_text(const HttpAnswer &answer, http_method method, bool keep_alive, bool is_old);

class HttpReader {
 public:
  enum class Outcome {
    more,     // the bytes end ahead of the request's end
    request,  // `request()` holds until the next call of `read` or `done`
    refused   // `refusal()` says why; nothing can be read behind it
  };

  explicit HttpReader(size_t most_body_bytes);
  HttpReader(const HttpReader &) = delete;
  HttpReader &operator=(const HttpReader &) = delete;

  // Reads on in the connection's bytes, of which it keeps those of the body. Between calls the buffer only grows.
  Outcome read(ByteBuffer &input);
  // Drops the request that was read.
  void done(ByteBuffer &input);

  const HttpRequest &request() const { return request_; }
  const HttpAnswer &refusal() const { return refusal_; }

  bool is_inside_request() const { return is_begun_; }
  // The head is whole and the client waits for a word before it sends the body.
  bool is_asked_to_continue(const ByteBuffer &input) const;
  // Room to offer for what comes next.
  size_t room_wanted(const ByteBuffer &input) const;

 private:
  static const http_parser_settings SETTINGS;
  static HttpReader &of(http_parser *parser) { return *static_cast<HttpReader *>(parser->data); }

  int on_begin();
  int on_target(std::string_view piece);
  int on_header_name(std::string_view piece);
  int on_header_value(std::string_view piece);
  int on_head();
  int on_body(const char *piece, size_t n);
  int on_end();
  int refuse(http_status status, std::string reason);
  bool fits_head(size_t n);
  void refuse_what_the_parser_did();

  const size_t most_body_bytes_;
  http_parser parser_;
  HttpRequest request_;
  HttpAnswer refusal_;
  std::string header_name_;        // in lower case
  std::string *header_ = nullptr;  // where the value of this header goes, if anybody asks for it
  bool is_in_header_value_ = false;
  size_t head_bytes_ = 0;
  bool is_begun_ = false;
  bool is_head_whole_ = false;
  bool is_whole_ = false;
  char *body_ = nullptr;
  size_t body_bytes_ = 0;
  const char *behind_ = nullptr;  // behind the whole request
};

}  // namespace metricdb
