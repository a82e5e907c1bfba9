// Field-by-field comparison of labels for the label fuzz targets.
#ifndef ZORV_FUZZ_LABEL_EQUAL_H_
#define ZORV_FUZZ_LABEL_EQUAL_H_

#include "label/label.h"

namespace zorv_fuzz {

inline bool sameId(const Id& a, const Id& b) {
  return a.pkg_ == b.pkg_ && a.file_ == b.file_ && a.path_ == b.path_;
}

inline bool sameLabel(const Label& a, const Label& b) {
  return sameId(a.oid_, b.oid_) && sameId(a.sid_, b.sid_) && sameId(a.creatorOid_, b.creatorOid_) &&
         a.tid_ == b.tid_ && a.inheritFlag_ == b.inheritFlag_;
}

}  // namespace zorv_fuzz

#endif  // ZORV_FUZZ_LABEL_EQUAL_H_
