#include "labelmgr/path_digest.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "common/sm3_internal.h"
#include "log/logger.h"

namespace zorv::labelmgr {

bool digestsAvailable() {
  if (sm3::available()) return true;
  ZLOG_ERROR("SM3 digests are unavailable: no label or package id can be computed");
  return false;
}

uint64_t sm3Last64Bits(std::string_view text) {
  std::optional<uint64_t> value = sm3::last64Bits(text);
  if (!value) {
    ZLOG_ERROR("SM3 digest failed after libcrypto was usable; stopping before a label is written");
    std::fprintf(stderr, "SM3 digest failed; stopped before writing a label\n");
    std::abort();
  }
  return *value;
}

}  // namespace zorv::labelmgr
