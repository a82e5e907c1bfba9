#include "labelmgr/path_digest.h"

#include <openssl/evp.h>

#include <memory>

#include "common/sm3.h"

namespace zorv::labelmgr {
namespace {

struct DigestFree {
  void operator()(EVP_MD* md) const { EVP_MD_free(md); }
};
struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

const EVP_MD* sm3() {
  static const std::unique_ptr<EVP_MD, DigestFree> md(EVP_MD_fetch(nullptr, "SM3", nullptr));
  return md.get();
}

}  // namespace

uint64_t sm3Last64Bits(std::string_view text) {
  thread_local std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
  const EVP_MD* md = sm3();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (md == nullptr || !context || EVP_DigestInit_ex2(context.get(), md, nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), text.data(), text.size()) != 1 ||
      EVP_DigestFinal_ex(context.get(), digest, &length) != 1 || length < 8) {
    // The common library's helper says why in its own words.
    return getSM3HashLast64Bits(std::string(text));
  }
  uint64_t value = 0;
  for (unsigned int i = length - 8; i < length; ++i) value = value << 8 | digest[i];
  return value;
}

}  // namespace zorv::labelmgr
