#!/usr/bin/env bash
# Installs the build tree under a temporary root, then builds and runs an
# outside program against the installed libraries, found only through
# pkg-config, the way the framework's other programs use them.
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
echo "install_test: ok"
