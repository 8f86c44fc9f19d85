// The database of the stand-in, the file nvr.db in the state directory. Opened for each operation.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

namespace local {

struct SqliteFree {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
template <typename T>
using SqlitePtr = std::unique_ptr<T, SqliteFree>;

class Store {
 public:
  enum class Access { kRead, kWrite };
  enum class State {
    kOpen,
    kEmpty,  // read access and nothing was ever stored
    kFailed,
  };

  // Write access makes what is absent: directory, file, tables.
  explicit Store(Access access);

  State GetState() const { return m_state; }
  bool IsOpen() const { return m_state == State::kOpen; }
  sqlite3* Get() const { return m_db.get(); }
  int ChangedRows() const { return sqlite3_changes(m_db.get()); }

 private:
  State Open(Access access);

  SqlitePtr<sqlite3> m_db;
  State m_state;
};

// One statement of an open store. Values are bound in order and must outlive the statement.
class Statement {
 public:
  Statement(const Store& store, const char* sql);

  Statement& Bind(long long value);
  Statement& Bind(const std::string& value);
  Statement& Bind(const std::vector<unsigned char>& value);

  // Goes to the next row; false after the last one and on an error.
  bool Next();
  // Runs a statement that has no rows.
  bool Run() { return !Next() && Succeeded(); }
  bool Succeeded() const { return m_result == SQLITE_DONE; }

  int GetInt(int column) const { return sqlite3_column_int(m_statement.get(), column); }
  long long GetInt64(int column) const { return sqlite3_column_int64(m_statement.get(), column); }
  std::string GetText(int column) const;
  std::vector<unsigned char> GetBlob(int column) const;

 private:
  bool CanBind() { return m_result == SQLITE_OK; }

  SqlitePtr<sqlite3_stmt> m_statement;
  int m_result;
  int m_boundCount = 0;
};

}  // namespace local
