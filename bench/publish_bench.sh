#!/usr/bin/env bash
# Times what label-change listeners cost a change: 20 runs of
# `zorv-label-manager-tool -a -o FILE N 2 3` without a listener and with 300
# listeners, the difference being the publishing cost per change (target:
# under 50 ms), plus one in-process publish with its thread count, and checks
# that every listener received every message.
#
# Usage: bench/publish_bench.sh [BUILD_DIR [LISTENERS [SETS]]]
#        (defaults ./build, 300, 20)
# The state directory and the log live in a temporary directory that is
# removed at the end.
set -euo pipefail

build_dir=${1:-./build}
listeners=${2:-300}
sets=${3:-20}
tool=$build_dir/cli/zorv-label-manager-tool
driver=$build_dir/bench/publish_bench
if [[ ! -x $tool || ! -x $driver ]]; then
  cmake --build "$build_dir" --target zorv-label-manager-tool zorvlabelmgr publish_bench >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/zorv-publish-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
export ZORV_LABELMGR_STATE_DIR=$work/state
export ZORV_LABELMGR_DPKG_DIR=$work/dpkg
mkdir -p "$ZORV_LABELMGR_DPKG_DIR/info"
touch "$ZORV_LABELMGR_DPKG_DIR/status"
export ZORV_LABEL_LOG_PROPERTIES=$work/log.properties
cat >"$ZORV_LABEL_LOG_PROPERTIES" <<PROPERTIES
log4cpp.rootCategory=INFO, A1
log4cpp.appender.A1=FileAppender
log4cpp.appender.A1.fileName=$work/bench.log
log4cpp.appender.A1.layout=SimpleLayout
PROPERTIES
# A listener holds two descriptors in its process.
ulimit -n 4096 2>/dev/null || true

"$driver" "$tool" "$work/file" "$listeners" "$sets"
