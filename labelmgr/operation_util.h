// Pieces shared by the library's operations: rewriting one file's label with
// change tracking, handing change messages to the bus, and handing record
// arrays to the caller.
#ifndef ZORV_LABELMGR_OPERATION_UTIL_H_
#define ZORV_LABELMGR_OPERATION_UTIL_H_

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/zorvlabelmgr.h"
#include "label/label.h"
#include "labelmgr/state_db.h"
#include "labelmgr/state_lock.h"

namespace zorv::labelmgr {

/// The labels an operation overwrote, so that they can be put back when its
/// state transaction does not commit: the attributes and the database must
/// keep telling the same story.
class LabelUndo {
 public:
  /// Remembers the label the file at canonical `path` (inode `st`) carried,
  /// none when `had` is false.
  void remember(const std::string& path, const struct stat& st, bool had, const Label& earlier);
  /// Writes every remembered label back, newest first, and removes the
  /// attribute of files that had none. Each file is reached again without
  /// following links and only if it is still the same inode. Logs what it
  /// cannot put back.
  void rollBack();

 private:
  struct Entry {
    std::string path;
    dev_t dev;
    ino_t ino;
    bool had;
    Label label;
  };
  std::vector<Entry> entries_;
};

/// Reads the label of the entry `name` of the pinned directory `dirfd`
/// (canonical path `path`, lstat() `st`), lets `update` change it and writes
/// the whole label back in one attribute write. A file without a label
/// starts from the zero label; a label that cannot be read (any other
/// failure) or decoded fails the file, so that nothing is ever written on
/// top of a value that was not seen. When the label changed (a file that
/// had none always counts as changed) the message "file <op> <path> <new
/// label text>" is appended to `changes`. False (logged, naming the file and
/// the cause) when the file could not be read or written; `changes` is then
/// untouched. The label it replaced goes to `undo` (when not null). The
/// caller holds the state transaction that serialises writers.
/// With `replaceWhole` the new label does not depend on the current one (a
/// restore): a current label that cannot be read or decoded is then simply
/// replaced.
bool updateLabelAt(int dirfd, const char* name, const std::string& path, const struct stat& st,
                   const std::function<void(Label&)>& update, const std::string& op,
                   std::vector<std::string>* changes, LabelUndo* undo, bool replaceWhole = false);

/// Reads the label of an entry as updateLabelAt() does: 0 with `*label`
/// filled, -ENODATA when it has none, other -errno (logged) when it cannot be
/// read or decoded.
int readLabelOf(int dirfd, const char* name, const std::string& path, Label* label);

/// Takes the labels lock exclusive for a change of user-set values or labels,
/// before the state transaction: a whole-tree labelling in progress then
/// finishes its batch first and sees the change afterwards. Nothing (logged)
/// when the lock cannot be had.
std::optional<StateLock> lockForChange();

/// Commits the state transaction of a change whose labels are already
/// written. A commit that reports failure may still have reached the
/// database (a failed sync after the log was written), so a fresh connection
/// looks: when the rules generation the transaction left is there, the change
/// stands; when it is not, the labels written are put back from `undo`; when
/// the database cannot be read, the labels are kept, so that running the same
/// command again completes the change either way. False (logged) when the
/// change does not stand.
bool commitChange(StateDb& db, ImmediateTransaction& transaction, LabelUndo* undo);

/// Publishes each message, in order, once the change is committed.
void publishChanges(const std::vector<std::string>& changes);

/// One record to hand out: a path, pattern or package name and its values.
struct RecordRow {
  std::string name;
  uint64_t value[3] = {0, 0, 0};
};

/// Hands `rows` to the caller as one malloc'ed array that the caller frees.
/// Answers the count; for 0 rows nothing is allocated and *records is left
/// as it was; -1 (logged) when memory runs out.
int handOverRecords(const std::vector<RecordRow>& rows, UserSetRecord** records);

/// False, logging "no place for the <what>", when the caller passed no
/// place (`place` is null) for an answer.
bool placeGiven(const void* place, const char* what);

/// "%016" PRIx64.
std::string hex16(uint64_t value);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_OPERATION_UTIL_H_
