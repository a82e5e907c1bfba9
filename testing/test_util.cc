#include "testing/test_util.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
namespace {

void putEnv(const std::string& name, const std::optional<std::string>& value) {
  (void)(value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str()));
}

}  // namespace

ScopedTempDir::ScopedTempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/zorv-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

// Root removes the read-only or unreadable directories tests leave behind.
ScopedTempDir::~ScopedTempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void makeDirs(const std::string& path) { fs::create_directories(path); }

void writeTextFile(const std::string& path, const std::string& content) {
  const fs::path parent = fs::path(path).parent_path();
  if (!parent.empty()) fs::create_directories(parent);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << content;
}

std::string readTextFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
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
  log4cpp::Category::getInstance("INFO").removeAppender(appender_.get());
  log4cpp::Category::getRoot().removeAppender(appender_.get());
  log4cpp::Category::getRoot().setPriority(savedPriority_);
}

std::vector<std::string> LogCapture::lines() {
  for (auto& queue = appender_->getQueue(); !queue.empty(); queue.pop())
    seen_.push_back(queue.front());
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
  const std::vector<std::string> all = records();
  return std::count(all.begin(), all.end(), record);
}

size_t LogCapture::count(const std::string& text) {
  const std::vector<std::string> all = lines();
  return std::count_if(all.begin(), all.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

std::string LogCapture::dump() {
  std::string all;
  for (const std::string& line : lines()) all += line + "\n";
  return all;
}

size_t openDescriptorCount() {
  const fs::directory_iterator fds("/proc/self/fd");  // counted too, as it is open
  return std::distance(fs::begin(fds), fs::end(fds));
}

std::string runAsNobody(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string result =
        setgid(65534) == 0 && setuid(65534) == 0 ? body() : "could not drop privileges";
    _exit(write(fds[1], result.data(), result.size()) < 0);
  }
  close(fds[1]);
  std::string result;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) result.append(buffer, n);
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return result;
}

ScopedEnv::ScopedEnv(const std::string& name, const std::optional<std::string>& value)
    : name_(name) {
  if (const char* old = getenv(name.c_str())) saved_ = old;
  putEnv(name, value);
}

ScopedEnv::~ScopedEnv() { putEnv(name_, saved_); }

}  // namespace zorv_testing
