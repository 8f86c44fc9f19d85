#include "platform/local/store.h"

#include <unistd.h>
#include <cerrno>

#include "platform/local/state.h"

namespace local {
namespace {

constexpr const char* kFile = "nvr.db";
constexpr int kBusyTimeoutMs = 5000;
constexpr int kSchemaVersion = 2;

// One transaction, so that a reader sees all tables of a version or none of them; it also upgrades an older store. A
// camera's events go with it: they must not show up under a new camera of the same number.
constexpr const char* kSchema = R"sql(
BEGIN IMMEDIATE;
CREATE TABLE IF NOT EXISTS cameras (
  id INTEGER PRIMARY KEY,
  video_type INTEGER NOT NULL,
  privacy_region TEXT NOT NULL,
  stream_high INTEGER NOT NULL,
  stream_medium INTEGER NOT NULL,
  stream_low INTEGER NOT NULL,
  live_profile INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS events (
  camera_id INTEGER NOT NULL,
  event_id INTEGER NOT NULL,
  thumbnail BLOB,
  preview BLOB,
  preview_create_tm INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (camera_id, event_id));
CREATE TRIGGER IF NOT EXISTS camera_removed AFTER DELETE ON cameras
BEGIN
  DELETE FROM events WHERE camera_id = OLD.id;
END;
-- version 2
CREATE TABLE IF NOT EXISTS archive_tasks (
  id INTEGER PRIMARY KEY,
  src_dir TEXT NOT NULL);
PRAGMA user_version = 2;
COMMIT;
)sql";

int SchemaVersion(const Store& store) {
  Statement statement(store, "PRAGMA user_version");
  return statement.Next() ? statement.GetInt(0) : -1;
}

}  // namespace

Store::Store(Access access) : m_state(State::kFailed) {
  m_state = Open(access);
}

Store::State Store::Open(Access access) {
  const bool write = access == Access::kWrite;
  const std::string path = write ? StatePathForWriting(kFile) : StatePath(kFile);
  if (path.empty()) return State::kFailed;
  if (!write && ::access(path.c_str(), F_OK) != 0) return errno == ENOENT ? State::kEmpty : State::kFailed;

  // A reader opens for writing too: it may have to roll back what a killed writer left.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (write ? SQLITE_OPEN_CREATE : 0);
  sqlite3* db = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  m_db.reset(db);  // a failed open hands out a handle as well
  if (result != SQLITE_OK || sqlite3_busy_timeout(db, kBusyTimeoutMs) != SQLITE_OK) return State::kFailed;

  const int version = SchemaVersion(*this);
  if (version == kSchemaVersion) return State::kOpen;
  if (version < 0 || version > kSchemaVersion) return State::kFailed;
  if (!write) return version == 0 ? State::kEmpty : State::kOpen;  // an older store lacks tables, no more
  return sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK ? State::kOpen : State::kFailed;
}

Statement::Statement(const Store& store, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  m_result = sqlite3_prepare_v2(store.Get(), sql, -1, &statement, nullptr);
  m_statement.reset(statement);
}

Statement& Statement::Bind(long long value) {
  if (CanBind()) m_result = sqlite3_bind_int64(m_statement.get(), ++m_boundCount, value);
  return *this;
}

Statement& Statement::Bind(const std::string& value) {
  if (CanBind()) {
    m_result = sqlite3_bind_text64(m_statement.get(), ++m_boundCount, value.data(), value.size(), nullptr, SQLITE_UTF8);
  }
  return *this;
}

Statement& Statement::Bind(const std::vector<unsigned char>& value) {
  if (CanBind()) {
    m_result = sqlite3_bind_blob64(m_statement.get(), ++m_boundCount, value.data(), value.size(), nullptr);
  }
  return *this;
}

bool Statement::Next() {
  if (m_result == SQLITE_OK || m_result == SQLITE_ROW) m_result = sqlite3_step(m_statement.get());
  return m_result == SQLITE_ROW;
}

std::string Statement::GetText(int column) const {
  const std::vector<unsigned char> bytes = GetBlob(column);
  return std::string(bytes.begin(), bytes.end());
}

std::vector<unsigned char> Statement::GetBlob(int column) const {
  const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(m_statement.get(), column));
  const int size = sqlite3_column_bytes(m_statement.get(), column);
  return data == nullptr ? std::vector<unsigned char>() : std::vector<unsigned char>(data, data + size);
}

}  // namespace local
