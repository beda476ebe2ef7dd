#include "net/http.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace metricdb {
namespace {

// Request line and headers. Agents send some hundred bytes; a target with a statement can have some thousand.
constexpr size_t MAX_HEAD_BYTES = size_t{16} << 10;

char lower(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

// Replaces line ends and other control characters.
std::string as_header_value(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
  return text;
}

}  // namespace

std::string answer_text(const HttpAnswer &answer, http_method method, bool keep_alive, bool is_http_1_0) {
  std::string text = fmt::format("HTTP/1.1 {} {}\r\nX-Influxdb-Build: OSS\r\nX-Influxdb-Version: 1.8-metricdb\r\n",
                                 static_cast<int>(answer.status), http_status_str(answer.status));
  if (!answer.error.empty()) text += fmt::format("X-Influxdb-Error: {}\r\n", as_header_value(answer.error));
  if (answer.status == HTTP_STATUS_UNAUTHORIZED) text += "WWW-Authenticate: Basic realm=\"metricdb\"\r\n";
  if (!answer.allow.empty()) text += fmt::format("Allow: {}\r\n", answer.allow);
  if (!keep_alive) text += "Connection: close\r\n";
  if (keep_alive && is_http_1_0) text += "Connection: keep-alive\r\n";
  if (answer.status != HTTP_STATUS_NO_CONTENT)
    text += fmt::format("Content-Type: {}\r\nContent-Length: {}\r\n", answer.content_type, answer.json.size());
  text += "\r\n";
  return method == HTTP_HEAD ? text : text + answer.json;
}

const http_parser_settings HttpReader::SETTINGS = [] {
  http_parser_settings settings;
  http_parser_settings_init(&settings);
  settings.on_message_begin = [](http_parser *parser) { return of(parser).on_begin(); };
  settings.on_url = [](http_parser *parser, const char *at, size_t n) { return of(parser).on_target({at, n}); };
  settings.on_header_field = [](http_parser *parser, const char *at, size_t n) {
    return of(parser).on_header_name({at, n});
  };
  settings.on_header_value = [](http_parser *parser, const char *at, size_t n) {
    return of(parser).on_header_value({at, n});
  };
  settings.on_headers_complete = [](http_parser *parser) { return of(parser).on_head(); };
  settings.on_chunk_header = [](http_parser *parser) { return of(parser).on_chunk(); };
  settings.on_body = [](http_parser *parser, const char *at, size_t n) { return of(parser).on_body(at, n); };
  settings.on_message_complete = [](http_parser *parser) { return of(parser).on_end(); };
  return settings;
}();

HttpReader::HttpReader(size_t max_body_bytes) : max_body_bytes_(max_body_bytes) {
  http_parser_init(&parser_, HTTP_REQUEST);
  parser_.data = this;
}

HttpReader::Outcome HttpReader::read(ByteBuffer &input) {
  done(input);
  if (input.size() == body_bytes_)
    return Outcome::more;  // zero bytes would mean the end of the connection to the parser
  body_ = input.data();
  char *const begin = body_ + body_bytes_;
  const size_t n = http_parser_execute(&parser_, &SETTINGS, begin, input.size() - body_bytes_);
  if (is_whole_) {
    end_of_request_ = begin + n;
    http_parser_pause(&parser_, 0);
    request_.body = {body_, body_bytes_};
    return Outcome::request;
  }
  if (HTTP_PARSER_ERRNO(&parser_) != HPE_OK) {
    set_parser_refusal();
    return Outcome::refused;
  }
  input.keep(body_bytes_ == 0 ? begin + n : body_, body_bytes_);
  return Outcome::more;
}

void HttpReader::done(ByteBuffer &input) {
  if (!is_whole_) return;
  input.drop_front(static_cast<size_t>(end_of_request_ - input.data()));
  is_begun_ = is_head_whole_ = is_whole_ = false;
  body_bytes_ = 0;
  request_.body = {};
}

bool HttpReader::is_asked_to_continue(const ByteBuffer &input) const {
  return has_head_only() && input.empty() && !request_.expect.empty() && !request_.is_http_1_0;
}

size_t HttpReader::room_wanted(const ByteBuffer &input) const {
  if (!has_head_only()) return BlockPool::MIN_BYTES / 2;
  if ((parser_.flags & F_CHUNKED) != 0) return std::max(input.size(), BlockPool::MIN_BYTES / 2);
  // Room follows the bytes that have arrived, because a client can announce a large body and send nothing. The parser
  // decrements content_length while it parses the body.
  return std::min<size_t>(parser_.content_length, std::max(BlockPool::MIN_BYTES / 2, 3 * input.size()));
}

int HttpReader::refuse(http_status status, std::string reason) {
  refusal_.status = status;
  refusal_.error = std::move(reason);
  return -1;
}

void HttpReader::set_parser_refusal() {
  if (!refusal_.error.empty()) return;
  const http_errno error = HTTP_PARSER_ERRNO(&parser_);
  const bool is_long = error == HPE_HEADER_OVERFLOW;
  refuse(is_long ? HTTP_STATUS_REQUEST_HEADER_FIELDS_TOO_LARGE : HTTP_STATUS_BAD_REQUEST,
         fmt::format("invalid request: {}", http_errno_description(error)));
}

bool HttpReader::fits_head(size_t n) {
  head_bytes_ += n;
  return head_bytes_ <= MAX_HEAD_BYTES;
}

int HttpReader::on_begin() {
  request_.target.clear();
  for (std::string *header : {&request_.authorization, &request_.content_encoding, &request_.content_type,
                              &request_.expect, &request_.accept, &request_.transfer_encoding})
    header->clear();
  header_name_.clear();
  head_bytes_ = 0;
  is_in_header_value_ = is_head_whole_ = false;
  is_begun_ = true;
  return 0;
}

int HttpReader::on_target(std::string_view piece) {
  if (!fits_head(piece.size())) return refuse(HTTP_STATUS_URI_TOO_LONG, "the request's target is too long");
  request_.target += piece;
  return 0;
}

int HttpReader::on_header_name(std::string_view piece) {
  if (!fits_head(piece.size())) return refuse(HTTP_STATUS_REQUEST_HEADER_FIELDS_TOO_LARGE, "the headers are too long");
  if (std::exchange(is_in_header_value_, false)) header_name_.clear();
  for (const char byte : piece) header_name_ += lower(byte);
  return 0;
}

int HttpReader::on_header_value(std::string_view piece) {
  if (!fits_head(piece.size())) return refuse(HTTP_STATUS_REQUEST_HEADER_FIELDS_TOO_LARGE, "the headers are too long");
  if (!std::exchange(is_in_header_value_, true)) {
    header_ = header_name_ == "content-encoding"    ? &request_.content_encoding
              : header_name_ == "content-type"      ? &request_.content_type
              : header_name_ == "authorization"     ? &request_.authorization
              : header_name_ == "expect"            ? &request_.expect
              : header_name_ == "accept"            ? &request_.accept
              : header_name_ == "transfer-encoding" ? &request_.transfer_encoding
                                                    : nullptr;
    // Headers after a chunked body are ignored.
    if (is_head_whole_) header_ = nullptr;
    if (header_ != nullptr && !header_->empty()) *header_ += ',';
  }
  if (header_ != nullptr)
    for (const char byte : piece) *header_ += header_ == &request_.authorization ? byte : lower(byte);
  return 0;
}

int HttpReader::on_head() {
  is_head_whole_ = true;
  // Upgrades to another protocol are not supported, and the request is processed as it is.
  parser_.upgrade = 0;
  request_.method = static_cast<http_method>(parser_.method);
  request_.is_http_1_0 = parser_.http_major == 1 && parser_.http_minor == 0;
  request_.keep_alive = http_should_keep_alive(&parser_) != 0;
  if (parser_.http_major != 1)
    return refuse(HTTP_STATUS_HTTP_VERSION_NOT_SUPPORTED, "only HTTP/1.0 and 1.1 are supported");
  if (!request_.expect.empty() && request_.expect != "100-continue")
    return refuse(HTTP_STATUS_EXPECTATION_FAILED, "only 100-continue is supported as expectation");
  // The parser accepts a list of codings that ends with `chunked`, and does not decode the others.
  if (!request_.transfer_encoding.empty() && request_.transfer_encoding != "chunked")
    return refuse(HTTP_STATUS_NOT_IMPLEMENTED, "only chunked is supported as transfer encoding");
  const bool has_length = (parser_.flags & F_CONTENTLENGTH) != 0;
  request_.has_body = (parser_.flags & F_CHUNKED) != 0 || (has_length && parser_.content_length != 0);
  return has_length && parser_.content_length > max_body_bytes_ ? refuse_long_body() : 0;
}

int HttpReader::refuse_long_body() {
  return refuse(HTTP_STATUS_PAYLOAD_TOO_LARGE, fmt::format("the body has more than {} bytes", max_body_bytes_));
}

// Refuses a long chunk before its bytes arrive.
int HttpReader::on_chunk() {
  return parser_.content_length > max_body_bytes_ - body_bytes_ ? refuse_long_body() : 0;
}

int HttpReader::on_body(const char *piece, size_t n) {
  if (body_bytes_ + n > max_body_bytes_) return refuse_long_body();
  // The body is contiguous: it begins after the header, and the frames of chunks are removed.
  if (body_bytes_ == 0)
    body_ = const_cast<char *>(piece);
  else if (piece != body_ + body_bytes_)
    std::memmove(body_ + body_bytes_, piece, n);
  body_bytes_ += n;
  return 0;
}

int HttpReader::on_end() {
  is_whole_ = true;
  http_parser_pause(&parser_, 1);
  return 0;
}

}  // namespace metricdb
