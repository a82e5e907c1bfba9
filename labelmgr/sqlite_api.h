// The SQLite functions the state database uses, opened on first use: reading
// or showing a label never touches the database, and mapping libsqlite3 would
// be a good part of such a run.
#ifndef ZORV_LABELMGR_SQLITE_API_H_
#define ZORV_LABELMGR_SQLITE_API_H_

#include <sqlite3.h>

namespace zorv::labelmgr {

struct SqliteApi {
  // Exactly the types SQLite's header declares.
  decltype(&::sqlite3_open_v2) open_v2;
  decltype(&::sqlite3_close) close;
  decltype(&::sqlite3_busy_timeout) busy_timeout;
  decltype(&::sqlite3_errmsg) errmsg;
  decltype(&::sqlite3_exec) exec;
  decltype(&::sqlite3_free) free;
  decltype(&::sqlite3_prepare_v2) prepare_v2;
  decltype(&::sqlite3_finalize) finalize;
  decltype(&::sqlite3_bind_int64) bind_int64;
  decltype(&::sqlite3_bind_text) bind_text;
  decltype(&::sqlite3_step) step;
  decltype(&::sqlite3_column_int64) column_int64;
  decltype(&::sqlite3_column_text) column_text;
  decltype(&::sqlite3_column_bytes) column_bytes;
  decltype(&::sqlite3_file_control) file_control;
};

/// libsqlite3.so.0's functions, opened by the first call (thread-safe);
/// nullptr, with an error logged, when the library cannot be used.
const SqliteApi* sqliteApi();

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_SQLITE_API_H_
