// The process-wide logger of the zorv label framework, over log4cpp.
//
// Thread safety: the first construction of the singleton is thread safe; the
// category cache is not, so log from one thread (as every program of the
// framework does) or guard calls yourself.
#ifndef ZORV_LOG_LOGGER_H_
#define ZORV_LOG_LOGGER_H_

#include <map>
#include <set>
#include <string>

#include "log/export.h"

namespace log4cpp {
class Category;
}

class ZORV_EXPORT Logger {
 public:
  /// The one logger, configured on first use from the properties file named by
  /// $ZORV_LABEL_LOG_PROPERTIES, or else /etc/zorv/label/zorv-label-log.properties.
  static Logger& getInstance();

  /// Configures from the properties file; when that fails prints
  /// "read log config error." on standard output and logs to the fallback file
  /// /var/log/zorv/zorv_label_manager.log ($ZORV_LABEL_LOG_FALLBACK overrides it).
  Logger();
  /// Configures from `propertiesPath` only: no fallback, no file modes; a
  /// configuration failure propagates to the caller.
  explicit Logger(const std::string& propertiesPath);
  ~Logger();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Each message becomes "[tag:line] text". `format` is first embedded in the
  // prefix and the result is formatted again by log4cpp with the arguments, so
  // a '%' in `tag` is read as a conversion.
  void debug(const char* tag, int line, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void info(const char* tag, int line, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void warn(const char* tag, int line, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void error(const char* tag, int line, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void fatal(const char* tag, int line, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  /// Logs at INFO through the "INFO" category whatever the root's priority;
  /// a log4cpp failure here ends the process.
  void always(const char* tag, int line, const char* format, ...) noexcept
      __attribute__((format(printf, 4, 5)));

  /// Whether debug records reach any appender, so that callers can skip
  /// building the arguments of records that would be dropped.
  bool isDebugEnabled() const;

  /// The named category, fetched from log4cpp once and cached. No lock.
  log4cpp::Category* getCategory(const std::string& name);

  /// Values of the "log4cpp.appender.*.fileName" keys of a properties file.
  /// Writes "Failed to open config file: PATH" on standard error when it cannot
  /// be read.
  static std::set<std::string> getLogFilePathsFromConfig(const std::string& path);
  /// chmod()s each file; failures other than a missing file are reported on
  /// standard error and skipped.
  static void setLogFilesPermissions(const std::set<std::string>& files, unsigned int mode);

 private:
  std::map<std::string, log4cpp::Category*> categories;
  log4cpp::Category* root;
};

// Shorthands that tag each message with the calling function's name.
// Debug records are the ones hot paths leave switched off: their arguments are
// only evaluated when the record would be written.
#define ZLOG_DEBUG(...)                                                                 \
  do {                                                                                  \
    ::Logger& zlogLogger = ::Logger::getInstance();                                     \
    if (zlogLogger.isDebugEnabled()) zlogLogger.debug(__func__, __LINE__, __VA_ARGS__); \
  } while (0)
#define ZLOG_INFO(...) ::Logger::getInstance().info(__func__, __LINE__, __VA_ARGS__)
#define ZLOG_WARN(...) ::Logger::getInstance().warn(__func__, __LINE__, __VA_ARGS__)
#define ZLOG_ERROR(...) ::Logger::getInstance().error(__func__, __LINE__, __VA_ARGS__)

#endif  // ZORV_LOG_LOGGER_H_
