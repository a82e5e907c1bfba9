#include "cli/dispatch.h"

#include <syslog.h>

#include <string>

#include "cli/field_commands.h"
#include "cli/label_walker.h"
#include "cli/output.h"
#include "cli/restore_lookup.h"
#include "cli/subscription.h"
#include "cli/user_set_queries.h"

namespace zorv::cli {
namespace {

constexpr char kArgError[] = "arg error, please check the usage help";

int closeLogAndReturn(int status) {
  closelog();
  return status;
}

void walkOperands(const CommandOptions& options, LabelCallback callback) {
  for (int i = options.operandStart; i < options.argc; ++i) {
    walkPattern(options.argv[i], kLabelAttribute, callback, options.recursive);
  }
}

int runAdd(const CommandOptions& options) {
  if (options.scanRoot) {
    labelFullSystem(options.scanRoot);
    return closeLogAndReturn(0);
  }
  if (options.pkgIdArg) return setPackageId(options);
  if (options.oidArg) return setOid(options);
  if (options.sidArg) return setSid(options);
  if (options.tidArg) {
    // The run goes on to the inherit-flag set only when -n is given and the
    // count is right (the count rule of setTid); every other TID set ends
    // here, a wrong count included, and closes the system log.
    const bool goesOnToFlag =
        options.inheritFlagArg != nullptr && options.argc == 5 + options.patternMatch;
    const int status = setTid(options);
    return goesOnToFlag ? status : closeLogAndReturn(status);
  }
  if (options.inheritFlagArg) return setInheritFlag(options, true);
  if (options.creatorOidArg) return closeLogAndReturn(0);
  printLine(kArgError);
  return 1;
}

int runGet(const CommandOptions& options) {
  if (isUserSetQuery(options)) return runUserSetQuery(options);

  // -f counts as something to act on, although no step reads it.
  if (!(options.pkgIdArg || options.oidArg || options.sidArg || options.tidArg ||
        options.creatorOidArg || options.inheritFlagArg || options.moduleName ||
        options.deviceName || options.pkgNameArg || options.batch || options.labelMode)) {
    printLine(kArgError);
    return 1;
  }
  if (options.pkgIdArg && !printField(Field::PkgId, options.pkgIdArg)) return 1;
  if (options.pkgNameArg) return printPackageName(options.pkgNameArg) ? 0 : 1;
  if (options.oidArg && !printField(Field::Oid, options.oidArg)) return 1;
  if (options.sidArg && !printField(Field::Sid, options.sidArg)) return 1;
  if (options.tidArg && !printField(Field::Tid, options.tidArg)) return 1;
  if (options.inheritFlagArg && !printField(Field::InheritFlag, options.inheritFlagArg)) return 1;
  if (options.moduleName && !printKernelModuleOid(options.moduleName)) return 1;
  if (options.deviceName && !printDeviceOid(options.deviceName)) return 1;
  if (options.batch && !runPolicySelfTest()) return 1;
  if (options.labelMode) walkOperands(options, showLabel);
  return closeLogAndReturn(0);
}

int runDelete(const CommandOptions& options) {
  printLine(std::string(32, '='));
  if (options.labelMode) walkOperands(options, removeLabel);
  if (options.pkgIdArg) deleteField(Field::PkgId, options);
  if (options.oidArg) deleteField(Field::Oid, options);
  if (options.sidArg) deleteField(Field::Sid, options);
  if (options.tidArg) deleteField(Field::Tid, options);
  if (options.inheritFlagArg) deleteField(Field::InheritFlag, options);
  if (options.clear && clearFields(options) != 0) return 1;
  return closeLogAndReturn(0);
}

}  // namespace

int runCommand(const CommandOptions& options) {
  openlog("zorv-label-manager", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  switch (options.action) {
    case Action::Add:
      return runAdd(options);
    case Action::Get:
      return runGet(options);
    case Action::Delete:
      return runDelete(options);
    case Action::Restore: {
      const int status = restoreLabel(options.labelPath);
      return status == 0 ? closeLogAndReturn(0) : status;
    }
    case Action::Init: {
      const int status = initLabel(options.labelPath);
      return status == 0 ? closeLogAndReturn(0) : status;
    }
    case Action::Subscribe:
      return runSubscription(options.topic);
    case Action::None:
      break;
  }
  return 1;
}

}  // namespace zorv::cli
