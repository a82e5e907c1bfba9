#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "label/label.h"
#include "label/label_attr.h"
#include "log/logger.h"

namespace fs = std::filesystem;

namespace {

// Follows links even for the no-dereference forms, so a dangling link counts
// as missing. A directory on the way that cannot be searched throws
// fs::filesystem_error rather than reading as missing.
void requireExisting(const std::string& path) {
  // stat() itself, as std::filesystem::status() would call it, without
  // splitting the path into components first: listings check every file.
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) return;
  const int error = errno;
  if (error == ENOENT || error == ENOTDIR) throw LabelError("File does not exist: ", 4);
  throw fs::filesystem_error("status", fs::path(path),
                             std::error_code(error, std::generic_category()));
}

ssize_t readAttribute(const std::string& path, bool noDereference, void* value, size_t size) {
  ssize_t rc = zorv::readLabelAtPath(path.c_str(), !noDereference, value, size);
  if (rc >= 0) return rc;
  errno = static_cast<int>(-rc);
  return -1;
}

}  // namespace

int Label::getFromXattr(const std::string& path, const bool& noDereference) {
  try {
    requireExisting(path);
    // A label fits in a few dozen bytes, so one read into a small buffer
    // usually answers the size probe and the read at once: a listing of a
    // tree makes one attribute call per file instead of two. Only a value
    // too large for it (ERANGE) takes the probe-then-read path.
    unsigned char small[128];
    ssize_t probed = readAttribute(path, noDereference, small, sizeof small);
    const bool tooLarge = probed < 0 && errno == ERANGE;
    if (tooLarge) probed = readAttribute(path, noDereference, nullptr, 0);
    if (probed < 0) {
      // Quiet on purpose: most files of a tree simply carry no label.
      const int error = errno;
      if (error == ENODATA) {
        ZLOG_DEBUG("Extended attribute not found: %s", path.c_str());
      } else {
        ZLOG_DEBUG("Failed to get extended attribute size: %s", strerror(error));
      }
      return -1;
    }
    if (probed == 0)
      throw LabelError(std::string("Extended attribute is empty: ") + zorv::kLabelAttribute, 6);
    if (!tooLarge) {
      deserializeFromBuffer(small, static_cast<size_t>(probed));
      return 0;
    }

    std::vector<unsigned char> value(static_cast<size_t>(probed), 0);
    const ssize_t read = readAttribute(path, noDereference, value.data(), value.size());
    if (read < 0)
      throw LabelError(std::string("Failed to read extended attribute: ") + strerror(errno), 5);
    if (read != probed) throw LabelError("Size mismatch when reading extended attribute", 5);

    deserializeFromBuffer(value.data(), value.size());
    return 0;
  } catch (const LabelError& e) {
    ZLOG_ERROR("LabelError: %s: %s", e.what(), path.c_str());
    return -1;
  } catch (const std::exception& e) {
    ZLOG_ERROR("exception: %s: %s", e.what(), path.c_str());
    return -1;
  }
}

int Label::setToXattr(const std::string& path, const bool& noDereference) {
  try {
    requireExisting(path);
    // The whole value is built before the single write, so the attribute is
    // never left half written.
    std::vector<unsigned char> value(serializedBufferSize(), 0);
    const size_t written = serializeToBuffer(value.data(), value.size());
    if (written == 0) throw LabelError("Label serialization resulted in zero bytes: ", 12);
    if (written > value.size())
      throw LabelError("Label serialization used more space than expected: ", 12);

    const int rc = zorv::writeLabelAtPath(path.c_str(), !noDereference, value.data(), written, 0);
    const int result = rc == 0 ? 0 : -1;
    const int error = -rc;
    ZLOG_DEBUG("%s: %d, path: %s", noDereference ? "lsetxattr" : "setxattr", result, path.c_str());
    if (result != 0) {
      if (error == ENOTSUP)
        throw LabelError("Filesystem does not support extended attributes: ", 7);
      throw LabelError(std::string("Failed to set extended attribute: ") + strerror(error), 5);
    }
    return result;
  } catch (const LabelError& e) {
    ZLOG_ERROR("LabelError: %s: %s", e.what(), path.c_str());
    return -1;
  } catch (const std::exception& e) {
    ZLOG_ERROR("exception: %s: %s", e.what(), path.c_str());
    return -2;
  }
}
