// SM3 digests of texts (through OpenSSL's EVP interface) and the FNV-1a hash of
// kernel-module names.
#ifndef ZORV_COMMON_SM3_H_
#define ZORV_COMMON_SM3_H_

#include <cstdint>
#include <string>

#include "log/export.h"

/// 64 lower-case hex characters of the SM3 digest of the string's bytes, or ""
/// when OpenSSL has no SM3.
ZORV_EXPORT std::string getSM3HashValue(const std::string& input);
/// The digest's last 32 bits as a number; 0 on failure.
ZORV_EXPORT uint32_t getSM3HashLast32Bits(const std::string& input);
/// The digest's last 64 bits as a number; 0 on failure.
ZORV_EXPORT uint64_t getSM3HashLast64Bits(const std::string& input);
/// 32-bit FNV-1a of `length` bytes, each byte widened as a signed char.
/// REQUIRES: `name` points to `length` readable bytes.
ZORV_EXPORT uint32_t getKmodNameHash(const char* name, uint32_t length);

#endif  // ZORV_COMMON_SM3_H_
