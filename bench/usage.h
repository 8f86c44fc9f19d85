// What this process has used.
#pragma once

#include <cstdint>

namespace bench {

double CpuMicroseconds();      // user and system
std::int64_t ResidentBytes();  // in memory now

}  // namespace bench
