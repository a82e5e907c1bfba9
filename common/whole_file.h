// Internal to the framework's libraries (not installed): reading a whole file
// into memory.
#ifndef ZORV_COMMON_WHOLE_FILE_H_
#define ZORV_COMMON_WHOLE_FILE_H_

#include <string>

namespace zorv {

/// Replaces `content` with the file at `path`, read until the end: files of
/// /proc, which report a size of 0, are read whole too, and a short read is
/// never taken for the end. False with errno set (the open's or a read's
/// cause) when the file cannot be read whole; `content` is then empty.
/// Without `followLastLink`, a symbolic link as the last component fails
/// with ELOOP: for files that are never links where they belong (the package
/// database, configuration), which may lie in an image someone else owns.
bool readWholeFile(const char* path, std::string* content, bool followLastLink = true);

}  // namespace zorv

#endif  // ZORV_COMMON_WHOLE_FILE_H_
