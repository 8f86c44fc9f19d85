// The library's log, turned off.
#pragma once

#include "platform/log.h"

namespace bench {

// For programs that mix: the mixer logs every frame as an error.
inline void SilenceLog() {
  static DbgLogCfg silent = {};
  g_pDbgLogCfg = &silent;
}

}  // namespace bench
