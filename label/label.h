// One file's security label: its text form, its binary form (the value of the
// "security.zorv" extended attribute) and its storage in that attribute.
#ifndef ZORV_LABEL_LABEL_H_
#define ZORV_LABEL_LABEL_H_

#include <cstdint>
#include <string>

#include "label/id.h"
#include "label/label_error.h"
#include "log/export.h"

/// Lower-case hex, two digits per byte, no separators; "" for length 0.
ZORV_EXPORT std::string bytesToHexString(const unsigned char* data, unsigned long length);

class ZORV_EXPORT Label {
 public:
  Id oid_;
  Id sid_;
  Id creatorOid_;
  uint32_t tid_ = 0;
  uint32_t inheritFlag_ = 0;

  /// "OID:TID:SID:FLAG:CREATOR" with the Ids in their 50-character form and the
  /// numbers in decimal.
  std::string toString() const;
  /// Parses toString()'s form; the all-zero Label (and an error log line) on
  /// any error. Never throws for bad input.
  static Label fromString(const std::string& text);

  /// Bytes of the binary form, 25 to 81.
  size_t serializedBufferSize() const;
  /// Writes the binary form; returns the bytes written or 0 on any failure.
  /// Never throws.
  size_t serializeToBuffer(unsigned char* buffer, unsigned long size) const;
  /// Fills the fields present in `buffer` (absent ones keep their values) and
  /// returns a copy. Throws LabelError code 13 on bad input.
  Label deserializeFromBuffer(const unsigned char* buffer, unsigned long size);

  /// Reads "security.zorv" of `path` (of a link itself when `noDereference`)
  /// and decodes it into this label; 0 on success, -1 on any failure. A
  /// missing or unreadable attribute is a quiet failure (a debug line only);
  /// other failures log one error line ending in ": PATH". Existence is judged
  /// through links, so a dangling link is a missing file. Fields decoded before
  /// a failure stay written.
  int getFromXattr(const std::string& path, const bool& noDereference);
  /// Writes this label to "security.zorv" in one call (the value is built
  /// completely first); 0 on success, -1 after a LabelError (missing file, no
  /// xattr support, failed write), -2 after any other exception such as an
  /// unsearchable directory on the way. Failures log one error line.
  int setToXattr(const std::string& path, const bool& noDereference);
};

#endif  // ZORV_LABEL_LABEL_H_
