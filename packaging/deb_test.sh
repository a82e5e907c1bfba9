#!/usr/bin/env bash
# Builds the Debian package from a built tree and checks its control data and files.
# Usage: deb_test.sh BUILD_DIR        (exit 77 when the Debian tools are missing)
set -uo pipefail
build=$(cd "${1:?usage: deb_test.sh BUILD_DIR}" && pwd)
command -v cpack >/dev/null && command -v dpkg-deb >/dev/null || { echo "no cpack or dpkg-deb"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1
deb=$(echo "$work"/out/*.deb)
[[ -f $deb ]] || { cat "$work/cpack.log"; echo "FAIL: expected one .deb, found: $deb"; exit 1; }
failed=0
check() {  # check DESCRIPTION COMMAND...
    "${@:2}" || { ((++failed)); echo "FAIL: $1"; }
}

depends=$(dpkg-deb -f "$deb" Depends)
names=$(tr ',|' '\n\n' <<<"$depends" | awk 'NF { print $1 }')  # without versions
for library in libzmq5 libssl3 libsqlite3-0 liblog4cpp5v5 libc6 libstdc++6; do
    check "depends on $library (Depends: $depends)" grep -qxF "$library" <<<"$names"
done
dpkg-deb -e "$deb" "$work/control"
check "conffiles" test "$(cat "$work/control/conffiles")" = /etc/zorv/label/zorv-label-log.properties

# "MODE OWNER PATH" for every entry.
dpkg-deb -c "$deb" | awk '{ print $1, $2, $6 }' >"$work/contents"
libdir=$(sed -nE 's|.* \./(usr/lib[^ ]*)/libzorvcommon\.so\.1\.0\.0$|\1|p' "$work/contents")
expected="-rwxr-xr-x usr/sbin/zorv-label-manager-tool
-rw-r--r-- usr/share/man/man8/zorv-label-manager-tool.8.gz
-rw-r--r-- usr/share/bash-completion/completions/zorv-label-manager-tool
-rw-r--r-- etc/zorv/label/zorv-label-log.properties
drwxr-x--- var/log/zorv/
drwx------ var/lib/zorv/label/"
for library in zorvcommon zorvlabelmgr; do
    expected+="
-rw-r--r-- ${libdir:-usr/lib}/lib$library.so.1.0.0
lrwxrwxrwx $libdir/lib$library.so.1
lrwxrwxrwx $libdir/lib$library.so
-rw-r--r-- $libdir/pkgconfig/$library.pc"
done
while read -r mode path; do
    check "$mode $path" grep -qxF -- "$mode root/root ./$path" "$work/contents"
done <<<"$expected"
check "only root's files, none under /usr/local, no tests or internal headers" test -z "$(awk \
    '$2 != "root/root" || $3 ~ /^\.\/usr\/local\/|(_test|_internal\.h)$/' "$work/contents")"

dpkg-deb -x "$deb" "$work/root"
check "both .pc files name /usr" test "$(cat "$work/root/$libdir"/pkgconfig/*.pc | grep -cx 'prefix=/usr')" = 2
check "no build-tree run path in the tool" \
    test -z "$(readelf -d "$work/root/usr/sbin/zorv-label-manager-tool" | grep -F "$build")"
echo "$failed failed"
((failed == 0))
