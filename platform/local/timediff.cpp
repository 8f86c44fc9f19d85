#include <algorithm>
#include <climits>

#include "platform/time.h"

long GetAbsTimeDiffBySec(long a, long b) {
  const unsigned long difference =
      static_cast<unsigned long>(std::max(a, b)) - static_cast<unsigned long>(std::min(a, b));
  return static_cast<long>(std::min<unsigned long>(difference, LONG_MAX));
}
