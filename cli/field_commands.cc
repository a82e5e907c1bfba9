#include "cli/field_commands.h"

#include <cinttypes>
#include <cstring>
#include <string>
#include <vector>

#include "cli/number_conversion.h"
#include "cli/output.h"
#include "cli/zorvlabelmgr.h"

namespace zorv::cli {
namespace {

const char* target(const CommandOptions& options) { return options.argv[options.operandStart]; }

const char* word(const CommandOptions& options, int fromEnd) {
  return options.argv[options.argc - fromEnd];
}

int expectedCount(const CommandOptions& options, int plain) { return plain + options.patternMatch; }

int setId(const CommandOptions& options, const char* name, int (*set)(const char*, int, ZORV_ID)) {
  if (options.argc != expectedCount(options, 7)) {
    printFormatted("set file %s error, parameter error.\n", name);
    return 1;
  }
  ZORV_ID id{};
  id.pkg = toUnsigned64(word(options, 3), 16);
  id.file = toUnsigned64(word(options, 2), 16);
  id.path = toUnsigned64(word(options, 1), 16);
  if (set(target(options), options.patternMatch, id) != 0) {
    printFormatted("set file %s error. %s\n", name, target(options));
    return 1;
  }
  printFormatted("set file %s success. %s\n", name, target(options));
  return 0;
}

}  // namespace

int setOid(const CommandOptions& options) { return setId(options, "oid", setFileOid); }

int setSid(const CommandOptions& options) { return setId(options, "sid", setFileSid); }

int setTid(const CommandOptions& options) {
  if (options.argc != expectedCount(options, 5)) {
    printLine("set file tid error, parameter error.");
    return 1;
  }
  const uint32_t tid = toUnsigned32(word(options, 1), 16);
  if (setFileTid(target(options), tid, options.patternMatch) == 0) {
    printFormatted("set file tid success. %s\n", target(options));
  } else {
    printFormatted("set file tid error. %s\n", target(options));
  }
  if (options.inheritFlagArg != nullptr) return setInheritFlag(options, false);
  return 0;
}

int setInheritFlag(const CommandOptions& options, bool checkCount) {
  if (checkCount && options.argc != expectedCount(options, 5)) {
    printLine("set file inheritFlag error, parameter error.");
    return 1;
  }
  const uint32_t flag = toUnsigned32(word(options, 1), 16);
  if (flag > 7) {
    printLine("set file inheritFlag error, the parameter value ranges from 0 to 7.");
    return 1;
  }
  if (setFileInheritFlag(target(options), flag, options.patternMatch) != 0) {
    printFormatted("set file inherit_flag error. %s\n", target(options));
    return 1;
  }
  printFormatted("set file inherit_flag success. %s\n", target(options));
  return 0;
}

int setPackageId(const CommandOptions& options) {
  if (options.argc != 5) {
    printLine("set pkgid error, parameter error.");
    return 1;
  }
  const uint64_t id = toUnsigned64(options.argv[4], 16);
  if (setPkgId(target(options), id) == 0) {
    printFormatted("set pkgid success. %s\n", target(options));
  } else {
    printFormatted("set pkgid error. %s\n", target(options));
  }
  return 0;
}

bool printField(Field field, const char* path) {
  switch (field) {
    case Field::PkgId: {
      uint64_t id = 0;
      if (getPkgId(path, &id) < 0) break;
      printFormatted("%s pkgid:%016" PRIx64 "\n", path, id);
      return true;
    }
    case Field::Oid:
    case Field::Sid: {
      ZORV_ID id{};
      const bool oid = field == Field::Oid;
      if ((oid ? getFileOid(path, &id) : getFileSid(path, &id)) < 0) break;
      printFormatted("%s %s:%016" PRIx64 "-%016" PRIx64 "-%016" PRIx64 "\n", path,
                     oid ? "oid" : "sid", id.pkg, id.file, id.path);
      return true;
    }
    case Field::Tid: {
      uint32_t tid = 0;
      if (getFileTid(path, &tid) < 0) break;
      printFormatted("%s tid:%08x\n", path, tid);
      return true;
    }
    case Field::InheritFlag: {
      uint32_t flag = 0;
      if (getFileInheritFlag(path, &flag) < 0) break;
      printFormatted("%s inheritFlag:%08x\n", path, flag);
      return true;
    }
  }
  static const char* const kErrors[] = {"get pkg id error..", "get file oid error..",
                                        "get file sid error..", "get file tid error..",
                                        "get file inheritFlag error.."};
  printLine(kErrors[static_cast<int>(field)]);
  return false;
}

void deleteField(Field field, const CommandOptions& options) {
  std::vector<const char*> operands;
  for (int i = options.operandStart; i < options.argc; ++i) {
    operands.push_back(options.argv[i]);
    // Only the OID step echoes its operands, all before the first result.
    if (field == Field::Oid) printLine(options.argv[i]);
  }
  for (const char* operand : operands) {
    int status = 0;
    const char* what = nullptr;
    switch (field) {
      case Field::PkgId:
        status = delUserSetPkgId(operand);
        what = "pkg id";
        break;
      case Field::Oid:
        status = delFileOid(operand, options.patternMatch);
        what = "file oid";
        break;
      case Field::Sid:
        status = delFileSid(operand, options.patternMatch);
        what = "file sid";
        break;
      case Field::Tid:
        status = delFileTid(operand, options.patternMatch);
        what = "file tid";
        break;
      case Field::InheritFlag:
        status = delFileInheritFlag(operand, options.patternMatch);
        what = "file inheritFlag";
        break;
    }
    if (status == 0) {
      printFormatted("delete %s success. %s\n", what, operand);
    } else {
      printFormatted("delete %s error: %s\n", what, operand);
    }
  }
}

int clearFields(const CommandOptions& options) {
  struct Clear {
    const char* word;
    int (*clear)();
    const char* what;
  };
  static const Clear kClears[] = {
      {"sid", clearFileSid, "file sid"},
      {"oid", clearFileOid, "file oid"},
      {"tid", clearFileTid, "file tid"},
      {"inherit_flag", clearFileInheritFlag, "file inherit_flag"},
      {"pkgid", clearUserSetPkgId, "pkg id"},
  };
  for (int i = options.operandStart; i < options.argc; ++i) {
    const Clear* match = nullptr;
    for (const Clear& c : kClears) {
      if (std::strcmp(options.argv[i], c.word) == 0) match = &c;
    }
    if (match == nullptr) {
      // The help line names creator_oid although it is not accepted; kept so.
      printLine("param error!!");
      printLine("the value of parameter -c is sid/oid/tid/inherit_flag/creator_oid/pkgid");
      return 1;
    }
    printFormatted("clear %s %s.\n", match->what, match->clear() == 0 ? "success" : "error");
  }
  return 0;
}

}  // namespace zorv::cli
