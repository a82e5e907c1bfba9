// Pieces shared by the library's operations: rewriting one file's label with
// change tracking, handing change messages to the bus, and handing record
// arrays to the caller.
#ifndef ZORV_LABELMGR_OPERATION_UTIL_H_
#define ZORV_LABELMGR_OPERATION_UTIL_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cli/zorvlabelmgr.h"
#include "label/label.h"

namespace zorv::labelmgr {

/// The labels an operation overwrote, so that they can be put back when the
/// state transaction that the writes belong to fails to commit: the attributes
/// and the database must keep telling the same story.
class LabelUndo {
 public:
  /// Remembers the label `file` carried (none when `had` is false).
  void remember(const std::string& file, bool had, const Label& earlier);
  /// Writes every remembered label back, newest first, and removes the
  /// attribute of files that had none. Logs what it cannot put back.
  void rollBack();

 private:
  struct Entry {
    std::string file;
    bool had;
    Label label;
  };
  std::vector<Entry> entries_;
};

/// Reads the label of `file` (a canonical path), lets `update` change it and
/// writes the whole label back in one attribute write. A file without a
/// readable label starts from the zero label. When the label changed (a file
/// that had none always counts as changed) the message
/// "file <op> <file> <new label text>" is appended to `changes`. False when
/// the write failed (the label model has logged why); `changes` is then
/// untouched. The label it replaced goes to `undo`. The caller holds the state
/// transaction that serialises writers.
bool updateLabel(const std::string& file, const std::function<void(Label&)>& update,
                 const std::string& op, std::vector<std::string>* changes, LabelUndo* undo);

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

/// "%016" PRIx64.
std::string hex16(uint64_t value);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_OPERATION_UTIL_H_
