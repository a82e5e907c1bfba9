#include "testing/test_util.h"

#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <log4cpp/Category.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/StringQueueAppender.hh>

#include "log/logger.h"

namespace fs = std::filesystem;

namespace zorv_testing {

ScopedTempDir::ScopedTempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/zorv-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

ScopedTempDir::~ScopedTempDir() {
  // Tests may leave read-only or unreadable directories behind; root removes
  // them anyway, so a plain recursive removal is enough.
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ScopedTempDir::operator/(const std::string& relative) const {
  return path_ + "/" + relative;
}

void makeDirs(const std::string& path) { fs::create_directories(path); }

void writeTextFile(const std::string& path, const std::string& content) {
  fs::path parent = fs::path(path).parent_path();
  if (!parent.empty()) fs::create_directories(parent);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << content;
}

std::string readTextFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

LogCapture::LogCapture() {
  Logger::getInstance();  // configure log4cpp before we add to it
  appender_ = std::make_unique<log4cpp::StringQueueAppender>("zorv-test-capture");
  auto* layout = new log4cpp::PatternLayout();
  layout->setConversionPattern("%p %m");
  appender_->setLayout(layout);
  log4cpp::Category& root = log4cpp::Category::getRoot();
  savedPriority_ = root.getPriority();
  root.setPriority(log4cpp::Priority::DEBUG);
  root.addAppender(*appender_);
  log4cpp::Category::getInstance("INFO").addAppender(*appender_);
}

LogCapture::~LogCapture() {
  log4cpp::Category& root = log4cpp::Category::getRoot();
  log4cpp::Category::getInstance("INFO").removeAppender(appender_.get());
  root.removeAppender(appender_.get());
  root.setPriority(savedPriority_);
}

std::vector<std::string> LogCapture::lines() {
  auto& queue = appender_->getQueue();
  while (!queue.empty()) {
    seen_.push_back(queue.front());
    queue.pop();
  }
  return seen_;
}

bool LogCapture::contains(const std::string& text) { return count(text) > 0; }

size_t LogCapture::count(const std::string& text) {
  size_t n = 0;
  for (const std::string& line : lines())
    if (line.find(text) != std::string::npos) ++n;
  return n;
}

std::string LogCapture::dump() {
  std::string all;
  for (const std::string& line : lines()) all += line + "\n";
  return all;
}

int runShell(const std::string& command) {
  int status = system(command.c_str());
  if (status == -1) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return status;
}

}  // namespace zorv_testing
