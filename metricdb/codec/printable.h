// Text from clients for terminals and logs.
#pragma once

#include <string>
#include <string_view>

namespace metricdb {

// Returns the text with a question mark for each control character except those in `kept`, and for each byte that belongs
// to no character in UTF-8. The control characters U+0080 to U+009F are replaced too: terminals execute them.
std::string printable(std::string_view text, std::string_view kept = "");

}  // namespace metricdb
