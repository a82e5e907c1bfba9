#include "common/crypto_api_internal.h"

#include "common/shared_object_internal.h"

namespace {

// OpenSSL 3 keeps this soname for its whole major version.
constexpr char kCryptoSoname[] = "libcrypto.so.3";

const CryptoApi* openCryptoApi() {
  static SharedObject library(kCryptoSoname);
  static CryptoApi api;
  library.resolve(api.getDigestByName, "EVP_get_digestbyname");
  library.resolve(api.mdFetch, "EVP_MD_fetch");
  library.resolve(api.mdFree, "EVP_MD_free");
  library.resolve(api.mdCtxNew, "EVP_MD_CTX_new");
  library.resolve(api.mdCtxFree, "EVP_MD_CTX_free");
  library.resolve(api.digestInit, "EVP_DigestInit_ex");
  library.resolve(api.digestInit2, "EVP_DigestInit_ex2");
  library.resolve(api.digestUpdate, "EVP_DigestUpdate");
  library.resolve(api.digestFinal, "EVP_DigestFinal_ex");
  return library.ready() ? &api : nullptr;
}

}  // namespace

const CryptoApi* cryptoApi() {
  static const CryptoApi* const api = openCryptoApi();
  return api;
}
