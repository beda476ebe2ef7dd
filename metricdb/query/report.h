// What the database prints about itself and its series.
#pragma once

#include <span>
#include <string>

#include "store/database.h"
#include "store/loader.h"
#include "store/store.h"

namespace metricdb {

// One cell per value, scaled between the smallest and the largest; all alike give a line at half height.
std::string sparkline(std::span<const double> values);

// The series that have visible points and whose keys match `pattern` (*, ? and [...] as in file names), sorted by key,
// one line each: key, count, min, max, mean, last, and a sparkline of up to 32 cells, each the mean of as many points
// in order of arrival, with a word behind it if the series is inactive. A heading goes ahead of them; without a match,
// one line says so.
std::string series_table(const Store &store, const std::string &pattern);

// Counts, sizes, speed (`seconds` is the time that parsing and storing took), and the headers of the arrays. Bytes per
// point are by visible points. If the store forgets, also what it forgot, and what the sweep `last` found.
std::string load_summary(const Store &store, const LoadStats &stats, const Sweep &last, double seconds);

// What a database holds: where, in which generation, series and points, what was forgotten, and for each array its
// sizes and its headers. `seconds` is the time that opening took, checks included.
std::string database_summary(const std::string &folder, const Store &store, const GenerationInfo &stored,
                             double seconds);

}  // namespace metricdb
