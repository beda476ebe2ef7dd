// Samples the counters of this machine from the proc file system, as line protocol.
//
// A sample contains numbers, and the names of network interfaces and disks. The lines of a missing or unreadable file
// are omitted, because kernels differ.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace metricdb {

class ProcSampler {
 public:
  // host       value of the tag `host` of every line; a text without line ends.
  // proc_root  the root of the proc file system; tests use another folder.
  explicit ProcSampler(std::string_view host, std::string proc_root = "/proc");

  // Appends one sample to `out`, one line per processor, interface, disk and so on, all with the time `ts_ns`.
  // `busy` of a processor is its load since the previous sample, so the first sample lacks it.
  void sample(int64_t ts_ns, std::string &out);

 private:
  struct CpuTimes {
    int64_t busy;
    int64_t total;
  };

  void sample_cpus(int64_t ts_ns, std::string &out);
  void sample_load(int64_t ts_ns, std::string &out) const;
  void sample_memory(int64_t ts_ns, std::string &out) const;
  void sample_paging(int64_t ts_ns, std::string &out) const;
  void sample_interfaces(int64_t ts_ns, std::string &out) const;
  void sample_disks(int64_t ts_ns, std::string &out) const;
  void sample_self(int64_t ts_ns, std::string &out) const;
  std::string file(const char *name) const;

  std::string tags_;  // ",host=..." for each line
  std::string root_;
  std::map<std::string, CpuTimes, std::less<>> previous_;
};

}  // namespace metricdb
