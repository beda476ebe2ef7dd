#include "store/log.h"

#include <cstdio>

namespace metricdb {

void report_refusal(const std::string &what) {
  TSLB_DLOG(LOG_REFUSALS, "%s", what.c_str());
  const std::string line = "metricdb: " + what + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace metricdb
