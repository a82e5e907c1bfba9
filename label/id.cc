#include "label/id.h"

#include <sstream>

#include "label/coding_internal.h"
#include "label/label_error.h"
#include "log/logger.h"

using zorv_label_internal::decodeFixed64;
using zorv_label_internal::encodeFixed64;

namespace {
constexpr size_t kTextLength = 50;
}  // namespace

namespace {

// Sixteen zero-filled lower-case hex digits; printing every label of a tree
// goes through here, where snprintf's format parsing is measurable.
char* putHex16(char* out, uint64_t value) {
  static const char kDigits[] = "0123456789abcdef";
  for (int i = 15; i >= 0; --i) {
    out[i] = kDigits[value & 0xf];
    value >>= 4;
  }
  return out + 16;
}

}  // namespace

std::string Id::toString() const {
  std::string text;
  appendTo(text);
  return text;
}

void Id::appendTo(std::string& text) const {
  const size_t start = text.size();
  text.resize(start + kTextLength, '-');
  char* out = putHex16(&text[start], pkg_);
  out = putHex16(out + 1, file_);
  putHex16(out + 1, path_);
}

Id Id::fromString(const std::string& text) {
  if (text.size() != kTextLength) {
    ZLOG_ERROR("Invalid ID string length: %zu", text.size());
    return Id();
  }
  // Stream extraction on purpose: it decides what a number looks like (blanks,
  // "0x", either case) the same way every other reader of these texts does.
  std::istringstream in(text);
  unsigned long long pkg = 0, file = 0, path = 0;
  char first = 0, second = 0;
  in >> std::hex >> pkg >> first >> file >> second >> path;
  if (in.fail() || first != '-' || second != '-' || !in.eof()) {
    ZLOG_ERROR("Invalid ID format (expect pkg-file-path)");
    return Id();
  }
  Id id;
  id.pkg_ = pkg;
  id.file_ = file;
  id.path_ = path;
  return id;
}

size_t Id::serializedSize() const { return 8 + (file_ != 0 ? 8 : 0) + (path_ != 0 ? 8 : 0); }

unsigned char* Id::toBytes(unsigned char* buffer, unsigned long size) const {
  if (buffer == nullptr) {
    ZLOG_ERROR("input buffer is nullptr");
    return nullptr;
  }
  const size_t required = serializedSize();
  if (size < required) {
    ZLOG_ERROR("toBytes: buffer too small, required: %zu, actual: %zu", required,
               static_cast<size_t>(size));
    throw LabelError("Buffer size is insufficient for ID serialization", 3);
  }
  return toBytes(buffer);
}

unsigned char* Id::toBytes(unsigned char* buffer) const {
  if (buffer == nullptr) {
    ZLOG_ERROR("input buffer is nullptr");
    return nullptr;
  }
  unsigned char* out = encodeFixed64(buffer, pkg_);
  if (file_ != 0) out = encodeFixed64(out, file_);
  if (path_ != 0) out = encodeFixed64(out, path_);
  return out;
}

Id Id::fromBytes(const unsigned char* data) {
  if (data == nullptr) {
    ZLOG_ERROR("fromBytes: input data is nullptr");
    return Id();
  }
  Id id;
  id.pkg_ = decodeFixed64(data);
  id.file_ = decodeFixed64(data + 8);
  id.path_ = decodeFixed64(data + 16);
  return id;
}
