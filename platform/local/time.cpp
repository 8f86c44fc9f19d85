#include "platform/time.h"

#include <chrono>

long long USecToSec(long long usec) {
  return usec / 1000000;
}

std::int64_t GetMonotonicTimestamp() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}
