// Matching of captured log records without pinning their line numbers.
#ifndef ZORV_LABEL_LOG_RECORD_TEST_INTERNAL_H_
#define ZORV_LABEL_LOG_RECORD_TEST_INTERNAL_H_

#include <regex>
#include <string>

#include "testing/test_util.h"

/// Records that read exactly "PRIORITY [tag:LINE] message" for any line number.
inline size_t countRecords(zorv_testing::LogCapture& capture, const std::string& priority,
                           const std::string& tag, const std::string& message) {
  size_t n = 0;
  for (const std::string& line : capture.lines()) {
    const std::string head = priority + " [" + tag + ":", tail = "] " + message;
    if (line.size() > head.size() + tail.size() && line.rfind(head, 0) == 0 &&
        line.compare(line.size() - tail.size(), tail.size(), tail) == 0 &&
        std::regex_match(line.substr(head.size(), line.size() - head.size() - tail.size()),
                         std::regex("[0-9]+")))
      ++n;
  }
  return n;
}

#endif  // ZORV_LABEL_LOG_RECORD_TEST_INTERNAL_H_
