#include "labelmgr/sqlite_api.h"

#include "common/shared_object_internal.h"

namespace zorv::labelmgr {
namespace {

const SqliteApi* openSqliteApi() {
  static SharedObject library("libsqlite3.so.0");
  static SqliteApi api;
  library.resolve(api.open_v2, "sqlite3_open_v2");
  library.resolve(api.close, "sqlite3_close");
  library.resolve(api.busy_timeout, "sqlite3_busy_timeout");
  library.resolve(api.errmsg, "sqlite3_errmsg");
  library.resolve(api.exec, "sqlite3_exec");
  library.resolve(api.free, "sqlite3_free");
  library.resolve(api.prepare_v2, "sqlite3_prepare_v2");
  library.resolve(api.finalize, "sqlite3_finalize");
  library.resolve(api.bind_int64, "sqlite3_bind_int64");
  library.resolve(api.bind_text, "sqlite3_bind_text");
  library.resolve(api.step, "sqlite3_step");
  library.resolve(api.column_int64, "sqlite3_column_int64");
  library.resolve(api.column_text, "sqlite3_column_text");
  library.resolve(api.column_bytes, "sqlite3_column_bytes");
  library.resolve(api.file_control, "sqlite3_file_control");
  return library.ready() ? &api : nullptr;
}

}  // namespace

const SqliteApi* sqliteApi() {
  static const SqliteApi* const api = openSqliteApi();
  return api;
}

}  // namespace zorv::labelmgr
