// Runs one zorv-label-audit command and prints its findings, as text or as
// JSON Lines.
#ifndef ZORV_AUDIT_AUDIT_RUN_H_
#define ZORV_AUDIT_AUDIT_RUN_H_

#include "audit/audit_options.h"

namespace zorv::audit {

/// The exit status: kSame, kDiffers or kTrouble.
int runCommand(const CommandLine& line);

}  // namespace zorv::audit

#endif  // ZORV_AUDIT_AUDIT_RUN_H_
