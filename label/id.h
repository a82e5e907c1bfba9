// The three-part identifier (package, file, path) of objects and subjects.
#ifndef ZORV_LABEL_ID_H_
#define ZORV_LABEL_ID_H_

#include <cstdint>
#include <string>

#include "log/export.h"

class ZORV_EXPORT Id {
 public:
  uint64_t pkg_ = 0;
  uint64_t file_ = 0;
  uint64_t path_ = 0;

  /// Three 16-digit lower-case hex groups joined by "-": always 50 characters.
  std::string toString() const;
  /// Appends toString()'s text to `out`, without a string of its own.
  void appendTo(std::string& out) const;
  /// Parses the 50-character form; the zero Id (and an error log line) on any
  /// error. Never throws for bad input.
  static Id fromString(const std::string& text);

  /// Bytes of the compact form: 8, plus 8 for each of file_ and path_ that is
  /// non-zero.
  size_t serializedSize() const;
  /// Writes the compact little-endian form; returns the position after it, or
  /// null for a null buffer. Throws LabelError code 3 when `size` is too small.
  unsigned char* toBytes(unsigned char* buffer, unsigned long size) const;
  /// As above without the capacity check. REQUIRES: room for serializedSize().
  unsigned char* toBytes(unsigned char* buffer) const;
  /// Reads three little-endian 64-bit numbers (24 bytes, uncompacted); the zero
  /// Id for a null pointer.
  static Id fromBytes(const unsigned char* data);
};

#endif  // ZORV_LABEL_ID_H_
