#include "extra/proc_sampler.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "codec/line_protocol.h"

namespace metricdb {
namespace {

using Words = std::vector<std::string_view>;

Words words_of(std::string_view text, std::string_view separators = " \t") {
  Words words;
  for (size_t begin = text.find_first_not_of(separators); begin != text.npos;) {
    const size_t end = std::min(text.find_first_of(separators, begin), text.size());
    words.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(separators, end);
  }
  return words;
}

// An invalid number counts as 0, because an incomplete sample is better than none.
int64_t number(std::string_view word) {
  int64_t value = 0;
  std::from_chars(word.data(), word.data() + word.size(), value);
  return value;
}

double fraction(std::string_view word) {
  double value = 0.0;
  std::from_chars(word.data(), word.data() + word.size(), value);
  return value;
}

struct Column {
  const char *name;
  size_t index;  // of a word of the line
};

template <size_t N>
std::string integer_fields(const Words &words, const Column (&columns)[N]) {
  std::string fields;
  for (const Column &column : columns)
    fmt::format_to(std::back_inserter(fields), "{}{}={}i", fields.empty() ? "" : ",", column.name,
                   number(words[column.index]));
  return fields;
}

struct FieldMapping {
  const char *proc_name;
  const char *field;
  int64_t factor;
};

// Fields from a file with lines "name value", in the order of the file.
template <size_t N>
std::string named_fields(std::string_view text, const FieldMapping (&mappings)[N]) {
  std::string fields;
  for (const std::string_view line : words_of(text, "\n")) {
    const Words words = words_of(line, " \t:");
    if (words.size() < 2) continue;
    for (const FieldMapping &name : mappings)
      if (words[0] == name.proc_name)
        fmt::format_to(std::back_inserter(fields), "{}{}={}i", fields.empty() ? "" : ",", name.field,
                       number(words[1]) * name.factor);
  }
  return fields;
}

// The name of a partition is the name of its disk and a number: sda1 after sda, nvme0n1p1 after nvme0n1. The kernel
// lists the disk first.
bool is_partition(std::string_view name, const Words &disks) {
  for (const std::string_view disk : disks)
    if (name.size() > disk.size() && name.starts_with(disk) && name.back() >= '0' && name.back() <= '9') return true;
  return false;
}

}  // namespace

ProcSampler::ProcSampler(std::string_view host, std::string proc_root)
    : tags_(host.empty() ? "" : ",host=" + escaped_name(host)), root_(std::move(proc_root)) {}

std::string ProcSampler::file(const char *name) const {
  std::ifstream in(root_ + "/" + name, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return std::move(text).str();
}

void ProcSampler::sample(int64_t ts_ns, std::string &out) {
  sample_cpus(ts_ns, out);
  sample_load(ts_ns, out);
  sample_memory(ts_ns, out);
  sample_paging(ts_ns, out);
  sample_interfaces(ts_ns, out);
  sample_disks(ts_ns, out);
  sample_self(ts_ns, out);
}

void ProcSampler::sample_cpus(int64_t ts_ns, std::string &out) {
  const std::string text = file("stat");
  for (const std::string_view line : words_of(text, "\n")) {
    const Words words = words_of(line);
    if (words.size() < 9 || !words[0].starts_with("cpu")) continue;
    CpuTimes now{0, 0};
    for (size_t i = 1; i <= 8; ++i) now.total += number(words[i]);
    now.busy = now.total - number(words[4]) - number(words[5]);  // without idle and iowait

    const std::string_view core = words[0] == "cpu" ? "all" : words[0].substr(3);
    static constexpr Column columns[] = {{"user", 1}, {"system", 3}, {"idle", 4}, {"iowait", 5}, {"steal", 8}};
    fmt::format_to(std::back_inserter(out), "cpu{},core={} {}", tags_, core, integer_fields(words, columns));
    const auto last = previous_.find(words[0]);
    if (last != previous_.end() && now.total > last->second.total)
      fmt::format_to(std::back_inserter(out), ",busy={:.1f}",
                     100.0 * static_cast<double>(now.busy - last->second.busy) /
                         static_cast<double>(now.total - last->second.total));
    fmt::format_to(std::back_inserter(out), " {}\n", ts_ns);
    previous_.insert_or_assign(std::string(words[0]), now);
  }
}

void ProcSampler::sample_load(int64_t ts_ns, std::string &out) const {
  const std::string text = file("loadavg");
  const Words words = words_of(text, " \n/");
  if (words.size() < 5) return;
  fmt::format_to(std::back_inserter(out), "load{} load1={},load5={},load15={},runnable={}i,threads={}i {}\n", tags_,
                 fraction(words[0]), fraction(words[1]), fraction(words[2]), number(words[3]), number(words[4]), ts_ns);
}

void ProcSampler::sample_memory(int64_t ts_ns, std::string &out) const {
  static constexpr FieldMapping mappings[] = {
      {"MemTotal", "total", 1024}, {"MemFree", "free", 1024}, {"MemAvailable", "available", 1024},
      {"Cached", "cached", 1024},  {"Dirty", "dirty", 1024},  {"SwapFree", "swap_free", 1024}};
  const std::string fields = named_fields(file("meminfo"), mappings);
  if (!fields.empty()) fmt::format_to(std::back_inserter(out), "mem{} {} {}\n", tags_, fields, ts_ns);
}

void ProcSampler::sample_paging(int64_t ts_ns, std::string &out) const {
  static constexpr FieldMapping mappings[] = {{"pgfault", "faults", 1}, {"pgmajfault", "major_faults", 1},
                                              {"pgpgin", "in_kib", 1},  {"pgpgout", "out_kib", 1},
                                              {"pswpin", "swap_in", 1}, {"pswpout", "swap_out", 1}};
  const std::string fields = named_fields(file("vmstat"), mappings);
  if (!fields.empty()) fmt::format_to(std::back_inserter(out), "paging{} {} {}\n", tags_, fields, ts_ns);
}

void ProcSampler::sample_interfaces(int64_t ts_ns, std::string &out) const {
  const std::string text = file("net/dev");
  for (const std::string_view line : words_of(text, "\n")) {
    const Words words = words_of(line, " \t:");
    // Skips headings, which contain bars, and interfaces that were never used.
    if (words.size() < 17 || (number(words[1]) == 0 && number(words[9]) == 0)) continue;
    static constexpr Column columns[] = {{"rx_bytes", 1}, {"rx_packets", 2},  {"rx_errors", 3},
                                         {"tx_bytes", 9}, {"tx_packets", 10}, {"tx_errors", 11}};
    fmt::format_to(std::back_inserter(out), "net{},interface={} {} {}\n", tags_, escaped_name(words[0]),
                   integer_fields(words, columns), ts_ns);
  }
}

void ProcSampler::sample_disks(int64_t ts_ns, std::string &out) const {
  const std::string text = file("diskstats");
  Words disks;
  for (const std::string_view line : words_of(text, "\n")) {
    const Words words = words_of(line);
    if (words.size() < 14) continue;
    const bool never_used = number(words[3]) == 0 && number(words[7]) == 0;
    if (never_used || is_partition(words[2], disks)) continue;
    disks.push_back(words[2]);
    static constexpr Column columns[] = {{"reads", 3},           {"sectors_read", 5}, {"writes", 7},
                                         {"sectors_written", 9}, {"in_flight", 11},   {"busy_ms", 12}};
    fmt::format_to(std::back_inserter(out), "disk{},device={} {} {}\n", tags_, escaped_name(words[2]),
                   integer_fields(words, columns), ts_ns);
  }
}

void ProcSampler::sample_self(int64_t ts_ns, std::string &out) const {
  const std::string text = file("self/stat");
  // The second word is the program's name in parentheses, which can contain blanks and parentheses itself.
  const size_t name_end = text.rfind(')');
  if (name_end == text.npos) return;
  const Words words = words_of(std::string_view(text).substr(name_end + 1), " \n");
  if (words.size() < 22) return;
  static constexpr Column columns[] = {{"minor_faults", 7}, {"user", 11}, {"system", 12}, {"rss_pages", 21}};
  fmt::format_to(std::back_inserter(out), "self{} {} {}\n", tags_, integer_fields(words, columns), ts_ns);
}

}  // namespace metricdb
