// What the database prints about itself and its series.
#pragma once

#include <span>
#include <string>

#include "loader.h"
#include "store.h"

namespace metricdb {

// One cell per value, scaled between the smallest and the largest; all alike give a line at half height.
std::string sparkline(std::span<const double> values);

// The series that have points and whose keys match `pattern` (*, ? and [...] as in file names), sorted by
// key, one line each: key, count, min, max, mean, last, and a sparkline of up to 32 cells, each the mean of
// as many points in order of arrival. A heading goes ahead of them; without a match, one line says so.
std::string series_table(const Store &store, const std::string &pattern);

// Counts, sizes, speed (`seconds` is the time that parsing and storing took), and one line about each array.
std::string load_summary(const Store &store, const LoadStats &stats, double seconds);

}  // namespace metricdb
