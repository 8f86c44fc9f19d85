// Platform interface: time.
#pragma once

#include "platform/export.h"

// Microseconds to whole seconds, truncated.
VY_API long long USecToSec(long long usec);
