#include "labelmgr/operation_util.h"

#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "labelmgr/change_bus.h"
#include "log/logger.h"

namespace zorv::labelmgr {

void LabelUndo::remember(const std::string& file, bool had, const Label& earlier) {
  entries_.push_back(Entry{file, had, earlier});
}

void LabelUndo::rollBack() {
  for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) {
    bool restored =
        entry->had ? entry->label.setToXattr(entry->file, false) == 0
                   : removexattr(entry->file.c_str(), "security.zorv") == 0 || errno == ENODATA;
    if (!restored) ZLOG_ERROR("cannot put back the earlier label of %s", entry->file.c_str());
  }
  entries_.clear();
}

bool updateLabel(const std::string& file, const std::function<void(Label&)>& update,
                 const std::string& op, std::vector<std::string>* changes, LabelUndo* undo) {
  Label old;
  bool had = old.getFromXattr(file, false) == 0;
  // A failed decode may have filled some fields; never build on those.
  Label label = had ? old : Label();
  update(label);
  if (label.setToXattr(file, false) != 0) return false;
  undo->remember(file, had, old);
  std::string text = label.toString();
  if (!had || old.toString() != text) changes->push_back("file " + op + " " + file + " " + text);
  return true;
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

std::string hex16(uint64_t value) {
  char text[17];
  snprintf(text, sizeof(text), "%016" PRIx64, value);
  return text;
}

}  // namespace zorv::labelmgr
