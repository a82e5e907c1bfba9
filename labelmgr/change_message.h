// The text encoding of label-change messages.
//
// A message is one line, so no byte in it may end or fake a line: every
// control character (0x00 to 0x1f and 0x7f) becomes "\xHH" with two
// lower-case hexadecimal digits, and the backslash itself becomes "\\".
// Every other byte, spaces and non-ASCII bytes included, stays as it is.
// The encoding keeps prefixes: the escaped form of a prefix of a text is a
// prefix of the escaped text, so topics escaped the same way still match.
#ifndef ZORV_LABELMGR_CHANGE_MESSAGE_H_
#define ZORV_LABELMGR_CHANGE_MESSAGE_H_

#include <string>
#include <string_view>

namespace zorv::labelmgr {

/// `text` with control characters and backslashes escaped as above.
std::string escapeMessageField(std::string_view text);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_CHANGE_MESSAGE_H_
