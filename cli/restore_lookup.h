// One-shot commands: restore and initial labels, whole-system labelling,
// lookups of ids and names, the SM3 value of a path and the policy self-test.
// Each prints its result or its fixed failure line on standard output.
#ifndef ZORV_CLI_RESTORE_LOOKUP_H_
#define ZORV_CLI_RESTORE_LOOKUP_H_

namespace zorv::cli {

/// -r -l PATH: gives the file its label back from policy and user-set values.
/// Returns the exit status (1 without a path or when the library fails).
int restoreLabel(const char* labelPath);
/// -i -l PATH: gives the file its initial label. Exit status as restoreLabel.
int initLabel(const char* labelPath);
/// -a -s ROOT: labels every file below ROOT and prints the time it took. The
/// library's result is not examined.
void labelFullSystem(const char* root);

/// -k NAME: prints the module's OID; false (after the failure line) if unknown.
bool printKernelModuleOid(const char* moduleName);
/// -e NAME: prints the device's OID; false (after the failure line) if unknown.
bool printDeviceOid(const char* deviceName);
/// -q ID: prints the name of the package with the hexadecimal id; false after
/// the failure line. A word that is not a number ends the run (toUnsigned64).
bool printPackageName(const char* pkgIdWord);

/// -3 PATH: prints the last 64 bits of the SM3 digest of the text PATH (not
/// of a file's contents). Returns the exit status, 0.
int printSm3Value(const char* path);

/// -b: parses the fixed test policies through the library and prints every
/// identifier it resolved, then the label-set status. False (after its line)
/// when the library refuses the policies. Leaves std::cout in hexadecimal
/// once an identifier was printed, so the status then appears in hexadecimal.
bool runPolicySelfTest();

}  // namespace zorv::cli

#endif  // ZORV_CLI_RESTORE_LOOKUP_H_
