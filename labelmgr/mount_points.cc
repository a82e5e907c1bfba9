#include "labelmgr/mount_points.h"

#include <fcntl.h>

#include "common/whole_file.h"

namespace zorv::labelmgr {

std::string unescapeMountField(std::string_view field) {
  std::string text;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                (field[i + 3] - '0'));
      i += 3;
    } else {
      text += field[i];
    }
  }
  return text;
}

bool mountPointsUnder(const std::string& root, std::unordered_set<std::string>* points) {
  std::string table;
  if (!readWholeFile("/proc/self/mountinfo", &table)) return false;
  std::string prefix = root == "/" ? "/" : root + "/";
  for (size_t begin = 0, end; begin < table.size(); begin = end + 1) {
    end = table.find('\n', begin);
    if (end == std::string::npos) end = table.size();
    std::string_view line(table.data() + begin, end - begin);
    // "id parent major:minor root mount-point options ..."
    size_t field = 0;
    for (int skip = 0; skip < 4 && field != std::string_view::npos; ++skip) {
      field = line.find(' ', field);
      if (field != std::string_view::npos) ++field;
    }
    if (field == std::string_view::npos) continue;
    size_t fieldEnd = line.find(' ', field);
    std::string point = unescapeMountField(line.substr(
        field, fieldEnd == std::string_view::npos ? std::string_view::npos : fieldEnd - field));
    if (point.size() > prefix.size() && point.compare(0, prefix.size(), prefix) == 0)
      points->insert(std::move(point));
  }
  return true;
}

std::string mountPointOf(const std::string& path, const EntryStat& stat) {
  std::string current = path;
  while (current != "/") {
    size_t slash = current.find_last_of('/');
    std::string parent = slash == 0 ? "/" : current.substr(0, slash);
    EntryStat up;
    if (statEntry(AT_FDCWD, parent.c_str(), 0, &up) != 0) break;
    if (!up.sameMount(stat)) break;
    current = parent;
  }
  return current;
}

}  // namespace zorv::labelmgr
