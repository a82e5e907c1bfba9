// The last 64 bits of a text's SM3 digest, for labelling many files.
//
// Same value as getSM3HashLast64Bits() of the common library, computed by the
// same core (common/sm3_internal.h) without its per-call costs: the digest is
// fetched from libcrypto once, each thread reuses one context, and no hex
// text is built and parsed. Thread-safe.
#ifndef ZORV_LABELMGR_PATH_DIGEST_H_
#define ZORV_LABELMGR_PATH_DIGEST_H_

#include <cstdint>
#include <string_view>

namespace zorv::labelmgr {

/// Whether digests can be taken (libcrypto opened, SM3 found); logs why not.
/// Every operation that makes a label or a package id from a digest asks this
/// before it starts and fails, with nothing written, when the answer is no.
bool digestsAvailable();

/// REQUIRES: digestsAvailable() has answered true. A digest that fails even
/// so (libcrypto out of memory) ends the process with the reason logged: any
/// value returned would be written into a label as if it were a digest.
uint64_t sm3Last64Bits(std::string_view text);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_PATH_DIGEST_H_
