#include "log/logger.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <log4cpp/Category.hh>
#include <log4cpp/FileAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/Priority.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include "common/env_path.h"

namespace {

constexpr const char* kPropertiesFile = "/etc/zorv/label/zorv-label-log.properties";
constexpr const char* kFallbackLogFile = "/var/log/zorv/zorv_label_manager.log";
constexpr const char* kFallbackPattern = "%d{%Y-%m-%d %H:%M:%S.%l} %t [%p] %m %n";
constexpr unsigned int kConfiguredFileMode = 0640;
constexpr size_t kPrefixBufferSize = 1024;

std::string trimBlanks(const std::string& text) {
  size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  size_t last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Embeds the caller's format (not the formatted message) in the prefix; log4cpp
// formats the result a second time with the caller's arguments.
void logWithPrefix(log4cpp::Category& category, log4cpp::Priority::Value priority, const char* tag,
                   int line, const char* format, va_list args) {
  // log4cpp drops the record anyway; skip building the prefix for it.
  if (!category.isPriorityEnabled(priority)) return;
  char prefixed[kPrefixBufferSize];
  snprintf(prefixed, sizeof(prefixed), "[%s:%d] %s", tag, line, format);
  category.logva(priority, prefixed, args);
}

}  // namespace

Logger& Logger::getInstance() {
  static Logger instance;
  return instance;
}

Logger::Logger() : root(&log4cpp::Category::getRoot()) {
  const std::string properties = zorv::envPathOr("ZORV_LABEL_LOG_PROPERTIES", kPropertiesFile);
  try {
    std::set<std::string> files = getLogFilePathsFromConfig(properties);
    log4cpp::PropertyConfigurator::configure(properties);
    if (!files.empty()) setLogFilesPermissions(files, kConfiguredFileMode);
    log4cpp::Category* info = &log4cpp::Category::getInstance("INFO");
    info->setAdditivity(false);
    categories["INFO"] = info;
  } catch (const std::runtime_error&) {
    std::cout << "read log config error." << std::endl;
    auto* appender = new log4cpp::FileAppender(
        "rootAppender", zorv::envPathOr("ZORV_LABEL_LOG_FALLBACK", kFallbackLogFile), true, 0644);
    auto* layout = new log4cpp::PatternLayout();
    layout->setConversionPattern(kFallbackPattern);
    appender->setLayout(layout);
    root->setPriority(log4cpp::Priority::INFO);
    root->addAppender(appender);
  }
}

Logger::Logger(const std::string& propertiesPath) : root(&log4cpp::Category::getRoot()) {
  log4cpp::PropertyConfigurator::configure(propertiesPath);
}

Logger::~Logger() {
  log4cpp::Category::shutdown();
  categories.clear();
}

#define ZORV_DEFINE_LEVEL(method, priority)                                     \
  void Logger::method(const char* tag, int line, const char* format, ...) {     \
    va_list args;                                                               \
    va_start(args, format);                                                     \
    logWithPrefix(*root, log4cpp::Priority::priority, tag, line, format, args); \
    va_end(args);                                                               \
  }

ZORV_DEFINE_LEVEL(debug, DEBUG)
ZORV_DEFINE_LEVEL(info, INFO)
ZORV_DEFINE_LEVEL(warn, WARN)
ZORV_DEFINE_LEVEL(error, ERROR)
ZORV_DEFINE_LEVEL(fatal, FATAL)
#undef ZORV_DEFINE_LEVEL

void Logger::always(const char* tag, int line, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  logWithPrefix(*getCategory("INFO"), log4cpp::Priority::INFO, tag, line, format, args);
  va_end(args);
}

bool Logger::isDebugEnabled() const { return root->isDebugEnabled(); }

log4cpp::Category* Logger::getCategory(const std::string& name) {
  auto found = categories.find(name);
  if (found != categories.end()) return found->second;
  log4cpp::Category* category = &log4cpp::Category::getInstance(name);
  categories[name] = category;
  return category;
}

std::set<std::string> Logger::getLogFilePathsFromConfig(const std::string& path) {
  std::set<std::string> files;
  // stdio rather than a file stream: this runs at the start of nearly every
  // run of the tool, where an ifstream's set-up is a measurable share.
  std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(path.c_str(), "re"), &std::fclose);
  if (!in) {
    // The logger may first be used in the middle of a program's buffered
    // output; what came before this message goes out before it.
    std::cout.flush();
    std::cerr << "Failed to open config file: " << path << std::endl;
    return files;
  }
  char* buffer = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = ::getline(&buffer, &capacity, in.get())) >= 0) {
    std::string line(buffer, static_cast<size_t>(length));
    if (!line.empty() && line.back() == '\n') line.pop_back();
    line = trimBlanks(line);
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = trimBlanks(line.substr(0, eq));
    std::string value = trimBlanks(line.substr(eq + 1));
    if (startsWith(key, "log4cpp.appender.") && endsWith(key, ".fileName") && !value.empty())
      files.insert(value);
  }
  std::free(buffer);
  return files;
}

void Logger::setLogFilesPermissions(const std::set<std::string>& files, unsigned int mode) {
  for (const std::string& file : files) {
    if (chmod(file.c_str(), mode) != 0 && errno != ENOENT)
      std::cerr << "chmod failed for " << file << ": " << strerror(errno) << std::endl;
  }
}
