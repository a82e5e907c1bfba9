// The cross-process lock of the label writers.
//
// A whole-tree labelling writes labels from several workers while a user may
// set, delete or clear a value: each worker holds the lock shared around one
// batch of writes, and set/del/clear/restore/init hold it exclusive around
// their whole transaction, so a batch never interleaves with a user's change.
// A waiting exclusive holder is not starved by workers that keep taking it
// shared: new shared holders queue behind it.
//
// The lock lives in the file "labels.lock" of the state directory (open file
// description locks, so every StateLock is independent even within one
// process and thread). It is not reentrant: a thread must not acquire a
// second StateLock while it holds one. Take it before beginning a database
// transaction, never inside one, so that lock and database waits cannot
// cross.
#ifndef ZORV_LABELMGR_STATE_LOCK_H_
#define ZORV_LABELMGR_STATE_LOCK_H_

#include <optional>
#include <string>

#include "common/unique_fd.h"

namespace zorv::labelmgr {

class StateLock {
 public:
  enum class Mode { kShared, kExclusive };

  /// Waits until the lock is held in `mode`. Creates the state directory and
  /// the lock file when missing. Nothing, with `*error` set to one line, when
  /// the state directory is not safe or the lock file cannot be used.
  static std::optional<StateLock> acquire(Mode mode, std::string* error);

  StateLock(StateLock&&) = default;
  StateLock& operator=(StateLock&&) = default;
  /// Releases the lock.
  ~StateLock() = default;

 private:
  explicit StateLock(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_STATE_LOCK_H_
