#include "common/sm3.h"

#include <memory>
#include <sstream>

#include "common/crypto_api_internal.h"
#include "log/logger.h"

namespace {

struct DigestContextFree {
  void operator()(EVP_MD_CTX* context) const { cryptoApi()->mdCtxFree(context); }
};
// Owns one digest context for the length of a call; freed on every path.
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFree>;

// The trailing `digits` hex characters of `input`'s digest read as a number.
// The digest text is read big-endian: its last byte is the least significant.
template <typename Number>
Number trailingDigestBits(const std::string& input, size_t digits, const char* tag, int line,
                          const char* tooShortMessage, const char* notHexMessage) {
  const std::string hex = getSM3HashValue(input);
  if (hex.size() < digits) {
    Logger::getInstance().error(tag, line, "%s", tooShortMessage);
    return 0;
  }
  std::istringstream in(hex.substr(hex.size() - digits));
  Number value = 0;
  in >> std::hex >> value;
  if (in.fail() || in.bad()) {
    Logger::getInstance().error(tag, line, "%s", notHexMessage);
    return 0;
  }
  return value;
}

}  // namespace

std::string getSM3HashValue(const std::string& input) {
  const CryptoApi* crypto = cryptoApi();
  const EVP_MD* md = crypto != nullptr ? crypto->getDigestByName("SM3") : nullptr;
  if (md == nullptr) {
    ZLOG_ERROR("Unsupported hash function SM3");
    return "";
  }
  DigestContext context(crypto->mdCtxNew());
  if (!context) {
    ZLOG_ERROR("EVP_MD_CTX_new failed");
    return "";
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  crypto->digestInit(context.get(), md, nullptr);
  crypto->digestUpdate(context.get(), input.data(), input.size());
  crypto->digestFinal(context.get(), digest, &length);

  static const char kAlphabet[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kAlphabet[digest[i] >> 4];
    hex += kAlphabet[digest[i] & 0x0f];
  }
  return hex;
}

uint32_t getSM3HashLast32Bits(const std::string& input) {
  return trailingDigestBits<uint32_t>(input, 8, __func__, __LINE__, "Hash string is too short",
                                      "Invalid hex string for last 32 bits");
}

uint64_t getSM3HashLast64Bits(const std::string& input) {
  return trailingDigestBits<uint64_t>(input, 16, __func__, __LINE__, "hash string is too short",
                                      "Invalid hex string for last 64 bits");
}

uint32_t getKmodNameHash(const char* name, uint32_t length) {
  uint32_t hash = 0x811C9DC5u;
  for (uint32_t i = 0; i < length; ++i) {
    // Bytes are widened as signed chars: names with high bytes hash as the
    // framework's other components have always stored them.
    hash ^= static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(name[i])));
    hash *= 0x01000193u;
  }
  return hash;
}
