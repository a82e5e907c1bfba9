// The binary label decoder over arbitrary attribute values: it may refuse a
// value only with the one decoding error, and whatever it accepts, or whatever
// label the input describes, survives an encode/decode round trip.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_check.h"
#include "fuzz/label_equal.h"
#include "label/label.h"
#include "label/label_error.h"

namespace {

constexpr size_t kMaxEncoded = 81;
constexpr size_t kMinEncoded = 25;
const char kDecodeErrorPrefix[] = "Label deserialization failed: ";

std::string hexOf(const uint8_t* data, size_t size) { return bytesToHexString(data, size); }

// Encodes `label`, checks the size rules, and decodes the result into a zeroed
// label, which must equal `label`.
void checkRoundTrip(const Label& label, const std::string& input) {
  unsigned char buffer[kMaxEncoded + 8];
  memset(buffer, 0xa5, sizeof(buffer));
  const size_t needed = label.serializedBufferSize();
  FUZZ_CHECK(needed >= kMinEncoded && needed <= kMaxEncoded, input);
  // One byte short must be refused without a write.
  FUZZ_CHECK(label.serializeToBuffer(buffer, needed - 1) == 0, input);
  for (size_t i = 0; i < sizeof(buffer); ++i) FUZZ_CHECK(buffer[i] == 0xa5, input);
  const size_t written = label.serializeToBuffer(buffer, sizeof(buffer));
  FUZZ_CHECK(written == needed, input);

  Label decoded;
  try {
    decoded.deserializeFromBuffer(buffer, written);
  } catch (const std::exception& e) {
    zorv_fuzz::fail(__FILE__, __LINE__, "own encoding refused",
                    std::string(e.what()) + " for " + hexOf(buffer, written) + " from " + input);
  }
  FUZZ_CHECK(zorv_fuzz::sameLabel(decoded, label),
             decoded.toString() + " != " + label.toString() + " from " + input);
}

uint64_t read64(const uint8_t* data, size_t size, size_t& offset) {
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i, ++offset) {
    value |= static_cast<uint64_t>(offset < size ? data[offset] : 0) << (8 * i);
  }
  return value;
}

// A label built from the input's bytes. The first two bytes say which of the
// eleven numbers are zero, so that every compact layout is reached.
Label labelFromBytes(const uint8_t* data, size_t size) {
  size_t offset = 2;
  const unsigned zeroMask = size >= 2 ? data[0] | (data[1] << 8) : 0;
  uint64_t numbers[11];
  for (int i = 0; i < 11; ++i) {
    numbers[i] = read64(data, size, offset);
    if (zeroMask & (1u << i)) numbers[i] = 0;
  }
  Label label;
  label.oid_ = Id{numbers[0], numbers[1], numbers[2]};
  label.sid_ = Id{numbers[3], numbers[4], numbers[5]};
  label.creatorOid_ = Id{numbers[6], numbers[7], numbers[8]};
  label.tid_ = static_cast<uint32_t>(numbers[9]);
  label.inheritFlag_ = static_cast<uint32_t>(numbers[10]);
  return label;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input = hexOf(data, size);

  Label decoded;
  bool accepted = false;
  try {
    decoded.deserializeFromBuffer(data, size);
    accepted = true;
  } catch (const LabelError& e) {
    FUZZ_CHECK(e.code == 13, "code " + std::to_string(e.code) + " for " + input);
    FUZZ_CHECK(strncmp(e.what(), kDecodeErrorPrefix, sizeof(kDecodeErrorPrefix) - 1) == 0,
               std::string(e.what()) + " for " + input);
  } catch (const std::exception& e) {
    zorv_fuzz::fail(__FILE__, __LINE__, "decoder threw something else",
                    std::string(e.what()) + " for " + input);
  }

  if (accepted) {
    FUZZ_CHECK(size >= kMinEncoded && size <= kMaxEncoded, input);
    // Every non-zero part came from the input, so the re-encoding cannot be
    // longer than it.
    FUZZ_CHECK(decoded.serializedBufferSize() <= size, input);
    checkRoundTrip(decoded, input);
  }
  checkRoundTrip(labelFromBytes(data, size), input);
  return 0;
}
