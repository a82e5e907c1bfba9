#include "labelmgr/field_target.h"

namespace zorv::labelmgr {

bool admitTarget(const char* path, int patternMatch, FieldTarget* target) {
  target->pattern = patternMatch != 0;
  if (target->pattern) {
    target->text = admitPattern(path);
    return !target->text.empty();
  }
  if (!admitExactPath(path, &target->exact)) return false;
  target->text = target->exact.path;
  return true;
}

}  // namespace zorv::labelmgr
