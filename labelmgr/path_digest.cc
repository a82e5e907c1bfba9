#include "labelmgr/path_digest.h"

#include <memory>

#include "common/crypto_api_internal.h"
#include "common/sm3.h"

namespace zorv::labelmgr {
namespace {

struct DigestFree {
  void operator()(EVP_MD* md) const { cryptoApi()->mdFree(md); }
};
struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { cryptoApi()->mdCtxFree(context); }
};

using Context = std::unique_ptr<EVP_MD_CTX, ContextFree>;

const EVP_MD* sm3() {
  static const std::unique_ptr<EVP_MD, DigestFree> md(
      cryptoApi() != nullptr ? cryptoApi()->mdFetch(nullptr, "SM3", nullptr) : nullptr);
  return md.get();
}

}  // namespace

uint64_t sm3Last64Bits(std::string_view text) {
  const EVP_MD* md = sm3();
  if (md == nullptr) return getSM3HashLast64Bits(std::string(text));
  const CryptoApi& crypto = *cryptoApi();
  thread_local Context context(crypto.mdCtxNew());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!context || crypto.digestInit2(context.get(), md, nullptr) != 1 ||
      crypto.digestUpdate(context.get(), text.data(), text.size()) != 1 ||
      crypto.digestFinal(context.get(), digest, &length) != 1 || length < 8) {
    // The common library's helper says why in its own words.
    return getSM3HashLast64Bits(std::string(text));
  }
  uint64_t value = 0;
  for (unsigned int i = length - 8; i < length; ++i) value = value << 8 | digest[i];
  return value;
}

}  // namespace zorv::labelmgr
