// The identifier and label text parsers over arbitrary text: they never throw,
// and whatever they produce prints as a text that parses back to it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_check.h"
#include "fuzz/label_equal.h"
#include "label/id.h"
#include "label/label.h"

using zorv_fuzz::printable;
using zorv_fuzz::sameId;
using zorv_fuzz::sameLabel;

namespace {

void checkId(const std::string& text) {
  Id id;
  FUZZ_NO_THROW(id = Id::fromString(text), printable(text));
  const std::string printed = id.toString();
  FUZZ_CHECK(printed.size() == 50, printed);
  Id again;
  FUZZ_NO_THROW(again = Id::fromString(printed), printed);
  FUZZ_CHECK(sameId(again, id), printed + " from " + printable(text));
}

void checkLabel(const std::string& text) {
  Label label;
  FUZZ_NO_THROW(label = Label::fromString(text), printable(text));
  // Any other flag makes the whole label invalid (and zero).
  FUZZ_CHECK(label.inheritFlag_ == 0 || label.inheritFlag_ == 5 || label.inheritFlag_ == 7,
             label.toString() + " from " + printable(text));
  const std::string printed = label.toString();
  Label again;
  FUZZ_NO_THROW(again = Label::fromString(printed), printed);
  FUZZ_CHECK(sameLabel(again, label), again.toString() + " != " + printed);
  FUZZ_CHECK(again.toString() == printed, printed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkId(text);
  checkLabel(text);

  // Any three numbers survive their own text form exactly.
  if (size >= 24) {
    Id id;
    for (int i = 0; i < 8; ++i) {
      id.pkg_ |= static_cast<uint64_t>(data[i]) << (8 * i);
      id.file_ |= static_cast<uint64_t>(data[8 + i]) << (8 * i);
      id.path_ |= static_cast<uint64_t>(data[16 + i]) << (8 * i);
    }
    FUZZ_CHECK(sameId(Id::fromString(id.toString()), id), id.toString());
  }
  return 0;
}
