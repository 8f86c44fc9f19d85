#include "platform/time.h"

long long USecToSec(long long usec) {
  return usec / 1000000;
}
