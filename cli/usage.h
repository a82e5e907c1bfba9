// The usage text of the tool.
#ifndef ZORV_CLI_USAGE_H_
#define ZORV_CLI_USAGE_H_

namespace zorv::cli {

/// Prints the fixed 66-line usage text on standard output, line by line.
/// Administrators know this text by heart, oddities included, so it is written
/// out as it stands rather than generated from the option table.
void printUsage();

}  // namespace zorv::cli

#endif  // ZORV_CLI_USAGE_H_
