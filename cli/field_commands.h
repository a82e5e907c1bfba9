// Commands on one label field (OID, SID, TID, inherit flag) of a file or a
// pattern, and on package ids: set, get, delete and clear, each one call of the
// label manager library. Paths go to the library exactly as typed.
//
// Each function prints its fixed result line on standard output and returns
// the exit status the run ends with (or, for the get steps, whether the chain
// goes on). A number word that does not convert ends the run abnormally.
#ifndef ZORV_CLI_FIELD_COMMANDS_H_
#define ZORV_CLI_FIELD_COMMANDS_H_

#include "cli/command_options.h"

namespace zorv::cli {

/// A label field, or the package id.
enum class Field { PkgId, Oid, Sid, Tid, InheritFlag };

// Sets. The target is the head of the operand list; the values are counted
// from the end of the command line, whose exact length is checked first.

/// -a -o TARGET P F H. 1 on a wrong count or a failed set.
int setOid(const CommandOptions& options);
/// -a -m TARGET P F H. 1 on a wrong count or a failed set.
int setSid(const CommandOptions& options);
/// -a -t TARGET TID: 0 even when the library fails. With -n the same last word
/// then goes on to setInheritFlag without a second count check, and that
/// result is the run's.
int setTid(const CommandOptions& options);
/// -a -n TARGET FLAG. The flag is narrowed to 32 bits, then must lie in 0..7.
/// `checkCount` is false when coming from setTid.
int setInheritFlag(const CommandOptions& options, bool checkCount);
/// -a -p NAME ID, exactly five words; the id is always the fifth. 0 even when
/// the library fails.
int setPackageId(const CommandOptions& options);

/// One get step: prints the field of the selector's own argument. False after
/// the failure line.
bool printField(Field field, const char* target);

/// One delete step over the whole operand list, one line per operand. Failures
/// neither stop the list nor fail the run.
void deleteField(Field field, const CommandOptions& options);

/// -d -c WORD...: clears one field for every file per word, in order. An
/// unknown word stops there with two lines and returns 1; else 0.
int clearFields(const CommandOptions& options);

}  // namespace zorv::cli

#endif  // ZORV_CLI_FIELD_COMMANDS_H_
