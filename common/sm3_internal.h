// The SM3 core behind every digest of the framework's code: the exported
// getSM3Hash* functions and our label manager library's many digests per
// second both run it, so the two can never disagree.
#ifndef ZORV_COMMON_SM3_INTERNAL_H_
#define ZORV_COMMON_SM3_INTERNAL_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace zorv::sm3 {

inline constexpr unsigned kDigestBytes = 32;

/// Whether SM3 digests can be taken: the first call opens libcrypto and
/// fetches its SM3 (thread-safe). False, with the reason logged, when either
/// fails; whoever writes a label or an id from a digest checks this first and
/// fails the whole operation, so that no value is ever made from a failed
/// digest.
bool available();

/// The SM3 digest of `text` into `digest`, with the digest fetched once and a
/// context reused per thread (no per-call allocation). False, logged, when
/// SM3 is unavailable or a step fails.
bool digest(std::string_view text, unsigned char (&digest)[kDigestBytes]);

/// The last eight digest bytes read big-endian: the value getSM3HashLast64Bits
/// gives, without its hex text. Empty (logged) when digest() fails.
std::optional<uint64_t> last64Bits(std::string_view text);

}  // namespace zorv::sm3

#endif  // ZORV_COMMON_SM3_INTERNAL_H_
