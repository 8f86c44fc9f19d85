// Messages of the network topics: category archive push, under the thresholds of the debug-log configuration.
#pragma once

#include "platform/log.h"

namespace local {

// source: as "local/http". Never with a secret: a path's query, a cookie, a password.
void LogNet(LOG_LEVEL level, const char* source, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

}  // namespace local
