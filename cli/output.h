// Standard-output helpers of the tool. Every line is flushed as it is written,
// listings of whole trees included, so that the output can be followed through
// a pipe and keeps its order with standard error when both share a file; all
// of them go through C stdio, which std::cout shares while it stays
// synchronised with stdio.
#ifndef ZORV_CLI_OUTPUT_H_
#define ZORV_CLI_OUTPUT_H_

#include <initializer_list>
#include <string>
#include <string_view>

namespace zorv::cli {

/// `text` and a newline on standard output, flushed.
void printLine(const std::string& text);
/// The pieces and a newline as one flushed line, without joining them first
/// (label listings print one such line per file).
void printLine(std::initializer_list<std::string_view> pieces);
/// printf to standard output, flushed. The format carries its own newline.
void printFormatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zorv::cli

#endif  // ZORV_CLI_OUTPUT_H_
