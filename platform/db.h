// Platform interface: the recorder's databases.
#pragma once

#include <list>
#include <string>

#include "platform/export.h"

// The rows of a query, all of them, in memory.
struct DBResult_tag;

// Queries and the texts in them.
class VY_API VyDB {
 public:
  // A text for a LIKE pattern that matches only itself: the wildcards "%" and "_" and the escape character "\" are
  // escaped with "\". The query declares ESCAPE '\'.
  static std::string EscapeSpecialChars(const std::string& text);

  // A quoted SQL string literal of the text. It ends at a NUL, as SQL texts do.
  static std::string QuoteEscape(const std::string& text);

  // Runs one SELECT on the database file at dbPath, which is opened for reading only and never created. 0 on success
  // and *result is to be released with VyDBFreeResult; -1 otherwise, also for any other or a second statement, a result
  // over 16 MiB, a query of more than 100 million steps (some 10 a row) and a file kept locked for 5 s, *result is null
  // then. A file in WAL mode needs its companion files or a directory where SQLite can make them. The flags and the
  // list are the server's own options.
  static int Executep(const std::string& dbPath, const std::string& sql, DBResult_tag** result, bool, bool, bool, bool,
                      const std::list<std::string>&);
};

// Goes to the next row of a result, *row is its number. 0 when there is one, -1 after the last.
VY_API int VyDBFetchRow(DBResult_tag* result, unsigned int* row);

// The text of a row's field, found by its column's name in any case; null when there is no such row or field, or the
// field is null. Lives as long as the result.
VY_API const char* VyDBFetchField(DBResult_tag* result, unsigned int row, const char* field);

// Null is fine.
VY_API void VyDBFreeResult(DBResult_tag* result);
