#include "label/label.h"

#include <sstream>
#include <stdexcept>

#include "log/logger.h"

namespace {

constexpr uint32_t kLowWord = 0xffffffffu;

bool isValidInheritFlag(uint32_t flag) { return flag == 0 || flag == 5 || flag == 7; }

// Reads the next ':'-terminated piece. An empty piece before a ':' is present;
// only running out of text counts as missing.
std::string nextPiece(std::istream& in, char delimiter, const char* missingMessage) {
  std::string piece;
  if (!std::getline(in, piece, delimiter)) throw std::runtime_error(missingMessage);
  return piece;
}

// Decimal, with std::stoul's leniency (blanks, sign, trailing text); only the
// low 32 bits are kept, so "-1" becomes 0xffffffff.
uint32_t lowWordOf(const std::string& piece) {
  return static_cast<uint32_t>(std::stoul(piece, nullptr, 10) & kLowWord);
}

}  // namespace

std::string Label::toString() const {
  // Built in place: listing a tree prints one of these per file.
  std::string text;
  text.reserve(3 * 50 + 2 * 10 + 4);
  oid_.appendTo(text);
  text += ':';
  text += std::to_string(tid_);
  text += ':';
  sid_.appendTo(text);
  text += ':';
  text += std::to_string(inheritFlag_);
  text += ':';
  creatorOid_.appendTo(text);
  return text;
}

Label Label::fromString(const std::string& text) {
  try {
    std::istringstream in(text);
    Label label;
    label.oid_ = Id::fromString(nextPiece(in, ':', "Invalid format: missing OID"));
    label.tid_ = lowWordOf(nextPiece(in, ':', "Invalid format: missing TID"));
    label.sid_ = Id::fromString(nextPiece(in, ':', "Invalid format: missing SID"));
    label.inheritFlag_ = lowWordOf(nextPiece(in, ':', "Invalid format: missing inherit flag"));
    // The creator runs to the end of the line, so stray ":..." text after it
    // makes it too long and it alone becomes zero.
    label.creatorOid_ = Id::fromString(nextPiece(in, '\n', "Invalid format: missing creator OID"));
    if (!isValidInheritFlag(label.inheritFlag_)) throw LabelError("Invalid inherit flag value", 1);
    return label;
  } catch (const std::exception& e) {
    ZLOG_ERROR("label deserialization failed: %s", e.what());
    return Label();
  }
}
