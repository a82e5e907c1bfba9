#include "common/crypto_api_internal.h"

#include "common/shared_object_internal.h"

namespace {

// OpenSSL 3 keeps this soname for its whole major version.
constexpr char kCryptoSoname[] = "libcrypto.so.3";

}  // namespace

const CryptoApi* cryptoApi() {
  static CryptoApi api;
  // Loaded once, by the first caller; later callers wait for it.
  static const bool loaded =
      loadFunctions(kCryptoSoname, {{api.getDigestByName, "EVP_get_digestbyname"},
                                    {api.mdFetch, "EVP_MD_fetch"},
                                    {api.mdFree, "EVP_MD_free"},
                                    {api.mdCtxNew, "EVP_MD_CTX_new"},
                                    {api.mdCtxFree, "EVP_MD_CTX_free"},
                                    {api.digestInit, "EVP_DigestInit_ex"},
                                    {api.digestInit2, "EVP_DigestInit_ex2"},
                                    {api.digestUpdate, "EVP_DigestUpdate"},
                                    {api.digestFinal, "EVP_DigestFinal_ex"}});
  return loaded ? &api : nullptr;
}
