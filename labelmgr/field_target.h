// What a field operation names, admitted once: an exact file, pinned by its
// directory as it was found, or a pattern. The sets, deletes and queries of
// a label field all start here.
#ifndef ZORV_LABELMGR_FIELD_TARGET_H_
#define ZORV_LABELMGR_FIELD_TARGET_H_

#include <string>

#include "labelmgr/path_gate.h"

namespace zorv::labelmgr {

struct FieldTarget {
  bool pattern = false;
  std::string text;   // the canonical path or the admitted pattern
  PinnedEntry exact;  // the file, when not a pattern
};

/// Admits `path` as a pattern when `patternMatch` is not 0, else as an
/// existing file, pinned without following a final link. False (logged by
/// the path checks) when it is refused.
bool admitTarget(const char* path, int patternMatch, FieldTarget* target);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_FIELD_TARGET_H_
