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
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"

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
zorv_scratch_state "$work"
zorv_log_into "$work/bench.log"
# A listener holds two descriptors in its process.
ulimit -n 4096 2>/dev/null || true

"$driver" "$tool" "$work/file" "$listeners" "$sets"
