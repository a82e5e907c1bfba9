// The last 64 bits of a text's SM3 digest, for labelling many files.
//
// Same value as getSM3HashLast64Bits() of the common library (the last eight
// digest bytes read big-endian), without its per-call costs: the digest is
// fetched from OpenSSL once and each thread reuses one context, and no hex
// text is built and parsed. Thread-safe.
#ifndef ZORV_LABELMGR_PATH_DIGEST_H_
#define ZORV_LABELMGR_PATH_DIGEST_H_

#include <cstdint>
#include <string_view>

namespace zorv::labelmgr {

/// 0 (logged, as getSM3HashLast64Bits does) when OpenSSL offers no SM3.
uint64_t sm3Last64Bits(std::string_view text);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_PATH_DIGEST_H_
