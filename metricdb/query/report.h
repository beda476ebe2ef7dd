// Texts about the database and its series.
#pragma once

#include <span>
#include <string>

#include "store/database.h"
#include "store/loader.h"
#include "store/store.h"

namespace metricdb {

// One cell per value, scaled between minimum and maximum. If all values are equal, all cells have half height.
std::string sparkline(std::span<const double> values);

// The series that have visible points and whose keys match `pattern` (*, ? and [...] as in file names), sorted by key,
// with a heading. One line each: key, count, min, max, mean, last, and a sparkline of up to 32 cells, each the mean of
// equally many points in order of arrival. Inactive series are marked. Without a match there is one line that says so.
std::string series_table(const Store &store, const std::string &pattern);

// Counts, sizes, speed (`seconds` is the time for parsing and storing), and the headers of the arrays. Bytes per point
// refer to visible points. If the store forgets data, also counts of forgotten data, and the result of the last sweep.
std::string load_summary(const Store &store, const LoadStats &stats, const Sweep &last, double seconds);

// The content of a database: folder and generation, series and points, forgotten data, and sizes and headers of each
// array. `seconds` is the time for opening, checks included.
std::string database_summary(const std::string &folder, const Store &store, const GenerationInfo &stored,
                             double seconds);

}  // namespace metricdb
