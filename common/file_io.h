// Whole-file reads and writes.
#ifndef ZORV_COMMON_FILE_IO_H_
#define ZORV_COMMON_FILE_IO_H_

#include <string>

#include "log/export.h"

/// The whole file, byte for byte; "" when it cannot be opened (or is empty).
ZORV_EXPORT std::string readFile(const std::string& path);
/// Truncates or creates `path` and writes `content`; false only when it could
/// not be opened.
ZORV_EXPORT bool writeFile(const std::string& path, const std::string& content);

#endif  // ZORV_COMMON_FILE_IO_H_
