// Samples the counters of this machine from the proc file system, as line protocol.
//
// Nothing but numbers leaves the machine, with the names of its network interfaces and disks. A file that is
// missing or reads otherwise than expected costs its lines and nothing else: kernels differ.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace metricdb {

class ProcSampler {
 public:
  // host       value of the tag `host` on every line; any text without line ends.
  // proc_root  where the proc file system is; a test gives a folder of its own.
  explicit ProcSampler(std::string_view host, std::string proc_root = "/proc");

  // Appends one sample to `out`, one line per processor, interface, disk and so on, all at `ts_ns`.
  // `busy` of a processor is its share of the time since the previous sample, so the first one lacks it.
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

  std::string tags_;  // ",host=..." as it stands behind each measurement
  std::string root_;
  std::map<std::string, CpuTimes, std::less<>> previous_;
};

}  // namespace metricdb
