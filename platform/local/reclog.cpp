#include "platform/reclog.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>

#include "platform/file.h"
#include "platform/local/readfile.h"

int ReadRecLog2(const std::string& dir, long startTime, BitwiseEnum<REC_TRIG_META>& map) {
  constexpr std::size_t kEntryBytes = BitwiseEnum<REC_TRIG_META>::kEntryBytes;
  const std::string path = (dir.empty() ? "." : dir) + "/triggers/" + std::to_string(startTime) + ".trig";
  std::string log;
  if (path.find('\0') != std::string::npos) return -1;
  if (!local::ReadRegularFile(path, O_NOFOLLOW, map.Size(), log)) return -1;
  log.resize(log.size() - log.size() % kEntryBytes);
  std::copy(log.begin(), log.end(), map.Data());
  return 0;
}

long EventNameParser::GetRecStartTime(const std::string& path, bool) {
  constexpr const char* kDigits = "0123456789";
  const std::string name = GetBaseName(path);
  const std::string stem = name.substr(0, name.rfind('.'));
  const std::size_t last = stem.find_last_of(kDigits);
  if (last == std::string::npos) return 0;
  const std::size_t before = stem.find_last_not_of(kDigits, last);
  const std::size_t first = before == std::string::npos ? 0 : before + 1;
  long seconds = 0;
  std::from_chars(stem.data() + first, stem.data() + last + 1, seconds);
  return seconds;  // unchanged when out of range
}
