#include "labelmgr/state_db.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "labelmgr/sqlite_api.h"
#include "log/logger.h"

#ifndef ZORV_DEFAULT_STATE_DIR
#define ZORV_DEFAULT_STATE_DIR "/var/lib/zorv/label"
#endif

namespace zorv::labelmgr {

namespace {

// Only reached once sqliteApi() has answered; see StateDb::open.
const SqliteApi& sqlite() { return *sqliteApi(); }

// WAL lets readers go on while a writer holds the lock; a file system that
// cannot do WAL leaves the journal mode as it was, which still works.
// Switching a new database to WAL needs a lock that SQLite does not wait for
// through the busy handler, so two runs creating the database at the same
// moment would see "database is locked": that is retried for as long as the
// busy timeout allows.
bool switchToWal(sqlite3* handle, const std::string& path, int timeoutMs) {
  const char* const kSql = "PRAGMA journal_mode=WAL";
  for (int waitedMs = 0;; waitedMs += 5) {
    char* message = nullptr;
    int rc = sqlite().exec(handle, kSql, nullptr, nullptr, &message);
    if (rc == SQLITE_OK) return true;
    bool busy = (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED;
    if (!busy || waitedMs >= timeoutMs) {
      ZLOG_ERROR("state database %s: \"%s\" failed: %s", path.c_str(), kSql,
                 message ? message : sqlite().errmsg(handle));
      sqlite().free(message);
      return false;
    }
    sqlite().free(message);
    ::usleep(5000);
  }
}

// Long enough to outwait another run of the tool relabelling a large pattern.
constexpr int kBusyTimeoutMs = 60000;

const char* const kSchemaV1 =
    "CREATE TABLE IF NOT EXISTS meta ("
    "  key TEXT PRIMARY KEY,"
    "  value TEXT NOT NULL);"
    // seq grows with every write, so among rules the latest set has the
    // highest seq (REPLACE deletes the old row and inserts a new one).
    "CREATE TABLE IF NOT EXISTS file_rule ("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  field TEXT NOT NULL,"
    "  is_pattern INTEGER NOT NULL,"
    "  target TEXT NOT NULL,"
    "  v0 INTEGER NOT NULL,"
    "  v1 INTEGER NOT NULL,"
    "  v2 INTEGER NOT NULL,"
    "  UNIQUE (field, is_pattern, target));"
    "CREATE TABLE IF NOT EXISTS pkg_id ("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  name TEXT NOT NULL UNIQUE,"
    "  id INTEGER NOT NULL);"
    "PRAGMA user_version = 1;";

// Creates `dir` and its missing parents; the state directory itself is private.
bool makeStateDirectory(const std::string& dir) {
  for (size_t slash = dir.find('/', 1); slash != std::string::npos;
       slash = dir.find('/', slash + 1)) {
    std::string parent = dir.substr(0, slash);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) {
      ZLOG_ERROR("cannot create directory %s: %s", parent.c_str(), strerror(errno));
      return false;
    }
  }
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    ZLOG_ERROR("cannot create state directory %s: %s", dir.c_str(), strerror(errno));
    return false;
  }
  return true;
}

int userVersion(StateDb& db) {
  Statement query(db, "PRAGMA user_version");
  return query.step() ? static_cast<int>(query.columnInt(0)) : -1;
}

}  // namespace

std::string stateDirectory() {
  const char* dir = getenv("ZORV_LABELMGR_STATE_DIR");
  if (dir != nullptr && *dir != '\0') return dir;
  return ZORV_DEFAULT_STATE_DIR;
}

std::unique_ptr<StateDb> StateDb::open(OpenMode mode, bool* absent) {
  if (absent != nullptr) *absent = false;
  std::string dir = stateDirectory();
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  std::string path = dir + "/labelmgr.db";

  int flags = SQLITE_OPEN_READWRITE;
  if (mode == OpenMode::kCreate) {
    if (!makeStateDirectory(dir)) return nullptr;
    flags |= SQLITE_OPEN_CREATE;
  } else if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
    if (absent != nullptr) *absent = true;
    return nullptr;
  }

  if (sqliteApi() == nullptr) return nullptr;
  sqlite3* handle = nullptr;
  if (sqlite().open_v2(path.c_str(), &handle, flags, nullptr) != SQLITE_OK) {
    ZLOG_ERROR("cannot open state database %s: %s", path.c_str(),
               handle ? sqlite().errmsg(handle) : "out of memory");
    sqlite().close(handle);
    return nullptr;
  }
  std::unique_ptr<StateDb> db(new StateDb(handle, path));
  sqlite().busy_timeout(handle, kBusyTimeoutMs);
  if (!switchToWal(handle, path, kBusyTimeoutMs)) return nullptr;
  if (!db->migrate()) return nullptr;
  return db;
}

