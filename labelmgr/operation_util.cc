#include "labelmgr/operation_util.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "label/label_attr.h"
#include "labelmgr/change_bus.h"
#include "labelmgr/path_gate.h"
#include "log/logger.h"

namespace zorv::labelmgr {

namespace {

constexpr size_t kLabelBufferBytes = 128;  // the binary form is at most 81 bytes

}  // namespace

void LabelUndo::remember(const std::string& path, const struct stat& st, bool had,
                         const Label& earlier) {
  entries_.push_back(Entry{path, st.st_dev, st.st_ino, had, earlier});
}

void LabelUndo::rollBack() {
  for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) {
    PinnedEntry file;
    int rc = pinStoredTarget(entry->path, &file);
    if (rc == 0 && (file.st.st_dev != entry->dev || file.st.st_ino != entry->ino)) rc = -ESTALE;
    if (rc == 0 && entry->had) {
      unsigned char bytes[kLabelBufferBytes];
      size_t size = entry->label.serializeToBuffer(bytes, sizeof bytes);
      rc = size == 0 ? -EINVAL : writeLabelAt(file.dir.get(), file.name.c_str(), bytes, size, 0);
    } else if (rc == 0) {
      rc = removeLabelAt(file.dir.get(), file.name.c_str());
      if (rc == -ENODATA) rc = 0;
    }
    if (rc != 0) {
      ZLOG_ERROR("cannot put back the earlier label of %s: %s", entry->path.c_str(),
                 std::strerror(-rc));
    }
  }
  entries_.clear();
}

int readLabelOf(int dirfd, const char* name, const std::string& path, Label* label) {
  unsigned char small[kLabelBufferBytes];
  std::vector<unsigned char> large;
  unsigned char* bytes = small;
  ssize_t size = readLabelAt(dirfd, name, small, sizeof small);
  if (size == -ERANGE) {
    // Larger than any label we write: read it whole to decode what it holds.
    large.resize(64 * 1024);
    bytes = large.data();
    size = readLabelAt(dirfd, name, bytes, large.size());
  }
  if (size == -ENODATA) return -ENODATA;
  if (size < 0) {
    ZLOG_ERROR("cannot read the label of %s: %s", path.c_str(),
               std::strerror(static_cast<int>(-size)));
    return static_cast<int>(size);
  }
  try {
    *label = Label();
    label->deserializeFromBuffer(bytes, static_cast<size_t>(size));
  } catch (const std::exception& e) {
    ZLOG_ERROR("cannot decode the label of %s: %s", path.c_str(), e.what());
    return -EINVAL;
  }
  return 0;
}

bool updateLabelAt(int dirfd, const char* name, const std::string& path, const struct stat& st,
                   const std::function<void(Label&)>& update, const std::string& op,
                   std::vector<std::string>* changes, LabelUndo* undo, bool replaceWhole) {
  Label old;
  int rc = readLabelOf(dirfd, name, path, &old);
  if (rc != 0 && rc != -ENODATA && !replaceWhole) return false;
  bool had = rc == 0;
  Label label = had ? old : Label();
  update(label);
  unsigned char bytes[kLabelBufferBytes];
  size_t size = label.serializeToBuffer(bytes, sizeof bytes);
  if (size == 0) {
    ZLOG_ERROR("cannot encode the label of %s", path.c_str());
    return false;
  }
  rc = writeLabelAt(dirfd, name, bytes, size, 0);
  if (rc != 0) {
    ZLOG_ERROR("cannot write the label of %s: %s", path.c_str(), std::strerror(-rc));
    return false;
  }
  if (undo != nullptr) undo->remember(path, st, had, old);
  std::string text = label.toString();
  if (!had || old.toString() != text) changes->push_back("file " + op + " " + path + " " + text);
  return true;
}

std::optional<StateLock> lockForChange() {
  std::string error;
  std::optional<StateLock> lock = StateLock::acquire(StateLock::Mode::kExclusive, &error);
  if (!lock) ZLOG_ERROR("%s", error.c_str());
  return lock;
}

bool commitChange(StateDb& db, ImmediateTransaction& transaction, LabelUndo* undo) {
  uint64_t generation = readRulesGeneration(db);  // as this transaction leaves it
  if (transaction.commit()) return true;
  std::unique_ptr<StateDb> fresh = StateDb::open(StateDb::OpenMode::kReadOnly);
  if (fresh == nullptr) {
    ZLOG_ERROR(
        "cannot tell whether the change was recorded; the labels written are kept, and "
        "running the same command again completes it");
    return false;
  }
  if (readRulesGeneration(*fresh) == generation) {
    ZLOG_WARN("the change was recorded although its commit reported an error");
    return true;
  }
  if (undo != nullptr) undo->rollBack();
  ZLOG_ERROR("the change was not recorded; the labels written were put back");
  return false;
}

void publishChanges(const std::vector<std::string>& changes) {
  for (const std::string& message : changes) publishLabelChange(message);
}

int handOverRecords(const std::vector<RecordRow>& rows, UserSetRecord** records) {
  if (rows.empty()) return 0;
  auto* array = static_cast<UserSetRecord*>(calloc(rows.size(), sizeof(UserSetRecord)));
  if (array == nullptr) {
    ZLOG_ERROR("out of memory for %zu records", rows.size());
    return -1;
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    // Names were admitted at most 4095 bytes long; calloc supplied the NUL.
    memcpy(array[i].path, rows[i].name.data(),
           std::min(rows[i].name.size(), sizeof(array[i].path) - 1));
    for (int v = 0; v < 3; ++v) array[i].value[v] = rows[i].value[v];
  }
  *records = array;
  return static_cast<int>(rows.size());
}

bool placeGiven(const void* place, const char* what) {
  if (place != nullptr) return true;
  ZLOG_ERROR("no place for the %s", what);
  return false;
}

std::string hex16(uint64_t value) {
  char text[17];
  snprintf(text, sizeof(text), "%016" PRIx64, value);
  return text;
}

}  // namespace zorv::labelmgr
