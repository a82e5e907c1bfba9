// Fixed-width little-endian numbers, written and read one byte at a time so
// that attribute values are the same whatever the host's byte order.
#ifndef ZORV_LABEL_CODING_INTERNAL_H_
#define ZORV_LABEL_CODING_INTERNAL_H_

#include <cstdint>

namespace zorv_label_internal {

/// REQUIRES: `out` has room for 8 bytes. Returns the position after them.
inline unsigned char* encodeFixed64(unsigned char* out, uint64_t value) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
  return out + 8;
}

/// REQUIRES: `out` has room for 4 bytes. Returns the position after them.
inline unsigned char* encodeFixed32(unsigned char* out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
  return out + 4;
}

/// REQUIRES: `in` holds 8 readable bytes.
inline uint64_t decodeFixed64(const unsigned char* in) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | in[i];
  return value;
}

/// REQUIRES: `in` holds 4 readable bytes.
inline uint32_t decodeFixed32(const unsigned char* in) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | in[i];
  return value;
}

}  // namespace zorv_label_internal

#endif  // ZORV_LABEL_CODING_INTERNAL_H_
