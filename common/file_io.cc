#include "common/file_io.h"

#include <cerrno>
#include <fstream>

#include "common/whole_file.h"
#include "log/logger.h"

std::string readFile(const std::string& path) {
  std::string content;
  if (zorv::readWholeFile(path.c_str(), &content)) return content;
  // A directory opens but has nothing to read: empty, and nothing to say.
  if (errno != EISDIR) ZLOG_ERROR("Unable to open file, %s", path.c_str());
  return "";
}

bool writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!out.is_open()) {
    ZLOG_ERROR("Unable to open file for writing, %s", path.c_str());
    return false;
  }
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  return true;
}
