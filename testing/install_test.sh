#!/usr/bin/env bash
# Installs the build tree under a temporary root, then builds and runs two
# outside programs against the installed libraries, found only through
# pkg-config, the way the framework's other programs use them: one using the
# common library and ours, one (replacing operator new and delete) using only
# the label manager library.
# usage: install_test.sh BUILD_DIR [C++ compiler]
set -euo pipefail
root=$(mktemp -d "${TMPDIR:-/tmp}/zorv-install-XXXXXX")
trap 'rm -rf "$root"' EXIT
fail() { echo "install_test: $*" >&2; exit 1; }

# DESTDIR, as the files under /etc and /var must land inside the root too.
DESTDIR="$root" cmake --install "${1:?usage: install_test.sh BUILD_DIR [CXX]}" >"$root/install.log" 2>&1 ||
  fail "$(cat "$root/install.log")"
outside=$(grep -v -e "^-- Install configuration" -e "$root" "$root/install.log" || true)
[ -z "$outside" ] || fail "installed outside the temporary root: $outside"
pc=$(find "$root" -name zorvcommon.pc -print -quit)
# The .pc files name the configured prefix; point them at the staged copy.
zorv_pc() { PKG_CONFIG_PATH=${pc%/*} pkg-config --define-variable=prefix="$root$(sed -n 's/^prefix=//p' "$pc")" "$@"; }
libdir=$(zorv_pc --variable=libdir zorvcommon)

cat >"$root/outside.cc" <<'PROGRAM'
#include "common/sm3.h"
#include "label/label.h"
#include "log/logger.h"
#include "msg/zmq_socket.h"
#include "zorvlabelmgr.h"

int main() {
  Label label;
  label.tid_ = 0x2a;
  ZMQSocket socket(ZMQSocket::PUB);
  Logger::getInstance().info("outside", 7, "linked %d", 42);
  const std::string digest = "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0";
  return !(getSM3HashValue("abc") == digest && Label::fromString(label.toString()).tid_ == 0x2a &&
           getLabelSetStatus() == 0);
}
PROGRAM
# shellcheck disable=SC2046  # the flags are meant to be split
"${2:-c++}" -std=c++17 -Wall -Wextra -o "$root/outside" "$root/outside.cc" \
  $(zorv_pc --cflags --libs zorvlabelmgr) -Wl,-rpath,"$libdir" || fail "compiling against the install failed"
printf '%s\n' "log4cpp.rootCategory=DEBUG, F" "log4cpp.appender.F=FileAppender" \
  "log4cpp.appender.F.fileName=$root/outside.log" "log4cpp.appender.F.layout=PatternLayout" \
  "log4cpp.appender.F.layout.ConversionPattern=[%p] %m%n" >"$root/log.properties"
ZORV_LABEL_LOG_PROPERTIES="$root/log.properties" ZORV_LABEL_LOG_FALLBACK="$root/fallback.log" \
  ZORV_LABELMGR_STATE_DIR="$root/state" "$root/outside" || fail "the outside program failed"
[ "$(ldd "$root/outside" | grep -c "=> $libdir/libzorv")" = 2 ] || fail "not linked with the installed libraries"
grep -qF "[INFO] [outside:7] linked 42" "$root/outside.log" || fail "the logger wrote nothing"

# A consumer of the label manager library alone: it replaces the global
# operator new and delete, as programs may, and links with nothing but what
# pkg-config names. The library must use the program's allocator (one C++
# runtime in the process) and label files in a scratch tree.
cat >"$root/consumer.cc" <<'PROGRAM'
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "zorvlabelmgr.h"

namespace {
unsigned long allocations = 0;
int fail(const char* what) {
  std::fprintf(stderr, "consumer: %s failed\n", what);
  return 1;
}
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage");
  const std::string file = std::string(argv[1]) + "/tree/file";
  if (setFileOid(file.c_str(), 0, ZORV_ID{0x1f, 2, 3}) != 0) return fail("setFileOid");
  ZORV_ID oid{};
  if (getFileOid(file.c_str(), &oid) != 0 || oid.pkg != 0x1f || oid.file != 2 || oid.path != 3)
    return fail("getFileOid");
  const unsigned long before = allocations;
  const std::string label = restoreSingleFileLabel(file);  // the user-set OID still decides
  if (label.compare(0, 50, "000000000000001f-0000000000000002-0000000000000003") != 0)
    return fail("restoreSingleFileLabel");
  if (allocations == before) return fail("the library's allocations through our operator new");
  return 0;
}
PROGRAM
# shellcheck disable=SC2046  # the flags are meant to be split
"${2:-c++}" -std=c++17 -Wall -Wextra -o "$root/consumer" "$root/consumer.cc" \
  $(zorv_pc --cflags --libs zorvlabelmgr) || fail "compiling the consumer against the install failed"
mkdir -p "$root/tree" "$root/dpkg/info"
: >"$root/tree/file"
: >"$root/dpkg/status"
LD_LIBRARY_PATH="$libdir" ZORV_LABEL_LOG_PROPERTIES="$root/log.properties" \
  ZORV_LABELMGR_STATE_DIR="$root/consumer-state" ZORV_LABELMGR_DPKG_DIR="$root/dpkg" \
  "$root/consumer" "$root" || fail "the consumer failed"
echo "install_test: ok"
