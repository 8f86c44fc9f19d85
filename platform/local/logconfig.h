// Access to the shared debug-log record, the file dbglog.cfg in the state directory.
#pragma once

#include <string>

#include "platform/log.h"

namespace local {

constexpr const char* kDbgLogCfgFile = "dbglog.cfg";

enum class RecordAccess { kRead, kReadWrite };
enum class RecordState { kMapped, kAbsent, kFailed };

// Maps the record at path, shared. kAbsent: nothing there, or a regular file too short to be a record.
RecordState MapDbgLogCfg(const std::string& path, RecordAccess access, DbgLogCfg*& record);
void UnmapDbgLogCfg(DbgLogCfg* record);

}  // namespace local
