// Executes statements that change databases, and those about databases as a whole.
#pragma once

#include <string>
#include <vector>

#include "query/influxql_ast.h"
#include "query/influxql_databases.h"
#include "query/influxql_execute.h"

namespace metricdb::influxql {

// Returns the name of the database that a statement is about, with `default_name` for none. Throws ExecutionFailed if there
// is more than one.
std::string database_of(const Statement &statement, const std::string &default_name);

// What a request needs so that the statement is executed.
enum class Need {
  reading,
  writing,   // CREATE DATABASE, which agents also send with GET
  changing,  // as `writing`, and a method that does not only read
};
Need need_of(const Statement &statement);

// Whether `execute` answers the statement from the series of a database.
bool is_about_series(const Statement &statement);

// Executes a statement for which is_about_series is false. environment.source is not used. Throws ExecutionFailed.
std::vector<ResultSeries> execute_on(InfluxqlDatabases &databases, const Environment &environment,
                                     const Statement &statement, const std::string &database);

}  // namespace metricdb::influxql
