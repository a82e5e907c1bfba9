#include "cli/output.h"

#include <cstdarg>
#include <cstdio>

namespace zorv::cli {
namespace {

void endLine() { std::fflush(stdout); }

}  // namespace

void printLine(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  endLine();
}

void printLine(std::initializer_list<std::string_view> pieces) {
  for (std::string_view piece : pieces) std::fwrite(piece.data(), 1, piece.size(), stdout);
  std::fputc('\n', stdout);
  endLine();
}

void printFormatted(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  endLine();
}

}  // namespace zorv::cli
