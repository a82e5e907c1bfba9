// The label model's exception.
#ifndef ZORV_LABEL_LABEL_ERROR_H_
#define ZORV_LABEL_LABEL_ERROR_H_

#include <stdexcept>
#include <string>

#include "log/export.h"

/// Raised inside the label model; its outer operations catch it and answer
/// with 0 or a negative value. Codes: 1 parse, 3 id buffer, 4 missing file,
/// 5 xattr I/O, 6 empty xattr, 7 no xattr support, 12 serialization,
/// 13 deserialization.
class ZORV_EXPORT LabelError : public std::runtime_error {
 public:
  LabelError(const std::string& message, int code);
  ~LabelError() override;

  int code;
};

#endif  // ZORV_LABEL_LABEL_ERROR_H_
