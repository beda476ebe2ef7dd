// Escapes texts for other formats. Series keys contain any bytes but control characters. If a format requires UTF-8,
// invalid bytes become U+FFFD.
#pragma once

#include <string>
#include <string_view>

namespace metricdb {

// A string of JSON, quotes included.
std::string json_string(std::string_view text);

// Text, or the value of an attribute, of XML 1.0.
std::string xml_text(std::string_view text);

// A field of CSV (RFC 4180), in quotes if necessary. All bytes are copied.
std::string csv_field(std::string_view text);

}  // namespace metricdb
