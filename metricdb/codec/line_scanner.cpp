#include "codec/line_scanner.h"

namespace metricdb {

size_t LineScanner::end_of_line(std::string_view text) {
  const size_t feed = text.find('\n');
  // Most lines have no strings.
  if (state_ == State::begin && feed != text.npos && text.substr(0, feed).find('"') == text.npos) return feed + 1;
  return step_to_end(text);
}

size_t LineScanner::step_to_end(std::string_view text) {
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\n' || state_ == State::string) {
      step(text[at]);
      continue;
    }
    *this = {};
    return at + 1;
  }
  return text.npos;
}

bool LineScanner::is_escape(char byte) const {
  if (state_ == State::string) return byte == '"' || byte == '\\';
  return byte == ',' || byte == '=' || byte == ' ';
}

void LineScanner::step(char byte) {
  if (after_backslash_ && is_escape(byte)) {
    after_backslash_ = false;
    return;
  }
  after_backslash_ = byte == '\\';
  switch (state_) {
    case State::begin:
      if (byte != ' ') state_ = byte == '#' ? State::comment : State::head;
      return;
    case State::comment:
      return;
    case State::head:
      if (byte == ' ') state_ = State::fields;
      return;
    case State::fields:
    case State::value:
      if (state_ == State::value && byte == '"')
        state_ = State::string;
      else
        state_ = byte == '=' ? State::value : State::fields;
      return;
    case State::string:
      if (byte == '"') state_ = State::fields;
      return;
  }
}

}  // namespace metricdb
