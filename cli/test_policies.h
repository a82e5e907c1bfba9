// The fixed policy table that the -b self-test hands to the label manager
// library.
#ifndef ZORV_CLI_TEST_POLICIES_H_
#define ZORV_CLI_TEST_POLICIES_H_

#include "cli/zorvlabelmgr.h"

namespace zorv::cli {

/// Four policy kinds with their items, built before main runs.
extern const PolicyTable testPolicies;

}  // namespace zorv::cli

#endif  // ZORV_CLI_TEST_POLICIES_H_
