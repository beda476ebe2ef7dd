// Texts of ours inside the formats of others. Series keys are any bytes but control characters: what is no UTF-8 in
// them becomes U+FFFD where a format demands UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace metricdb {

// As a string of JSON, quotes included.
std::string json_string(std::string_view text);

// As text or the value of an attribute of XML 1.0.
std::string xml_text(std::string_view text);

// As a field of CSV (RFC 4180), in quotes if it needs them. Any bytes stay as they are.
std::string csv_field(std::string_view text);

}  // namespace metricdb
