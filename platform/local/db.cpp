#include "platform/db.h"

#include <sys/stat.h>

#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "platform/local/store.h"

using local::SqlitePtr;

namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr int kMaxResultBytes = 16 << 20;
constexpr int kStepsAtOnce = 1000000;  // a row takes about 10
constexpr int kMaxStepRounds = 100;
constexpr std::uint32_t kNull = std::numeric_limits<std::uint32_t>::max();

}  // namespace

struct DBResult_tag {
  std::vector<std::string> columns;
  std::vector<std::uint32_t> fields;  // row by row, where each begins in texts; kNull for null
  std::string texts;                  // each ends in a NUL
  unsigned int fetched = 0;           // rows

  std::size_t Rows() const { return columns.empty() ? 0 : fields.size() / columns.size(); }
  std::size_t Bytes() const { return texts.size() + fields.size() * sizeof(fields[0]); }
};

namespace {

// Only what reads tables: no pragma, which may change the whole process, and no second database.
int Authorize(void*, int action, const char*, const char*, const char*, const char*) {
  const bool reads =
      action == SQLITE_SELECT || action == SQLITE_READ || action == SQLITE_FUNCTION || action == SQLITE_RECURSIVE;
  return reads ? SQLITE_OK : SQLITE_DENY;
}

int CountRound(void* rounds) {
  return ++*static_cast<int*>(rounds) > kMaxStepRounds ? 1 : 0;
}

// SQLite waits for the writer of a FIFO. The file is not opened to look: closing it would drop the locks that other
// connections of this process hold on it.
bool IsRegularFile(const std::string& path) {
  struct stat info = {};
  return path.find('\0') == std::string::npos && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The file may come from a broken or hostile hand: its schema may call no function with side effects, its cells are
// checked and it does not choose the size of the cache.
SqlitePtr<sqlite3> Open(const std::string& dbPath) {
  if (!IsRegularFile(dbPath)) return nullptr;
  const std::string path = dbPath.front() == '/' ? dbPath : "./" + dbPath;  // "file:x" and ":memory:" are files too
  sqlite3* handle = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  SqlitePtr<sqlite3> db(handle);
  if (result != SQLITE_OK || sqlite3_busy_timeout(handle, kBusyTimeoutMs) != SQLITE_OK ||
      sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr) != SQLITE_OK ||
      sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr) != SQLITE_OK ||
      sqlite3_exec(handle, "PRAGMA cell_size_check = 1; PRAGMA cache_size = -2000", nullptr, nullptr, nullptr) !=
          SQLITE_OK ||
      sqlite3_set_authorizer(handle, Authorize, nullptr) != SQLITE_OK) {
    return nullptr;
  }
  sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, kMaxResultBytes);
  return db;
}

// Null unless the text is one statement, and the authorizer takes it.
SqlitePtr<sqlite3_stmt> Prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* handle = nullptr;
  const char* tail = nullptr;
  const int result = sqlite3_prepare_v2(db, sql.c_str(), -1, &handle, &tail);
  SqlitePtr<sqlite3_stmt> statement(handle);
  if (result != SQLITE_OK || handle == nullptr) return nullptr;
  const auto end = static_cast<std::size_t>(tail - sql.c_str());
  return sql.find_first_not_of(" \t\r\n;", end) == std::string::npos ? std::move(statement) : nullptr;
}

void AddField(DBResult_tag& result, sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  result.fields.push_back(text == nullptr ? kNull : static_cast<std::uint32_t>(result.texts.size()));
  if (text != nullptr) result.texts.append(text, std::char_traits<char>::length(text) + 1);
}

// False on an error and when the rows are too many.
bool ReadRows(sqlite3* db, sqlite3_stmt* statement, DBResult_tag& result) {
  int rounds = 0;
  sqlite3_progress_handler(db, kStepsAtOnce, CountRound, &rounds);
  const int columns = sqlite3_column_count(statement);
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(statement, i);
    result.columns.emplace_back(name == nullptr ? "" : name);
  }
  int step = SQLITE_ROW;
  while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
    for (int i = 0; i < columns; ++i) {
      AddField(result, statement, i);
      if (result.Bytes() > kMaxResultBytes) return false;
    }
  }
  return step == SQLITE_DONE;
}

}  // namespace

std::string VyDB::EscapeSpecialChars(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '%' || c == '_') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string VyDB::QuoteEscape(const std::string& text) {
  std::string quoted = "'";
  for (const char c : std::string_view(text.c_str())) quoted.append(c == '\'' ? 2 : 1, c);
  return quoted + "'";
}

int VyDB::Executep(const std::string& dbPath, const std::string& sql, DBResult_tag** result, bool, bool, bool, bool,
                   const std::list<std::string>&) {
  if (result == nullptr) return -1;
  *result = nullptr;
  const SqlitePtr<sqlite3> db = Open(dbPath);
  if (db == nullptr) return -1;
  const SqlitePtr<sqlite3_stmt> statement = Prepare(db.get(), sql);
  auto rows = std::make_unique<DBResult_tag>();
  if (statement == nullptr || !ReadRows(db.get(), statement.get(), *rows)) return -1;
  *result = rows.release();
  return 0;
}

int VyDBFetchRow(DBResult_tag* result, unsigned int* row) {
  if (result == nullptr || row == nullptr || result->fetched >= result->Rows()) return -1;
  *row = result->fetched++;
  return 0;
}

const char* VyDBFetchField(DBResult_tag* result, unsigned int row, const char* field) {
  if (result == nullptr || field == nullptr || row >= result->Rows()) return nullptr;
  const std::size_t columns = result->columns.size();
  for (std::size_t i = 0; i < columns; ++i) {
    if (sqlite3_stricmp(result->columns[i].c_str(), field) != 0) continue;
    const std::uint32_t begin = result->fields[row * columns + i];
    return begin == kNull ? nullptr : result->texts.c_str() + begin;
  }
  return nullptr;
}

void VyDBFreeResult(DBResult_tag* result) {
  delete result;
}
