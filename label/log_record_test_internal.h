// Matching of captured log records without pinning their line numbers.
#ifndef ZORV_LABEL_LOG_RECORD_TEST_INTERNAL_H_
#define ZORV_LABEL_LOG_RECORD_TEST_INTERNAL_H_

#include <string>

#include "testing/test_util.h"

/// Number of records that read exactly "PRIORITY [tag:LINE] message" for some
/// line number.
inline size_t countRecords(zorv_testing::LogCapture& capture, const std::string& priority,
                           const std::string& tag, const std::string& message) {
  const std::string head = priority + " [" + tag + ":";
  const std::string tail = "] " + message;
  size_t n = 0;
  for (const std::string& line : capture.lines()) {
    if (line.size() < head.size() + tail.size() || line.compare(0, head.size(), head) != 0 ||
        line.compare(line.size() - tail.size(), tail.size(), tail) != 0)
      continue;
    const std::string number = line.substr(head.size(), line.size() - head.size() - tail.size());
    if (!number.empty() && number.find_first_not_of("0123456789") == std::string::npos) ++n;
  }
  return n;
}

#endif  // ZORV_LABEL_LOG_RECORD_TEST_INTERNAL_H_
