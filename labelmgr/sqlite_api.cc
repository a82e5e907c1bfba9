#include "labelmgr/sqlite_api.h"

#include "common/shared_object_internal.h"

namespace zorv::labelmgr {

const SqliteApi* sqliteApi() {
  static SqliteApi api;
  // Loaded once, by the first caller; later callers wait for it.
  static const bool loaded =
      loadFunctions("libsqlite3.so.0", {{api.open_v2, "sqlite3_open_v2"},
                                        {api.close, "sqlite3_close"},
                                        {api.busy_timeout, "sqlite3_busy_timeout"},
                                        {api.errmsg, "sqlite3_errmsg"},
                                        {api.exec, "sqlite3_exec"},
                                        {api.free, "sqlite3_free"},
                                        {api.prepare_v2, "sqlite3_prepare_v2"},
                                        {api.finalize, "sqlite3_finalize"},
                                        {api.bind_int64, "sqlite3_bind_int64"},
                                        {api.bind_text, "sqlite3_bind_text"},
                                        {api.step, "sqlite3_step"},
                                        {api.column_int64, "sqlite3_column_int64"},
                                        {api.column_text, "sqlite3_column_text"},
                                        {api.column_bytes, "sqlite3_column_bytes"},
                                        {api.file_control, "sqlite3_file_control"}});
  return loaded ? &api : nullptr;
}

}  // namespace zorv::labelmgr
