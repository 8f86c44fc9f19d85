#include "bench/usage.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

namespace bench {

double CpuMicroseconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto microseconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

std::int64_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::int64_t total = 0;
  std::int64_t resident = 0;
  statm >> total >> resident;
  if (statm.fail() || resident <= 0) {
    throw std::runtime_error("reading /proc/self/statm failed");
  }
  return resident * sysconf(_SC_PAGESIZE);
}

}  // namespace bench
