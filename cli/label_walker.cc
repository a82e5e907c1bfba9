#include "cli/label_walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <utility>

#include "cli/output.h"
#include "common/dir_stream.h"
#include "common/glob_result.h"
#include "common/unique_fd.h"
#include "label/label.h"
#include "label/label_attr.h"

namespace zorv::cli {

bool noDereference = false;

void walkPattern(const std::string& pattern, const std::string& attrName, LabelCallback callback,
                 bool recursive) {
  // The status carries nothing that the match count does not.
  const GlobResult matches(pattern.c_str(), GLOB_TILDE);
  if (matches.size() == 0) {
    std::cerr << "Warning: No files matched the pattern: " << pattern << std::endl;
    return;
  }
  for (size_t i = 0; i < matches.size(); ++i) {
    const std::string match = matches[i];
    struct stat st;
    if (stat(match.c_str(), &st) != 0) {
      std::cerr << "Error: File or directory does not exist: " << match << std::endl;
      continue;
    }
    if (recursive && S_ISDIR(st.st_mode)) {
      walkDirectory(match, attrName, callback);
    } else {
      callback(match, attrName);
    }
  }
}

void walkDirectory(const std::string& path, const std::string& attrName, LabelCallback callback) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    const int error = errno;
    printLine(path + " opendir error: " + std::strerror(error));
    return;
  }
  DirStream dir(std::move(fd));
  callback(path, attrName);
  const std::string prefix = (!path.empty() && path.back() == '/') ? path : path + "/";
  DirStream::Entry entry;
  while (dir.next(&entry)) {
    const std::string child = prefix + entry.name;
    if (entry.type == DT_DIR) {
      walkDirectory(child, attrName, callback);
    } else {
      callback(child, attrName);
    }
  }
}

int showLabel(const std::string& path, const std::string& attrName) {
  if (path.empty() || attrName.empty()) {
    printLine("filename or attr_name is empty!");
    return 0;
  }
  Label label;
  if (label.getFromXattr(path, noDereference) != 0) {
    printLine("get file label failed, ");
    return 0;
  }
  printLine({"file: ", path, " label: ", label.toString()});
  return 1;
}

int removeLabel(const std::string& path, const std::string& /*attrName: always the label's*/) {
  const int rc = removeLabelAtPath(path.c_str(), !noDereference);
  if (rc == 0) return 1;
  const int error = -rc;
  // The wording names lremovexattr whichever call failed; scripts match on it.
  printLine("remove file label from xattr error, " + path + " lremovexattr failed, " +
            std::strerror(error));
  return 0;
}

}  // namespace zorv::cli
