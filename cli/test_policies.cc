#include "cli/test_policies.h"

namespace zorv::cli {

const PolicyTable testPolicies = {
    {"object_file", {"/etc/b", "/boot/config-6.6.10"}},
    {"object_recurfile", {"/home/*/desktop/*", "/home/tst/desktop/*"}},
    {"subject_file", {"/usr/sbin/tc", "/etc/pwd/config"}},
    {"subject_pkg", {"vim"}},
};

}  // namespace zorv::cli
