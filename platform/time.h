// Platform interface: time.
#pragma once

#include <cstdint>

#include "platform/export.h"

// Microseconds to whole seconds, truncated.
VY_API long long USecToSec(long long usec);

// Microseconds of a clock that only goes forward; its zero means nothing.
VY_API std::int64_t GetMonotonicTimestamp();

// How many seconds lie between two times, whichever is the later; LONG_MAX when more than fit.
VY_API long GetAbsTimeDiffBySec(long a, long b);
