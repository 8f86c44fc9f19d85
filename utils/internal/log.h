// The log guard, for the named sources only: helpers and headers never log. A message that will be dropped costs the
// level check and nothing else. Each source names its category: constexpr LOG_CATEG kLogCategory = ...;
#pragma once

#include <array>
#include <cstddef>

#include "platform/log.h"
#include "utils/mpeg4util.h"

namespace mediautil {

// The threshold when there is no configuration or the pid filter leaves this process out.
constexpr int kDefaultLogThreshold = LOG_LEVEL_WARN;

// The threshold without a mapped configuration or under a pid filter (utils/mpeg4util.cpp).
int LogThresholdSlow(LOG_CATEG categ);

inline bool LogEnabled(LOG_CATEG categ, int level) {
  const DbgLogCfg* cfg = __atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE);
  if (__builtin_expect(cfg != nullptr && cfg->pidCount <= 0, 1)) {
    return level <= cfg->categLevel[categ];
  }
  return level <= LogThresholdSlow(categ);
}

// The guard of the media category as one function, for messages logged from a shared tail of code.
inline bool MediaLogEnabled(int level) {
  return LogEnabled(LOG_CATEG_MEDIA, level);
}

// "…/utils/mpeg4util.cpp" to "utils/mpeg4util": the last folder and the name without extension.
template <std::size_t N>
constexpr std::array<char, N> CutSourcePath(const char (&file)[N]) {
  std::size_t begin = 0;
  std::size_t previous = 0;
  std::size_t end = N - 1;
  for (std::size_t i = 0; i + 1 < N; ++i) {
    if (file[i] == '/') {
      begin = previous;
      previous = i + 1;
    }
  }
  for (std::size_t i = previous; i + 1 < N; ++i) {
    if (file[i] == '.') {
      end = i;
    }
  }
  std::array<char, N> path{};
  for (std::size_t i = begin; i < end; ++i) {
    path[i - begin] = file[i];
  }
  return path;
}

// Of the source being compiled, whatever header the expansion stands in.
static constexpr auto kSourcePath = CutSourcePath(__BASE_FILE__);

}  // namespace mediautil

// Logs one message of this source's category: VY_LOG(LOG_LEVEL_ERR, "Failed, Ret[%d].\n", ret).
#define VY_LOG(level, ...)                                                                            \
  do {                                                                                                \
    if (mediautil::LogEnabled(kLogCategory, level)) {                                                 \
      VyPrintf(LOG_TYPE_DEFAULT, Enum2String<LOG_CATEG>(kLogCategory), Enum2String<LOG_LEVEL>(level), \
               mediautil::kSourcePath.data(), __LINE__, __func__, __VA_ARGS__);                       \
    }                                                                                                 \
  } while (false)

// When the condition holds: logs the message at this line and returns the result.
#define VY_FAIL_IF(condition, result, level, ...) \
  do {                                            \
    if (condition) {                              \
      VY_LOG(level, __VA_ARGS__);                 \
      return result;                              \
    }                                             \
  } while (false)
