#include "labelmgr/state_db.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "common/env_path.h"
#include "common/unique_fd.h"
#include "labelmgr/sqlite_api.h"
#include "labelmgr/state_files.h"
#include "log/logger.h"

#ifndef ZORV_DEFAULT_STATE_DIR
#define ZORV_DEFAULT_STATE_DIR "/var/lib/zorv/label"
#endif

namespace zorv::labelmgr {

namespace {

// Only reached once sqliteApi() has answered; see StateDb::open.
const SqliteApi& sqlite() { return *sqliteApi(); }

constexpr char kDatabaseFile[] = "labelmgr.db";
// Long enough to outwait another run of the tool relabelling a large pattern.
constexpr int kBusyTimeoutMs = 60000;
// What a kept -wal file may still take once its content is in the database.
const char* const kWalSizeLimit = "PRAGMA journal_size_limit=1048576";

// WAL lets readers go on while a writer holds the lock; a file system that
// cannot do WAL leaves the journal mode as it was, which still works.
// Switching a new database to WAL needs a lock that SQLite does not wait for
// through the busy handler, so two runs creating the database at the same
// moment would see "database is locked": that is retried for as long as the
// busy timeout allows. Only writers switch: a reader takes the database as
// it finds it.
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

// A WAL reader needs the -wal and -shm files, and creating them needs room
// that a full file system does not have. Every connection therefore leaves
// them in place when it closes (the -wal truncated to kWalSizeLimit), so that
// a reader finds them ready; on a read-only file system the database is
// opened immutable instead (nothing can change it there).
void keepWalFiles(sqlite3* handle) {
  int persist = 1;
  sqlite().file_control(handle, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
}

// A URI for the database on a read-only file system: nothing can change it
// there, so SQLite may skip locking and the -shm file a WAL database would
// otherwise need.
std::string immutableUri(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string uri = "file:";
  for (unsigned char c : path) {
    if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.') {
      uri += static_cast<char>(c);
    } else {
      uri += '%';
      uri += kHex[c >> 4];
      uri += kHex[c & 15];
    }
  }
  return uri + "?immutable=1";
}

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

int userVersion(StateDb& db) {
  Statement query(db, "PRAGMA user_version");
  return query.step() ? static_cast<int>(query.columnInt(0)) : -1;
}

}  // namespace

std::string stateDirectory() {
  return envPathOr("ZORV_LABELMGR_STATE_DIR", ZORV_DEFAULT_STATE_DIR);
}

const char* builtInStateDirectory() { return ZORV_DEFAULT_STATE_DIR; }

std::unique_ptr<StateDb> StateDb::open(OpenMode mode, bool* absent, const std::string* directory) {
  if (absent != nullptr) *absent = false;
  bool create = mode == OpenMode::kCreate;
  StateDir dir;
  std::string error;
  int rc = openStateDir(directory != nullptr ? *directory : stateDirectory(), create, &dir, &error);
  if (rc == -ENOENT && !create) {
    if (absent != nullptr) *absent = true;
    return nullptr;
  }
  if (rc != 0) {
    ZLOG_ERROR("cannot open the state database: %s", error.c_str());
    return nullptr;
  }
  // Made here rather than by SQLite, so that a link or a FIFO planted in its
  // place is refused instead of followed or waited on.
  UniqueFd file;
  rc = openStateFile(dir, kDatabaseFile, create ? O_RDWR | O_CREAT : O_RDONLY, 0600, &file, &error);
  if (rc == -EROFS) rc = openStateFile(dir, kDatabaseFile, O_RDONLY, 0, &file, &error);
  std::string path = dir.path + "/" + kDatabaseFile;
  if (rc == -ENOENT && create) {
    ZLOG_ERROR("cannot create state database %s: read-only file system", path.c_str());
    return nullptr;
  }
  if (rc == -ENOENT) {
    if (absent != nullptr) *absent = true;
    return nullptr;
  }
  if (rc != 0) {
    ZLOG_ERROR("cannot open the state database: %s", error.c_str());
    return nullptr;
  }
  struct statvfs fs;
  bool readOnlyFs = ::fstatvfs(file.get(), &fs) == 0 && (fs.f_flag & ST_RDONLY) != 0;
  file.reset();

  if (sqliteApi() == nullptr) return nullptr;
  int flags =
      SQLITE_OPEN_NOFOLLOW |
      (mode == OpenMode::kReadOnly || readOnlyFs ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE);
  std::string name = path;
  if (readOnlyFs) {
    name = immutableUri(path);
    flags |= SQLITE_OPEN_URI;
  }
  sqlite3* handle = nullptr;
  if (sqlite().open_v2(name.c_str(), &handle, flags, nullptr) != SQLITE_OK) {
    ZLOG_ERROR("cannot open state database %s: %s", path.c_str(),
               handle ? sqlite().errmsg(handle) : "out of memory");
    sqlite().close(handle);
    return nullptr;
  }
  std::unique_ptr<StateDb> db(new StateDb(handle, path));
  sqlite().busy_timeout(handle, kBusyTimeoutMs);
  if (!readOnlyFs) keepWalFiles(handle);
  if (create && !readOnlyFs &&
      (!switchToWal(handle, path, kBusyTimeoutMs) || !db->exec(kWalSizeLimit)))
    return nullptr;
  // In WAL mode a commit is then one write of the log and no sync (syncs come
  // with checkpoints). A commit that reports failure has therefore not reached
  // the database: a failed sync can no longer leave a change recorded that
  // its writer took for lost and undid. What a power failure may take back
  // is the last commits, as it takes back attribute writes not yet on disk.
  if (mode != OpenMode::kReadOnly && !readOnlyFs && !db->exec("PRAGMA synchronous=NORMAL"))
    return nullptr;
  if (mode == OpenMode::kReadOnly || readOnlyFs) {
    int version = userVersion(*db);
    if (version < 0) return nullptr;
    // A database no writer has set up yet holds nothing to read.
    if (version == 0) {
      if (absent != nullptr) *absent = true;
      return nullptr;
    }
    if (version > kSchemaVersion) {
      ZLOG_ERROR("state database %s has schema version %d, newer than this library's %d",
                 path.c_str(), version, kSchemaVersion);
      return nullptr;
    }
    return db;
  }
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
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kReadOnly, &absent);
  if (db == nullptr) return 0;
  std::optional<std::string> value = readMeta(*db, "label_set_status");
  if (!value) return kLabelSetNone;
  if (*value == "1") return kLabelSetComplete;
  return *value == "2" ? kLabelSetIncomplete : kLabelSetNone;
}

bool bumpRulesGeneration(StateDb& db) {
  Statement update(db,
                   "INSERT INTO meta (key, value) VALUES ('rules_generation', '1') "
                   "ON CONFLICT (key) DO UPDATE SET value = CAST(value AS INTEGER) + 1");
  return update.run();
}

uint64_t readRulesGeneration(StateDb& db) {
  Statement query(db, "SELECT CAST(value AS INTEGER) FROM meta WHERE key = 'rules_generation'");
  return query.step() ? static_cast<uint64_t>(query.columnInt(0)) : 0;
}

}  // namespace zorv::labelmgr
