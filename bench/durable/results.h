// Measured values, their medians, and how they are printed.
#ifndef TSLB_BENCH_DURABLE_RESULTS_H
#define TSLB_BENCH_DURABLE_RESULTS_H

#include <map>
#include <string>
#include <utility>
#include <vector>

// The name of the rows that no contestant has: those of the disk.
constexpr const char *DISK = "disk";

class results_t {
 public:
  void add(const std::string &workload, const std::string &contestant, double value);
  // Prints the medians as Markdown, with the number of times by which tslb is better than each other contestant.
  void print_table() const;
  // Prints the medians as a JSON list in one line.
  void print_json() const;

 private:
  const std::vector<double> *values_of(const std::string &workload, const std::string &contestant) const;

  std::vector<std::string> workloads_;  // in the order in which they were added
  std::map<std::pair<std::string, std::string>, std::vector<double>> values_;
};

#endif
