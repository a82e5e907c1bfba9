#include <cstdio>
#include <stdexcept>

#include "label/coding_internal.h"
#include "label/label.h"
#include "log/logger.h"

using zorv_label_internal::decodeFixed32;
using zorv_label_internal::decodeFixed64;
using zorv_label_internal::encodeFixed32;

namespace {

// Bits of the state byte, the value's last byte: which optional items precede it.
constexpr unsigned char kOidFile = 0x80;
constexpr unsigned char kOidPath = 0x40;
constexpr unsigned char kTid = 0x20;
constexpr unsigned char kSidFile = 0x10;
constexpr unsigned char kSidPath = 0x08;
constexpr unsigned char kInheritFlag = 0x04;
constexpr unsigned char kCreatorFile = 0x02;
constexpr unsigned char kCreatorPath = 0x01;

constexpr unsigned long kMinSize = 25;  // three package numbers and the state byte
constexpr unsigned long kMaxSize = 81;  // every item present

unsigned char stateOf(const Label& label) {
  unsigned char state = 0;
  if (label.oid_.file_ != 0) state |= kOidFile;
  if (label.oid_.path_ != 0) state |= kOidPath;
  if (label.tid_ != 0) state |= kTid;
  if (label.sid_.file_ != 0) state |= kSidFile;
  if (label.sid_.path_ != 0) state |= kSidPath;
  if (label.inheritFlag_ != 0) state |= kInheritFlag;
  if (label.creatorOid_.file_ != 0) state |= kCreatorFile;
  if (label.creatorOid_.path_ != 0) state |= kCreatorPath;
  return state;
}

// Walks the items before the state byte, refusing to read past it.
class ItemReader {
 public:
  ItemReader(const unsigned char* data, unsigned long end) : data_(data), end_(end) {}

  uint64_t next64() { return decodeFixed64(take(8)); }
  uint32_t next32() { return decodeFixed32(take(4)); }

 private:
  const unsigned char* take(unsigned long count) {
    if (end_ - offset_ < count) throw LabelError("Buffer too small for required data", 1);
    const unsigned char* item = data_ + offset_;
    offset_ += count;
    return item;
  }

  const unsigned char* data_;
  unsigned long end_;
  unsigned long offset_ = 0;
};

// Reads the package number, then the parts whose bits are set in `state`.
void readId(ItemReader& reader, unsigned char state, unsigned char fileBit, unsigned char pathBit,
            Id& id) {
  id.pkg_ = reader.next64();
  if (state & fileBit) id.file_ = reader.next64();
  if (state & pathBit) id.path_ = reader.next64();
}

}  // namespace

std::string bytesToHexString(const unsigned char* data, unsigned long length) {
  if (data == nullptr) return "";
  std::string text;
  text.reserve(length * 2);
  char digits[3];
  for (unsigned long i = 0; i < length; ++i) {
    snprintf(digits, sizeof(digits), "%02x", data[i]);
    text += digits;
  }
  return text;
}

size_t Label::serializedBufferSize() const {
  return oid_.serializedSize() + sid_.serializedSize() + creatorOid_.serializedSize() +
         (tid_ != 0 ? 4 : 0) + (inheritFlag_ != 0 ? 4 : 0) + 1;
}

size_t Label::serializeToBuffer(unsigned char* buffer, unsigned long size) const {
  try {
    if (buffer == nullptr) {
      ZLOG_ERROR("Buffer pointer is null");
      return 0;
    }
    const size_t required = serializedBufferSize();
    if (size < required) {
      ZLOG_ERROR("Buffer size is insufficient. Required: %zu, provided: %zu", required,
                 static_cast<size_t>(size));
      return 0;
    }
    unsigned char* out = oid_.toBytes(buffer);
    out = sid_.toBytes(out);
    out = creatorOid_.toBytes(out);
    if (tid_ != 0) {
      out = encodeFixed32(out, tid_);
      ZLOG_DEBUG("Serialized tid_: %s", bytesToHexString(out - 4, 4).c_str());
    }
    if (inheritFlag_ != 0) out = encodeFixed32(out, inheritFlag_);
    const unsigned char state = stateOf(*this);
    *out++ = state;
    ZLOG_DEBUG("Serialized state: %s", bytesToHexString(&state, 1).c_str());
    return static_cast<size_t>(out - buffer);
  } catch (const std::exception& e) {
    ZLOG_ERROR("Label serialization failed: %s", e.what());
    return 0;
  }
}

Label Label::deserializeFromBuffer(const unsigned char* buffer, unsigned long size) {
  try {
    if (buffer == nullptr) throw LabelError("Buffer pointer is null", 1);
    if (size < kMinSize || size > kMaxSize) throw LabelError("Buffer size is invalid", 1);
    const unsigned char state = buffer[size - 1];
    ZLOG_DEBUG("Label deserialization: state: %02x", state);

    // Items are stored into this label as they are read, so a failure part way
    // leaves the earlier ones written; absent ones keep their earlier values.
    ItemReader reader(buffer, size - 1);
    readId(reader, state, kOidFile, kOidPath, oid_);
    readId(reader, state, kSidFile, kSidPath, sid_);
    readId(reader, state, kCreatorFile, kCreatorPath, creatorOid_);
    if (state & kTid) {
      tid_ = reader.next32();
      ZLOG_DEBUG("Label deserialization: tid: %08lx", static_cast<unsigned long>(tid_));
    }
    if (state & kInheritFlag) inheritFlag_ = reader.next32();
    return *this;
  } catch (const std::exception& e) {
    throw LabelError(std::string("Label deserialization failed: ") + e.what(), 13);
  }
}
