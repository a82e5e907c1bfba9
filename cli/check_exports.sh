#!/bin/sh
# The executable exports the common library under plain names for the
# framework's other programs, and searches its libraries through RUNPATH so
# that LD_LIBRARY_PATH can put another label manager library first.
set -u
tool=$1
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
if ! printf '%s\n' "$dynamic" | grep -q 'Shared library: \[libzorvlabelmgr.so.1\]'; then
  echo "does not need libzorvlabelmgr.so.1"
  status=1
fi
[ $status -eq 0 ] && echo "exports and RUNPATH ok"
exit $status
