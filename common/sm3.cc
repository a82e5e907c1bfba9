#include "common/sm3.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "common/crypto_api_internal.h"
#include "common/sm3_internal.h"
#include "log/logger.h"

namespace {

struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { cryptoApi()->mdCtxFree(context); }
};
using Context = std::unique_ptr<EVP_MD_CTX, ContextFree>;

struct DigestFree {
  void operator()(EVP_MD* md) const { cryptoApi()->mdFree(md); }
};

// The core: one init, one update over every byte (embedded NULs included) and
// one final over `context`. Each step's result is checked, so a failure can
// never pass for a digest. `length` receives the digest's length.
bool runDigest(const CryptoApi& crypto, EVP_MD_CTX* context, const EVP_MD* md, bool reuse,
               std::string_view text, unsigned char* out, unsigned int* length) {
  const int initialised =
      reuse ? crypto.digestInit2(context, md, nullptr) : crypto.digestInit(context, md, nullptr);
  return initialised == 1 && crypto.digestUpdate(context, text.data(), text.size()) == 1 &&
         crypto.digestFinal(context, out, length) == 1;
}

// SM3 fetched once for the process; null (logged) when libcrypto or its SM3
// cannot be used.
const EVP_MD* fetchedSm3() {
  static const std::unique_ptr<EVP_MD, DigestFree> md = [] {
    const CryptoApi* crypto = cryptoApi();  // logs why it cannot be opened
    EVP_MD* fetched = crypto != nullptr ? crypto->mdFetch(nullptr, "SM3", nullptr) : nullptr;
    if (crypto != nullptr && fetched == nullptr) ZLOG_ERROR("libcrypto offers no SM3 digest");
    return std::unique_ptr<EVP_MD, DigestFree>(fetched);
  }();
  return md.get();
}

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

namespace zorv::sm3 {

bool available() { return fetchedSm3() != nullptr; }

bool digest(std::string_view text, unsigned char (&out)[kDigestBytes]) {
  const EVP_MD* md = fetchedSm3();
  if (md == nullptr) return false;
  const CryptoApi& crypto = *cryptoApi();
  thread_local Context context(crypto.mdCtxNew());
  unsigned char full[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!context || !runDigest(crypto, context.get(), md, true, text, full, &length) ||
      length != kDigestBytes) {
    ZLOG_ERROR("SM3 digest of %zu bytes failed", text.size());
    return false;
  }
  std::copy(full, full + kDigestBytes, out);
  return true;
}

std::optional<uint64_t> last64Bits(std::string_view text) {
  unsigned char bytes[kDigestBytes];
  if (!digest(text, bytes)) return std::nullopt;
  uint64_t value = 0;
  for (unsigned i = kDigestBytes - 8; i < kDigestBytes; ++i) value = value << 8 | bytes[i];
  return value;
}

}  // namespace zorv::sm3

std::string getSM3HashValue(const std::string& input) {
  // A fresh context and a digest looked up by name on every call, as this
  // function has always worked; the steps are the core's.
  const CryptoApi* crypto = cryptoApi();
  const EVP_MD* md = crypto != nullptr ? crypto->getDigestByName("SM3") : nullptr;
  if (md == nullptr) {
    ZLOG_ERROR("Unsupported hash function SM3");
    return "";
  }
  Context context(crypto->mdCtxNew());
  if (!context) {
    ZLOG_ERROR("EVP_MD_CTX_new failed");
    return "";
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!runDigest(*crypto, context.get(), md, false, input, digest, &length)) {
    ZLOG_ERROR("SM3 digest failed");
    return "";
  }

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
