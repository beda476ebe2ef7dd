#include "results.h"

#include <fmt/format.h>

#include <algorithm>

#include "contestant.h"

namespace {

double median_of(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t half = values.size() / 2;
  return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

std::string number_text(double value) {
  return value < 100 ? fmt::format("{:.3g}", value) : fmt::format("{:.0f}", value);
}

// Updates per second are better if there are more of them; times and bytes, if there are fewer.
bool is_more_better(const std::string &workload) {
  return workload.starts_with("updates");
}

}  // namespace

void results_t::add(const std::string &workload, const std::string &contestant, double value) {
  if (std::find(workloads_.begin(), workloads_.end(), workload) == workloads_.end()) workloads_.push_back(workload);
  values_[{workload, contestant}].push_back(value);
}

const std::vector<double> *results_t::values_of(const std::string &workload, const std::string &contestant) const {
  const auto found = values_.find({workload, contestant});
  return found == values_.end() ? nullptr : &found->second;
}

void results_t::print_table() const {
  const std::span<const kind_t> kinds = all_kinds();
  std::string head = "| median", line = "| ---";
  for (const kind_t &kind : kinds) head += fmt::format(" | {}", kind.name), line += " | ---:";
  for (const kind_t &kind : kinds.subspan(1)) head += fmt::format(" | to {}", kind.name), line += " | ---:";
  fmt::print("{} | {} |\n{} | ---: |\n", head, DISK, line);
  for (const std::string &workload : workloads_) {
    const std::vector<double> *const own = values_of(workload, kinds[0].name);
    std::string row = "| " + workload;
    for (const kind_t &kind : kinds) {
      const std::vector<double> *const values = values_of(workload, kind.name);
      row += " | " + (values != nullptr ? number_text(median_of(*values)) : "");
    }
    for (const kind_t &kind : kinds.subspan(1)) {
      const std::vector<double> *const values = values_of(workload, kind.name);
      if (own == nullptr || values == nullptr) {
        row += " | ";
        continue;
      }
      const double ratio = median_of(*own) / median_of(*values);
      row += fmt::format(" | {:.2f}", is_more_better(workload) ? ratio : 1 / ratio);
    }
    const std::vector<double> *const of_disk = values_of(workload, DISK);
    fmt::print("{} | {} |\n", row, of_disk != nullptr ? number_text(median_of(*of_disk)) : "");
  }
}

void results_t::print_json() const {
  std::string text;
  for (const std::string &workload : workloads_)
    for (const auto &[key, values] : values_)
      if (key.first == workload)
        text += fmt::format(R"({}{{"workload": "{}", "contestant": "{}", "value": {:.6g}}})", text.empty() ? "" : ", ",
                            workload, key.second, median_of(values));
  fmt::print("[{}]\n", text);
}
