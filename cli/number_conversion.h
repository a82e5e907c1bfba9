// Conversion of command-line words into numbers. Every number on the command
// line is read in base 16.
#ifndef ZORV_CLI_NUMBER_CONVERSION_H_
#define ZORV_CLI_NUMBER_CONVERSION_H_

#include <cstdint>
#include <string>

namespace zorv::cli {

/// The word as an unsigned number in `base`, as strtoull reads it (leading
/// blanks, a sign and a "0x" prefix accepted), narrowed to its low 32 bits.
/// On a bad word writes "Invalid argument: TEXT" or "Out of Range error: TEXT"
/// on standard error and throws: std::invalid_argument("stoul") when there are
/// no digits, std::out_of_range("stoul") beyond 64 bits, and
/// std::invalid_argument("Conversion failed due to invalid characters in the
/// string.") when characters follow the digits. The tool lets that exception
/// end the run: a mistyped number must never reach a label.
uint32_t toUnsigned32(const std::string& word, int base);
/// As toUnsigned32, full 64 bits, with "stoull" in the exception texts.
uint64_t toUnsigned64(const std::string& word, int base);

}  // namespace zorv::cli

#endif  // ZORV_CLI_NUMBER_CONVERSION_H_
