#include "platform/local/netlog.h"

#include <unistd.h>

#include <algorithm>

namespace local {
namespace {

const DbgLogCfg* Configuration() {
  const DbgLogCfg* cfg = __atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE);
  if (cfg == nullptr) {
    ReinitDbgLogCfg();
    cfg = __atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE);
  }
  return cfg;
}

bool FollowsThresholds(const DbgLogCfg& cfg) {
  const std::int32_t count = __atomic_load_n(&cfg.pidCount, __ATOMIC_RELAXED);
  const std::int32_t* end = cfg.pids + std::clamp(count, 0, DbgLogCfg::kPidCapacity);
  return count <= 0 || std::find(cfg.pids, end, getpid()) != end;
}

int Threshold() {
  const DbgLogCfg* cfg = Configuration();
  return cfg != nullptr && FollowsThresholds(*cfg) ? cfg->categLevel[LOG_CATEG_ARCHPUSH] : LOG_LEVEL_WARN;
}

}  // namespace

void LogNet(LOG_LEVEL level, const char* source, int line, const char* function, const char* format, ...) {
  if (level > Threshold()) return;
  static const VyEnum2StrMap<LOG_CATEG> categories;
  static const VyEnum2StrMap<LOG_LEVEL> levels;
  va_list args;
  va_start(args, format);
  VyVPrintf(LOG_TYPE_DEFAULT, categories.Find(LOG_CATEG_ARCHPUSH), levels.Find(level), source, line, function, format,
            args);
  va_end(args);
}

}  // namespace local
