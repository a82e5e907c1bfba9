// The few libcrypto functions the digests use, opened on first use.
#ifndef ZORV_COMMON_CRYPTO_API_INTERNAL_H_
#define ZORV_COMMON_CRYPTO_API_INTERNAL_H_

#include <openssl/evp.h>

struct CryptoApi {
  // Each pointer has the exact type of the function declared by OpenSSL's
  // header, so a mismatch is a compile error rather than a crash.
  decltype(&::EVP_get_digestbyname) getDigestByName;
  decltype(&::EVP_MD_fetch) mdFetch;
  decltype(&::EVP_MD_free) mdFree;
  decltype(&::EVP_MD_CTX_new) mdCtxNew;
  decltype(&::EVP_MD_CTX_free) mdCtxFree;
  decltype(&::EVP_DigestInit_ex) digestInit;
  decltype(&::EVP_DigestInit_ex2) digestInit2;
  decltype(&::EVP_DigestUpdate) digestUpdate;
  decltype(&::EVP_DigestFinal_ex) digestFinal;
};

/// libcrypto.so.3's functions, opened by the first call (thread-safe);
/// nullptr, with an error logged, when the library cannot be used.
const CryptoApi* cryptoApi();

#endif  // ZORV_COMMON_CRYPTO_API_INTERNAL_H_
