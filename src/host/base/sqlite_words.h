// What SQLite's result codes mean, as the end of a sentence about a file. SQLite's own words follow in
// parentheses, for those who look for them.
#pragma once

#include <sqlite3.h>

#include <string>

namespace veld_report::host {

// `code`: may be extended. `own`: what SQLite says. "its disk is full (SQLite 13: database or disk is full)"
inline std::string SqliteWords(int code, const char* own) {
  const char* what = nullptr;
  switch (code & 0xff) {
    case SQLITE_FULL:
      what = "its disk is full";
      break;
    case SQLITE_IOERR:
      what = "its disk can't be read or written";
      break;
    case SQLITE_READONLY:
    case SQLITE_PERM:
      what = "this user may not write it";
      break;
    case SQLITE_CANTOPEN:
      what = "it can't be opened; does its folder exist, and may this user write there?";
      break;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      what = "another process has locked it";
      break;
    case SQLITE_CORRUPT:
      what = "its content is damaged";
      break;
    case SQLITE_NOTADB:
      what = "it isn't a database of SQLite, or its beginning is damaged";
      break;
    case SQLITE_NOMEM:
      what = "there isn't enough memory";
      break;
    default:  // a constraint, say, of which only SQLite knows more
      break;
  }
  if (!what) return own + (" (SQLite " + std::to_string(code) + ')');
  return std::string(what) + " (SQLite " + std::to_string(code) + ": " + own + ")";
}

}  // namespace veld_report::host
