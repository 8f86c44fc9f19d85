#include "platform/local/logconfig.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "platform/file.h"
#include "platform/local/fd.h"
#include "platform/local/state.h"

namespace local {

RecordState MapDbgLogCfg(const std::string& path, RecordAccess access, DbgLogCfg*& record) {
  const bool writable = access == RecordAccess::kReadWrite;
  // Non-blocking, so that a pipe under that name cannot hold up a log call.
  const UniqueFd fd(open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd.IsOpen()) return errno == ENOENT ? RecordState::kAbsent : RecordState::kFailed;
  struct stat info = {};
  if (fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return RecordState::kFailed;
  if (info.st_size < static_cast<off_t>(sizeof(DbgLogCfg))) return RecordState::kAbsent;
  void* mapping =
      mmap(nullptr, sizeof(DbgLogCfg), writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.Get(), 0);
  if (mapping == MAP_FAILED) return RecordState::kFailed;
  record = static_cast<DbgLogCfg*>(mapping);
  return RecordState::kMapped;
}

void UnmapDbgLogCfg(DbgLogCfg* record) {
  munmap(record, sizeof(DbgLogCfg));
}

}  // namespace local

namespace {

constexpr std::int32_t kDefaultThreshold = LOG_LEVEL_WARN;

void Store(std::int32_t& word, std::int32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

bool CreateRecord(const std::string& path) {
  DbgLogCfg record = {};
  std::fill(std::begin(record.categLevel), std::end(record.categLevel), kDefaultThreshold);
  return WriteContentFromBufToFile(reinterpret_cast<const char*>(&record), sizeof(record), false, path) == 0;
}

// Changes the record in place, so that processes that have mapped it follow. The lock keeps two writers apart.
int ChangeRecord(const std::function<void(DbgLogCfg&)>& change) {
  const std::string path = local::StatePathForWriting(local::kDbgLogCfgFile);
  if (path.empty()) return -1;
  const local::UniqueFd dir(open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.IsOpen() || flock(dir.Get(), LOCK_EX) != 0) return -1;

  DbgLogCfg* record = nullptr;
  local::RecordState state = local::MapDbgLogCfg(path, local::RecordAccess::kReadWrite, record);
  if (state == local::RecordState::kAbsent && CreateRecord(path)) {
    state = local::MapDbgLogCfg(path, local::RecordAccess::kReadWrite, record);
  }
  if (state != local::RecordState::kMapped) return -1;
  change(*record);
  local::UnmapDbgLogCfg(record);
  return 0;
}

}  // namespace

int SetDbgLogLevel(LOG_CATEG categ, int level) {
  if (categ < 0 || categ >= DbgLogCfg::kCategCount || level < 0 || level > LOG_LEVEL_TRACE) return -1;
  return ChangeRecord([=](DbgLogCfg& record) { Store(record.categLevel[categ], level); });
}

int SetDbgLogPids(const std::vector<int>& pids) {
  if (pids.size() > static_cast<std::size_t>(DbgLogCfg::kPidCapacity)) return -1;
  if (std::any_of(pids.begin(), pids.end(), [](int pid) { return pid <= 0; })) return -1;
  return ChangeRecord([&](DbgLogCfg& record) {
    // A reader takes the count first: it shrinks before words go and grows after words have come.
    const auto count = static_cast<std::int32_t>(pids.size());
    Store(record.pidCount, std::min(count, std::clamp(record.pidCount, 0, DbgLogCfg::kPidCapacity)));
    for (std::size_t i = 0; i < std::size(record.pids); ++i) Store(record.pids[i], i < pids.size() ? pids[i] : 0);
    Store(record.pidCount, count);
  });
}
