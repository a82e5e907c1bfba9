#!/bin/sh
# What the tool and our two libraries export, compared with the checked-in
# lists beside this script (one demangled name a line, sorted; '#' starts a
# comment), so that an accidental export, or a lost one, fails the build's
# tests. A list named NAME.txt covers the object whose file name is NAME or
# libNAME.so.*. To accept a change, put the new name in its list.
#
# Also checked: each object searches its libraries through RUNPATH (so that
# LD_LIBRARY_PATH can put another label manager library first) without an
# empty entry, no object needs libzmq, libcrypto or libsqlite3 at load time
# (they are opened on first use), and the tool needs libzorvlabelmgr.so.1.
#
# Usage: check_exports.sh LIST_DIR TOOL OBJECT...
set -u
lists=$1
tool=$2
shift
status=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for object in "$@"; do
  name=${object##*/}
  name=${name#lib}
  name=${name%%.so*}
  list=$lists/$name.txt
  if [ ! -f "$list" ]; then
    echo "no list $list for $object"
    status=1
    continue
  fi
  nm -D -C --defined-only --without-symbol-versions "$object" |
    sed 's/^[0-9a-f]* [A-Za-z] //' | LC_ALL=C sort -u >"$work/actual" || exit 1
  grep -v -e '^#' -e '^$' "$list" | LC_ALL=C sort -u >"$work/expected"
  if ! diff -u "$work/expected" "$work/actual" >"$work/diff"; then
    echo "$object: exports differ from $list (+ exported but not listed, - listed but missing):"
    grep '^[-+][^-+]' "$work/diff"
    status=1
  fi
  dynamic=$(readelf -d "$object") || exit 1
  for library in $(printf '%s\n' "$dynamic" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' |
                   grep -E '^(libzmq|libcrypto|libsqlite3)'); do
    echo "$object needs $library at start-up"
    status=1
  done
  if printf '%s\n' "$dynamic" | grep -q '(RPATH)'; then
    echo "$object has RPATH, which LD_LIBRARY_PATH cannot override"
    status=1
  fi
  # An empty RUNPATH entry means the current directory: every run would look
  # for its libraries wherever it was started.
  if printf '%s\n' "$dynamic" | grep -E '\(RUNPATH\).*\[(:|.*::|.*:\])' >/dev/null; then
    echo "$object's RUNPATH has an empty entry, which searches the current directory"
    status=1
  fi
done
if ! readelf -d "$tool" | grep -q 'Shared library: \[libzorvlabelmgr.so.1\]'; then
  echo "$tool does not need libzorvlabelmgr.so.1"
  status=1
fi
[ $status -eq 0 ] && echo "exports, RUNPATH and start-up libraries ok"
exit $status
