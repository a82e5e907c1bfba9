#include "common/file_io.h"

#include <fstream>
#include <sstream>

#include "log/logger.h"

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  if (in.fail()) {
    ZLOG_ERROR("Unable to open file, %s", path.c_str());
    return "";
  }
  // Through the stream buffer rather than line by line, so that newlines and
  // zero bytes come back exactly as stored.
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
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
