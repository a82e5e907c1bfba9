#!/usr/bin/env bash
# Builds the Debian package from a built tree and checks it without installing
# it: control fields, conffiles, maintainer scripts, the file list with modes
# and owners, and, from an extracted copy, that the tool runs and that the
# development files build a program.
# Usage: deb_test.sh BUILD_DIR        (exit 77 when the Debian tools are missing)
set -uo pipefail
build=$(cd "${1:?usage: deb_test.sh BUILD_DIR}" && pwd)
for tool in cpack dpkg-deb; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed"; exit 77; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log"
    echo "FAIL: cpack -G DEB"
    exit 1
fi
debs=("$work"/out/*.deb)
if [[ ${#debs[@]} -ne 1 || ! -f ${debs[0]} ]]; then
    cat "$work/cpack.log"
    echo "FAIL: expected one .deb, found: ${debs[*]}"
    exit 1
fi
deb=${debs[0]}
echo "built $(basename "$deb") ($(stat -c %s "$deb") bytes)"

passed=0
failed=0
pass() { ((passed++)); }
fail() {
    ((failed++))
    echo "FAIL: $*"
}
check() {  # check DESCRIPTION COMMAND...
    local what=$1
    shift
    if "$@"; then pass; else fail "$what"; fi
}

# Control fields.
field() { dpkg-deb -f "$deb" "$1"; }
check "package name" test "$(field Package)" = zorv-label-manager-tool
check "maintainer" test "$(field Maintainer)" = "zorv developers <dev@zorv.invalid>"
check "version" grep -qE '^[0-9]+\.[0-9]+\.[0-9]+' <<<"$(field Version)"
check "description" test -n "$(field Description)"
depends=$(field Depends)
# Package names only, one per line, without versions or alternatives' bars.
depends_names=$(tr ',|' '\n\n' <<<"$depends" | awk 'NF { print $1 }')
for library in liblog4cpp5v5 libzmq5 libssl3 libsqlite3-0 libc6 libstdc++6; do
    check "depends on $library (Depends: $depends)" grep -qxF "$library" <<<"$depends_names"
done

# Control files: the logging configuration is a conffile; the libraries are
# registered with the dynamic linker.
mkdir -p "$work/control"
dpkg-deb -e "$deb" "$work/control"
check "conffiles" test "$(cat "$work/control/conffiles" 2>/dev/null)" = \
    /etc/zorv/label/zorv-label-log.properties
check "postinst runs ldconfig" grep -q ldconfig "$work/control/postinst"
check "postrm runs ldconfig" grep -q ldconfig "$work/control/postrm"

# The file list: "MODE OWNER SIZE DATE TIME PATH [-> TARGET]".
dpkg-deb -c "$deb" | awk '{ print $1, $2, $6 }' >"$work/contents"
entry() { grep -E "^$1 root/root \./$2\$" "$work/contents" >/dev/null; }
libdir=$(grep -oE '\./usr/lib[^ ]*/libzorvcommon\.so\.1\.0\.0$' "$work/contents" |
    sed -E 's|^\./(.*)/libzorvcommon\.so\.1\.0\.0$|\1|')
check "libzorvcommon under /usr/lib" test -n "$libdir"
libdir=${libdir:-usr/lib}
check "the tool" entry -rwxr-xr-x usr/sbin/zorv-label-manager-tool
for library in libzorvcommon libzorvlabelmgr; do
    check "$library.so.1.0.0" entry -rw-r--r-- "$libdir/$library\.so\.1\.0\.0"
    check "$library.so.1 link" entry lrwxrwxrwx "$libdir/$library\.so\.1"
    check "$library.so link" entry lrwxrwxrwx "$libdir/$library\.so"
    check "$library.pc" entry -rw-r--r-- "$libdir/pkgconfig/${library#lib}\.pc"
done
check "zorvlabelmgr.h" entry -rw-r--r-- usr/include/zorv/zorvlabelmgr\.h
for header in label/label.h label/id.h common/wildcard.h log/logger.h msg/zmq_socket.h; do
    check "$header" entry -rw-r--r-- "usr/include/zorv/$header"
done
check "the man page" entry -rw-r--r-- usr/share/man/man8/zorv-label-manager-tool\.8\.gz
check "the completion" entry -rw-r--r-- \
    usr/share/bash-completion/completions/zorv-label-manager-tool
check "the log properties" entry -rw-r--r-- etc/zorv/label/zorv-label-log\.properties
check "the log directory is 0750" entry drwxr-x--- var/log/zorv/
check "the state directory is 0700" entry drwx------ var/lib/zorv/label/
check "everything belongs to root" test -z "$(awk '$2 != "root/root"' "$work/contents")"
check "nothing outside /usr, /etc and /var" \
    test -z "$(awk '$3 != "./" && $3 !~ /^\.\/(usr|etc|var)\//' "$work/contents")"
check "nothing under /usr/local" test -z "$(grep -F './usr/local' "$work/contents")"
check "no internal headers" test -z "$(grep -E '_internal\.h$' "$work/contents")"
check "no test programs" test -z "$(grep -E '(_test|fuzz_[a-z_]*|fake[^/]*)$' "$work/contents")"

# An extracted copy (not an installation): the tool runs from it, carries no
# path into the build tree, and its pkg-config files point at /usr.
root=$work/root
dpkg-deb -x "$deb" "$root"
tool=$root/usr/sbin/zorv-label-manager-tool
check "no build-tree run path in the tool" \
    test -z "$(readelf -d "$tool" 2>/dev/null | grep -E 'R(UN)?PATH' | grep -F "$build")"
printf 'log4cpp.rootCategory=FATAL, A\nlog4cpp.appender.A=FileAppender\n%s\n%s\n' \
    "log4cpp.appender.A.fileName=$work/tool.log" \
    'log4cpp.appender.A.layout=BasicLayout' >"$work/log.properties"
output=$(ZORV_LABEL_LOG_PROPERTIES=$work/log.properties LD_LIBRARY_PATH=$root/$libdir \
    "$tool" -3 abc 2>&1)
check "-3 abc from the package (got: $output)" \
    test "$output" = "SM3 Hash (last 64 bits): 297da02b8f4ba8e0"
for pc in zorvcommon zorvlabelmgr; do
    check "$pc.pc prefix is /usr" grep -qx 'prefix=/usr' "$root/$libdir/pkgconfig/$pc.pc"
done
check "the man page decompresses" gzip -t "$root/usr/share/man/man8/zorv-label-manager-tool.8.gz"

# The development files build and link a program (pkg-config rebased onto the
# extracted tree).
if command -v pkg-config >/dev/null && command -v c++ >/dev/null; then
    cat >"$work/uses_libraries.cc" <<'EOF'
#include "zorvlabelmgr.h"
#include "label/label.h"
#include <cstdio>
int main() {
  Label label;
  label.tid_ = 12;
  std::printf("%s %d\n", label.toString().c_str(), getLabelSetStatus() >= 0);
  return 0;
}
EOF
    flags=$(PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_PATH=$root/$libdir/pkgconfig \
        pkg-config --cflags --libs zorvlabelmgr zorvcommon 2>&1)
    if c++ -std=c++17 -o "$work/uses_libraries" "$work/uses_libraries.cc" $flags \
        >"$work/cc.log" 2>&1; then
        pass
    else
        cat "$work/cc.log"
        fail "a program builds from the development files (flags: $flags)"
    fi
else
    echo "pkg-config or c++ missing: development files not built against"
fi

echo "$passed passed, $failed failed"
((failed == 0))
