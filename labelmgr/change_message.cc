#include "labelmgr/change_message.h"

namespace zorv::labelmgr {

std::string escapeMessageField(std::string_view text) {
  static const char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (byte == '\\') {
      escaped += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      escaped += "\\x";
      escaped += kHex[byte >> 4];
      escaped += kHex[byte & 15];
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace zorv::labelmgr
