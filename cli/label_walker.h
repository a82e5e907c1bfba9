// Whole-label commands over files: show or remove the "security.zorv" label of
// every file an operand names, optionally walking directories.
#ifndef ZORV_CLI_LABEL_WALKER_H_
#define ZORV_CLI_LABEL_WALKER_H_

#include <string>

#include "label/label_attr.h"

namespace zorv::cli {

/// Set by -H: the callbacks then act on a symbolic link itself. Process-wide
/// because the callbacks receive nothing but a path and an attribute name.
extern bool noDereference;

/// A per-file action: 1 when done, 0 when it failed (it has printed why).
using LabelCallback = int (*)(const std::string& path, const std::string& attrName);

/// Expands `pattern` with glob (sorted, "~" expanded) and calls `callback` on
/// each match, or walkDirectory for a directory when `recursive`. A pattern
/// without matches and a match that stat() cannot reach (a dangling link) are
/// reported on standard error; neither stops anything.
void walkPattern(const std::string& pattern, const std::string& attrName, LabelCallback callback,
                 bool recursive);
/// Calls `callback` on `path` and then, depth first in directory order, on
/// everything below it. Links to directories are not followed. A directory
/// that cannot be opened gets one line on standard output and is skipped.
void walkDirectory(const std::string& path, const std::string& attrName, LabelCallback callback);

/// Prints "file: PATH label: TEXT", or a failure line.
int showLabel(const std::string& path, const std::string& attrName);
/// Deletes the attribute; prints only on failure, with the system's reason.
int removeLabel(const std::string& path, const std::string& attrName);

}  // namespace zorv::cli

#endif  // ZORV_CLI_LABEL_WALKER_H_
