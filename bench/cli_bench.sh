#!/usr/bin/env bash
# Times the tool against getfattr, one run each on a warm tree:
#   1. showing every label of a tree of 100,000 labelled files:
#      `zorv-label-manager-tool -R -g -l TREE` against
#      `getfattr -R -h -n security.zorv -e hex --absolute-names TREE`;
#   2. start-up: 1,000 runs of `zorv-label-manager-tool -g -o FILE` against
#      1,000 runs of `getfattr -n security.zorv FILE`.
# Prints the times and the ratios (targets: at most 1.0 and at most 1.5).
#
# Usage: bench/cli_bench.sh [BUILD_DIR]      (default ./build)
# The tree, the library's state and the log live in a temporary directory that
# is removed at the end.
set -euo pipefail

build_dir=${1:-./build}
tool=$build_dir/cli/zorv-label-manager-tool
if [[ ! -x $tool ]]; then
  cmake --build "$build_dir" --target zorv-label-manager-tool zorvlabelmgr >/dev/null
fi
command -v getfattr >/dev/null || { echo "getfattr is missing (package attr)"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zorv-cli-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
export ZORV_LABELMGR_STATE_DIR=$work/state
export ZORV_LABELMGR_DPKG_DIR=$work/dpkg
mkdir -p "$ZORV_LABELMGR_DPKG_DIR"
export ZORV_LABEL_LOG_PROPERTIES=$work/log.properties
cat >"$ZORV_LABEL_LOG_PROPERTIES" <<PROPERTIES
log4cpp.rootCategory=INFO, A1
log4cpp.appender.A1=FileAppender
log4cpp.appender.A1.fileName=$work/bench.log
log4cpp.appender.A1.layout=SimpleLayout
log4cpp.category.INFO=INFO, A1
PROPERTIES

# 20 x 10 x 20 leaf directories of 25 files each: 100,000 files.
tree=$work/tree
echo "building and labelling a tree of 100,000 files in $tree"
mkdir -p "$tree"/top{01..20}/mid{01..10}/leaf{01..20}
printf '%s\0' "$tree"/top{01..20}/mid{01..10}/leaf{01..20}/file_{0001..0025}.dat | xargs -0 touch
"$tool" -a -s "$tree" >/dev/null
file=$tree/top01/mid01/leaf01/file_0001.dat

ms_since() { echo $((($(date +%s%N) - $1) / 1000000)); }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

# Warm the caches and page both programs in.
tool_lines=$("$tool" -R -g -l "$tree" | grep -c '^file: ' || true)
peer_lines=$(getfattr -R -h -n security.zorv -e hex --absolute-names "$tree" 2>/dev/null |
  grep -c '^security.zorv=' || true)
echo "labels shown: tool $tool_lines, getfattr $peer_lines"

start=$(date +%s%N)
"$tool" -R -g -l "$tree" >/dev/null
tree_tool=$(ms_since "$start")
start=$(date +%s%N)
getfattr -R -h -n security.zorv -e hex --absolute-names "$tree" >/dev/null
tree_peer=$(ms_since "$start")

start=$(date +%s%N)
for ((i = 0; i < 1000; i++)); do "$tool" -g -o "$file" >/dev/null; done
runs_tool=$(ms_since "$start")
start=$(date +%s%N)
for ((i = 0; i < 1000; i++)); do getfattr -n security.zorv "$file" >/dev/null 2>&1; done
runs_peer=$(ms_since "$start")

printf '%-44s %8s %10s %7s %7s\n' "" "tool ms" "getfattr ms" ratio target
printf '%-44s %8d %10d %7s %7s\n' "whole tree, 100,000 labels (-R -g -l)" \
  "$tree_tool" "$tree_peer" "$(ratio "$tree_tool" "$tree_peer")" "1.0"
printf '%-44s %8d %10d %7s %7s\n' "1,000 runs of -g -o FILE" \
  "$runs_tool" "$runs_peer" "$(ratio "$runs_tool" "$runs_peer")" "1.5"
