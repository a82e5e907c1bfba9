// Helpers for tests that work on real files: a temporary tree that removes
// itself, small file builders and a capture of the Logger's output.
#ifndef ZORV_TESTING_TEST_UTIL_H_
#define ZORV_TESTING_TEST_UTIL_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace log4cpp {
class StringQueueAppender;
}

namespace zorv_testing {

/// A fresh directory under $TMPDIR (or /tmp), removed with everything in it
/// when the object goes away. Never a system path.
class ScopedTempDir {
 public:
  ScopedTempDir();
  ~ScopedTempDir();
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

/// Writes `content` to `path`, creating missing parent directories.
void writeTextFile(const std::string& path, const std::string& content);
void makeDirs(const std::string& path);
/// The whole file, or "" if it cannot be read.
std::string readTextFile(const std::string& path);

/// Collects every record logged through log4cpp's root category (and the
/// "INFO" category) while it lives, with the root's priority lowered to DEBUG.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// All records so far, in order, e.g. "ERROR [isFilePathSafe:42] ...".
  std::vector<std::string> lines();
  /// The same records with the source line dropped: "ERROR [isFilePathSafe] ...".
  std::vector<std::string> records();
  /// How many of records() read exactly `record`.
  size_t countRecord(const std::string& record);
  /// How many records hold `text`.
  size_t count(const std::string& text);
  /// All records joined by newlines, for failure messages.
  std::string dump();

 private:
  std::unique_ptr<log4cpp::StringQueueAppender> appender_;  // lent to the categories
  std::vector<std::string> seen_;
  int savedPriority_;
};

size_t openDescriptorCount();

/// Runs `body` in a forked child as uid and gid 65534 (root ignores permission
/// bits) and answers the text it returned, or "could not drop privileges".
std::string runAsNobody(const std::function<std::string()>& body);

/// Sets (or, with std::nullopt, removes) one environment variable of this
/// process and puts the old value back when it goes away.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const std::optional<std::string>& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

}  // namespace zorv_testing

#endif  // ZORV_TESTING_TEST_UTIL_H_
