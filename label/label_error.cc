#include "label/label_error.h"

LabelError::LabelError(const std::string& message, int code)
    : std::runtime_error(message), code(code) {}

// Defined here so that the class's type information and virtual table live in
// one object file of the shared library.
LabelError::~LabelError() = default;
