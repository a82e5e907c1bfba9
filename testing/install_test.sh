#!/usr/bin/env bash
# Installs the build tree under a temporary root, then builds and runs an
# outside program against the installed common library, found only through
# pkg-config, the way the framework's other programs use it.
#
# usage: install_test.sh BUILD_DIR [C++ compiler]
set -euo pipefail

build=${1:?usage: install_test.sh BUILD_DIR [CXX]}
cxx=${2:-c++}

root=$(mktemp -d "${TMPDIR:-/tmp}/zorv-install-XXXXXX")
trap 'rm -rf "$root"' EXIT

fail() {
  echo "install_test: $*" >&2
  exit 1
}

# DESTDIR rather than --prefix: some files go to absolute locations (the log
# properties under /etc, the log directory), and those must land inside the
# temporary root as well.
if ! DESTDIR="$root" cmake --install "$build" >"$root/install.log" 2>&1; then
  cat "$root/install.log" >&2
  fail "cmake --install failed"
fi
# Every installed path, absolute ones included, must lie under the root.
outside=$(grep -v -e "^-- Install configuration" -e "$root" "$root/install.log" || true)
[ -z "$outside" ] || fail "installed outside the temporary root: $outside"

pc=$(find "$root" -name zorvcommon.pc -print -quit)
[ -n "$pc" ] || fail "zorvcommon.pc was not installed"
# The .pc file names the configured prefix; point it at the staged copy.
prefix="$root$(sed -n 's/^prefix=//p' "$pc")"
export PKG_CONFIG_PATH="$(dirname "$pc")"
zorv_pc() { pkg-config --define-variable=prefix="$prefix" "$@" zorvcommon; }
libdir=$(zorv_pc --variable=libdir)
includedir=$(zorv_pc --variable=includedir)

[ -f "$includedir/zorv/common/path_safety.h" ] || fail "public headers missing"
internal=$(find "$includedir/zorv" -name '*_internal.h')
[ -z "$internal" ] || fail "internal headers were installed: $internal"

cat >"$root/outside.cc" <<'PROGRAM'
#include <cstdio>
#include <string>

#include "common/path_safety.h"
#include "common/sm3.h"
#include "common/string_util.h"
#include "label/label.h"
#include "log/logger.h"
#include "msg/zmq_socket.h"

int main() {
  int failures = 0;
  auto check = [&failures](bool ok, const char* what) {
    if (!ok) {
      std::printf("FAILED: %s\n", what);
      ++failures;
    }
  };
  check(getSM3HashValue("abc") ==
            "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0",
        "SM3 of abc");
  check(!isFilePathSafe("relative/path", true, true, true), "a relative path is unsafe");
  Label label;
  label.tid_ = 0x2a;
  check(Label::fromString(label.toString()).tid_ == 0x2a, "label text round trip");
  check(trim("  x \n") == "x", "trim");
  ZMQSocket socket(ZMQSocket::PUB);
  Logger::getInstance().info("outside", 7, "linked %d", 42);
  return failures == 0 ? 0 : 1;
}
PROGRAM

# shellcheck disable=SC2046  # the flags are meant to be split
"$cxx" -std=c++17 -Wall -Wextra -o "$root/outside" "$root/outside.cc" \
  $(zorv_pc --cflags --libs) -Wl,-rpath,"$libdir" || fail "compiling against the install failed"

cat >"$root/log.properties" <<PROPERTIES
log4cpp.rootCategory=DEBUG, F
log4cpp.appender.F=FileAppender
log4cpp.appender.F.fileName=$root/outside.log
log4cpp.appender.F.layout=PatternLayout
log4cpp.appender.F.layout.ConversionPattern=[%p] %m%n
PROPERTIES

ZORV_LABEL_LOG_PROPERTIES="$root/log.properties" ZORV_LABEL_LOG_FALLBACK="$root/fallback.log" \
  "$root/outside" || fail "the outside program failed"

# The program must have used the installed library, not one from the build tree.
# (Captured first: grep -q closing the pipe early would fail it under pipefail.)
libraries=$(ldd "$root/outside")
[[ $libraries == *"$libdir/libzorvcommon.so"* ]] || fail "not linked with the installed library"
grep -qF "[INFO] [outside:7] linked 42" "$root/outside.log" || fail "the logger wrote nothing"
echo "install_test: ok"
