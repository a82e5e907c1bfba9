// The label manager library's own state: one SQLite database in the state
// directory, holding the user-set values and a small key/value meta table.
//
// Every operation opens its own StateDb and drops it when done; a process
// never shares one handle between threads. Label writers of different
// processes are serialised by StateLock (state_lock.h); database writers by
// ImmediateTransaction (BEGIN IMMEDIATE with a busy timeout), so
// a read-modify-write done inside one is never interleaved with another's.
#ifndef ZORV_LABELMGR_STATE_DB_H_
#define ZORV_LABELMGR_STATE_DB_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace zorv::labelmgr {

/// $ZORV_LABELMGR_STATE_DIR when set and non-empty, else the built-in default
/// (/var/lib/zorv/label).
std::string stateDirectory();
/// The built-in default alone, whatever the environment says (a system
/// image's own state directory lies there inside it).
const char* builtInStateDirectory();

class StateDb {
 public:
  enum class OpenMode {
    kCreate,    // create the directory (0700) and the database when missing
    kExisting,  // a missing database is not an error: open() answers null and sets *absent
    kReadOnly,  // as kExisting, for queries: nothing is written, not even the schema
  };

  /// Opens the database "labelmgr.db" in stateDirectory() with a busy
  /// timeout. The state directory must be safe (see state_files.h) and the
  /// database a regular file, never a link. kCreate switches the database to
  /// WAL mode; kCreate and kExisting bring the schema up to date. No open
  /// removes the -wal and -shm files when it closes, so that kReadOnly and
  /// kExisting opens, which never change the journal mode, can read on a full
  /// file system; on a read-only one the database is opened immutable. Null
  /// on failure, with one error line; with kExisting or kReadOnly and no
  /// database yet (or, for kReadOnly, one without a schema), null,
  /// *absent = true and nothing logged.
  /// `directory` stands for stateDirectory() when given (a system image's).
  static std::unique_ptr<StateDb> open(OpenMode mode, bool* absent = nullptr,
                                       const std::string* directory = nullptr);

  ~StateDb();
  StateDb(const StateDb&) = delete;
  StateDb& operator=(const StateDb&) = delete;

  sqlite3* handle() const { return db_; }
  const std::string& path() const { return path_; }

  /// Runs SQL without results; false (and one error line naming `sql`) on failure.
  bool exec(const char* sql);

  /// The schema version this library writes (PRAGMA user_version).
  static constexpr int kSchemaVersion = 1;

 private:
  StateDb(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
  bool migrate();

  sqlite3* db_;
  std::string path_;
};

/// A prepared statement, finalised on destruction. A failed prepare is logged
/// once; ok() then answers false and every step() fails.
class Statement {
 public:
  Statement(StateDb& db, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return stmt_ != nullptr; }
  // Parameters count from 1, as in SQLite.
  void bind(int index, int64_t value);
  void bind(int index, const std::string& value);
  /// True while a row is available; false at the end or on an error (see failed()).
  bool step();
  /// Steps a statement that returns no rows; false (logged) on failure.
  bool run();
  bool failed() const { return failed_; }

  int64_t columnInt(int column) const;
  std::string columnText(int column) const;

 private:
  StateDb& db_;
  sqlite3_stmt* stmt_ = nullptr;
  std::string sql_;
  bool failed_ = false;
};

/// BEGIN IMMEDIATE on construction (waiting out other writers up to the busy
/// timeout); ROLLBACK on destruction unless commit() succeeded.
class ImmediateTransaction {
 public:
  explicit ImmediateTransaction(StateDb& db);
  ~ImmediateTransaction();
  ImmediateTransaction(const ImmediateTransaction&) = delete;
  ImmediateTransaction& operator=(const ImmediateTransaction&) = delete;

  bool begun() const { return open_; }
  /// False (logged) when the commit failed; the transaction is then rolled back.
  bool commit();

 private:
  StateDb& db_;
  bool open_ = false;
};

/// The meta table's value for `key`, or nothing.
std::optional<std::string> readMeta(StateDb& db, const std::string& key);
bool writeMeta(StateDb& db, const std::string& key, const std::string& value);

/// The whole-tree labelling status: none has run yet, the last one labelled
/// everything, or the last one left files unlabelled (a rerun completes it).
constexpr int kLabelSetNone = 0;
constexpr int kLabelSetComplete = 1;
constexpr int kLabelSetIncomplete = 2;

/// Records the status, in the meta key "label_set_status"; false and one
/// error line on failure. The first form joins the caller's transaction, the
/// second opens (creating) the database itself.
bool setLabelSetStatus(StateDb& db, int status);
bool setLabelSetStatus(int status);
/// The status last recorded; kLabelSetNone also when there is no database
/// yet or it cannot be read.
int readLabelSetStatus();

/// A number that grows whenever the user-set rules change: a writer of rules
/// calls bumpRulesGeneration inside its transaction, and a reader that
/// computed labels from the rules compares readRulesGeneration before and
/// after (under the state lock) to see whether they still hold. 0 until the
/// first bump; bump answers false (logged) on failure.
bool bumpRulesGeneration(StateDb& db);
uint64_t readRulesGeneration(StateDb& db);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_STATE_DB_H_
