// Platform interface: debug-log configuration and log sink.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/export.h"

// The kind of a log; the library knows only one.
enum LOG_TYPE : int { LOG_TYPE_DEFAULT = 0 };

// What a message is about. Values index DbgLogCfg::categLevel.
enum LOG_CATEG : int {
  LOG_CATEG_ARCHPUSH = 23,  // archive push to a remote recorder
  LOG_CATEG_MEDIA = 75,     // decoding, pictures, sound, containers
};

// How much a message matters; a smaller number is more severe. Without a configuration 1 to 3 are written.
//
//   level  read by                                  may print
//   1      the operator, always                     once per failed call
//   3      the operator, when something looks odd   once per rejected input
//   4      support, on one camera or export         a few per call
//   5, 6   developers, on one feature               once per frame or request
//   7      developers, on one process (pid filter)  without bound
enum LOG_LEVEL : int {
  LOG_LEVEL_ERR = 1,
  LOG_LEVEL_WARN = 3,
  LOG_LEVEL_NOTE = 4,
  LOG_LEVEL_INFO = 5,
  LOG_LEVEL_DEBUG = 6,
  LOG_LEVEL_TRACE = 7,
};

// The shared record that every process of the server reads; one page, 32-bit signed words.
struct DbgLogCfg {
  static constexpr int kCategCount = 512;   // categories
  static constexpr int kPidCapacity = 510;  // processes

  std::int32_t reserved;                 // 0
  std::int32_t categLevel[kCategCount];  // level threshold of each category
  std::int32_t pidCount;                 // 0 or less: no process is filtered out
  std::int32_t pids[kPidCapacity];       // the processes that follow the thresholds
};
static_assert(offsetof(DbgLogCfg, categLevel) == 4, "shared record layout");
static_assert(offsetof(DbgLogCfg, pidCount) == 2052, "shared record layout");
static_assert(offsetof(DbgLogCfg, pids) == 2056, "shared record layout");
static_assert(sizeof(DbgLogCfg) == 4096, "shared record layout");

// Null until ReinitDbgLogCfg has found the record. Several threads may read and set it: use atomic loads and stores.
extern VY_API DbgLogCfg* g_pDbgLogCfg;

// Cached process id, 0 until the first check that needs it.
extern VY_API int g_DbgLogPid;

// Maps the record into g_pDbgLogCfg; a mapping that is there already stays. Leaves the pointer as it is when there is
// no record. Any thread, any time; errno is kept.
VY_API void ReinitDbgLogCfg();

// Writes one message as one line. Texts may be null. Returns the number of bytes written, negative on failure. Any
// thread; errno is kept, nothing is thrown. What a message must not reveal (session ids, passwords, cookies) is masked
// here, for the callers log what they have.
VY_API int VyVPrintf(LOG_TYPE type, const char* categText, const char* levelText, const char* sourcePath, int line,
                     const char* function, const char* format, va_list args) __attribute__((format(printf, 7, 0)));

// The texts of an enumeration; the platform's constructors fill it.
template <typename E>
class VyEnum2StrMap {
 public:
  VyEnum2StrMap();

  // Null for a value without a text. The text lives as long as the map.
  const char* Find(E value) const {
    const auto it = m_texts.find(value);
    return it == m_texts.end() ? nullptr : it->second;
  }

  // All of them.
  const std::map<E, const char*>& Texts() const { return m_texts; }

 private:
  std::map<E, const char*> m_texts;
};
template <>
VY_API VyEnum2StrMap<LOG_CATEG>::VyEnum2StrMap();
template <>
VY_API VyEnum2StrMap<LOG_LEVEL>::VyEnum2StrMap();

// For operators: change the shared record, creating it when it is absent, so that running processes follow at once.
// 0 on success, -1 when there is no state directory, it cannot be written, or a value is out of range.
VY_API int SetDbgLogLevel(LOG_CATEG categ, int level);
VY_API int SetDbgLogPids(const std::vector<int>& pids);
