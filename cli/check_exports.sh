#!/bin/sh
# The executable exports the common library under plain names for the
# framework's other programs, and searches its libraries through RUNPATH so
# that LD_LIBRARY_PATH can put another label manager library first.
#
# Usage: check_exports.sh TOOL LABELMGR PRIVATE_RUNTIME(ON|OFF)
# Start-up stays short: neither the tool nor our label manager library needs
# libzmq, libcrypto or libsqlite3 at load time (they are opened on first use),
# and with a private runtime neither needs the shared libstdc++ or log4cpp.
set -u
tool=$1
labelmgr=$2
private_runtime=$3
status=0
symbols=$(nm -D -C --defined-only "$tool") || exit 1
for name in 'isFilePathSafe(' 'isPatternSafe(' 'wildcardMatch(' 'containsWildcard(' \
            'getRealPath(' 'sortPaths(' 'traverseDirectory(' 'getSM3HashValue(' \
            'getSM3HashLast64Bits(' 'getKmodNameHash(' 'splitString(' 'trim(' \
            'readFile(' 'executeCommand(' 'readConfig(' 'parseConfig(' 'getAllParent(' \
            'Logger::getInstance()' 'Label::getFromXattr(' 'Label::toString' \
            'Id::fromString(' 'ZMQSocket::'; do
  if ! printf '%s\n' "$symbols" | grep -F -- " $name" >/dev/null; then
    echo "not exported: $name"
    status=1
  fi
done
dynamic=$(readelf -d "$tool") || exit 1
if printf '%s\n' "$dynamic" | grep -q '(RPATH)'; then
  echo "has RPATH, which LD_LIBRARY_PATH cannot override"
  status=1
fi
# An empty RUNPATH entry means the current directory: every run would look
# for its libraries wherever it was started.
if printf '%s\n' "$dynamic" | grep -E '\(RUNPATH\).*\[(:|.*::|.*:\])' >/dev/null; then
  echo "RUNPATH has an empty entry, which searches the current directory"
  status=1
fi
if ! printf '%s\n' "$dynamic" | grep -q 'Shared library: \[libzorvlabelmgr.so.1\]'; then
  echo "does not need libzorvlabelmgr.so.1"
  status=1
fi
heavy='libzmq|libcrypto|libsqlite3'
[ "$private_runtime" = ON ] && heavy="$heavy|libstdc\+\+|liblog4cpp|libgcc_s"
for object in "$tool" "$labelmgr"; do
  needed=$(readelf -d "$object" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p')
  for library in $(printf '%s\n' "$needed" | grep -E "^($heavy)"); do
    echo "$object needs $library at start-up"
    status=1
  done
done
[ $status -eq 0 ] && echo "exports, RUNPATH and start-up libraries ok"
exit $status
