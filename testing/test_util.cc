#include "testing/test_util.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
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

std::vector<std::string> LogCapture::records() {
  static const std::regex lineNumber(":[0-9]+\\]");
  std::vector<std::string> out;
  for (const std::string& line : lines())
    out.push_back(
        std::regex_replace(line, lineNumber, "]", std::regex_constants::format_first_only));
  return out;
}

size_t LogCapture::countRecord(const std::string& record) {
  size_t n = 0;
  for (const std::string& r : records())
    if (r == record) ++n;
  return n;
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

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

size_t openDescriptorCount() {
  size_t count = 0;
  DIR* fds = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(fds))
    if (entry->d_name[0] != '.') ++count;
  closedir(fds);
  return count;
}

std::string runAsNobody(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string result = "could not drop privileges";
    if (setgid(65534) == 0 && setuid(65534) == 0) result = body();
    ssize_t ignored = write(fds[1], result.data(), result.size());
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  std::string result;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
    result.append(buffer, static_cast<size_t>(n));
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return result;
}

ScopedEnv::ScopedEnv(const std::string& name, const std::optional<std::string>& value)
    : name_(name) {
  if (const char* old = getenv(name.c_str())) saved_ = old;
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}

ScopedEnv::~ScopedEnv() {
  if (saved_) {
    setenv(name_.c_str(), saved_->c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

}  // namespace zorv_testing