StateDb::~StateDb() { sqlite().close(db_); }

bool StateDb::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite().exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  ZLOG_ERROR("state database %s: \"%s\" failed: %s", path_.c_str(), sql,
             message ? message : sqlite().errmsg(db_));
  sqlite().free(message);
  return false;
}

bool StateDb::migrate() {
  int version = userVersion(*this);
  if (version == kSchemaVersion) return true;
  if (version < 0) return false;
  if (version > kSchemaVersion) {
    ZLOG_ERROR("state database %s has schema version %d, newer than this library's %d",
               path_.c_str(), version, kSchemaVersion);
    return false;
  }
  ImmediateTransaction transaction(*this);
  if (!transaction.begun()) return false;
  // Another process may have created the schema while we waited for the lock.
  version = userVersion(*this);
  if (version == 0 && !exec(kSchemaV1)) return false;
  return transaction.commit();
}

Statement::Statement(StateDb& db, const char* sql) : db_(db), sql_(sql) {
  if (sqlite().prepare_v2(db.handle(), sql, -1, &stmt_, nullptr) != SQLITE_OK) {
    ZLOG_ERROR("state database %s: cannot prepare \"%s\": %s", db.path().c_str(), sql,
               sqlite().errmsg(db.handle()));
    sqlite().finalize(stmt_);
    stmt_ = nullptr;
    failed_ = true;
  }
}

Statement::~Statement() { sqlite().finalize(stmt_); }

void Statement::bind(int index, int64_t value) {
  if (stmt_ != nullptr) sqlite().bind_int64(stmt_, index, value);
}

void Statement::bind(int index, const std::string& value) {
  if (stmt_ != nullptr)
    sqlite().bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                       SQLITE_TRANSIENT);
}

bool Statement::step() {
  if (stmt_ == nullptr || failed_) return false;
  int rc = sqlite().step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  failed_ = true;
  ZLOG_ERROR("state database %s: \"%s\" failed: %s", db_.path().c_str(), sql_.c_str(),
             sqlite().errmsg(db_.handle()));
  return false;
}

bool Statement::run() {
  while (step()) {
  }
  return !failed_;
}

int64_t Statement::columnInt(int column) const { return sqlite().column_int64(stmt_, column); }

std::string Statement::columnText(int column) const {
  const unsigned char* text = sqlite().column_text(stmt_, column);
  if (text == nullptr) return "";
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite().column_bytes(stmt_, column)));
}

ImmediateTransaction::ImmediateTransaction(StateDb& db) : db_(db) {
  open_ = db_.exec("BEGIN IMMEDIATE");
}

ImmediateTransaction::~ImmediateTransaction() {
  if (open_) sqlite().exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool ImmediateTransaction::commit() {
  if (!open_) return false;
  if (!db_.exec("COMMIT")) return false;  // the destructor rolls back
  open_ = false;
  return true;
}

std::optional<std::string> readMeta(StateDb& db, const std::string& key) {
  Statement query(db, "SELECT value FROM meta WHERE key = ?1");
  query.bind(1, key);
  if (!query.step()) return std::nullopt;
  return query.columnText(0);
}

bool writeMeta(StateDb& db, const std::string& key, const std::string& value) {
  Statement update(db, "INSERT OR REPLACE INTO meta (key, value) VALUES (?1, ?2)");
  update.bind(1, key);
  update.bind(2, value);
  return update.run();
}

bool setLabelSetStatus(StateDb& db, int status) {
  return writeMeta(db, "label_set_status", std::to_string(status));
}

bool setLabelSetStatus(int status) {
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kCreate);
  return db != nullptr && setLabelSetStatus(*db, status);
}

int readLabelSetStatus() {
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return 0;
  std::optional<std::string> value = readMeta(*db, "label_set_status");
  if (!value) return kLabelSetNone;
  if (*value == "1") return kLabelSetComplete;
  return *value == "2" ? kLabelSetIncomplete : kLabelSetNone;
}

}  // namespace zorv::labelmgr
