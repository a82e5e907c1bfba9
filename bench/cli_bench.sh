#!/usr/bin/env bash
# Times the tool against getfattr on a warm tree (best of three alternating
# rounds):
#   1. showing every label of a tree of 100,000 labelled files:
#      `zorv-label-manager-tool -R -g -l TREE` against
#      `getfattr -R -h -n security.zorv -e hex --absolute-names TREE`;
#   2. start-up: 1,000 runs of `zorv-label-manager-tool -g -o FILE` against
#      1,000 runs of `getfattr -n security.zorv FILE`.
# Prints the times and the ratios (targets: at most 1.0 and at most 2.0).
#
# Usage: bench/cli_bench.sh [BUILD_DIR]      (default ./build)
# The tree, the library's state and the log live in a temporary directory that
# is removed at the end.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"

build_dir=${1:-./build}
tool=$build_dir/cli/zorv-label-manager-tool
if [[ ! -x $tool ]]; then
  cmake --build "$build_dir" --target zorv-label-manager-tool zorvlabelmgr >/dev/null
fi
command -v getfattr >/dev/null || { echo "getfattr is missing (package attr)"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zorv-cli-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
zorv_scratch_state "$work"
zorv_log_into "$work/bench.log"

# 20 x 10 x 20 leaf directories of 25 files each: 100,000 files.
tree=$work/tree
echo "building and labelling a tree of 100,000 files in $tree"
mkdir -p "$tree"/top{01..20}/mid{01..10}/leaf{01..20}
printf '%s\0' "$tree"/top{01..20}/mid{01..10}/leaf{01..20}/file_{0001..0025}.dat | xargs -0 touch
"$tool" -a -s "$tree" >/dev/null
file=$tree/top01/mid01/leaf01/file_0001.dat

# Wall and CPU (user + system, children included) milliseconds of a command,
# as "WALL CPU"; the CPU figure stays readable on a busy machine.
measure() {
  local TIMEFORMAT='%R %U %S' times
  times=$({ time "$@" >/dev/null 2>&1; } 2>&1)
  awk -v t="$times" 'BEGIN { split(t, f, " "); printf "%d %d\n", f[1] * 1000, (f[2] + f[3]) * 1000 }'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }
runs() {
  local i
  for ((i = 0; i < 1000; i++)); do "$@"; done
}

# Warm the caches and page both programs in.
tool_lines=$("$tool" -R -g -l "$tree" | grep -c '^file: ' || true)
peer_lines=$(getfattr -R -h -n security.zorv -e hex --absolute-names "$tree" 2>/dev/null |
  grep -c '^security.zorv=' || true)
echo "labels shown: tool $tool_lines, getfattr $peer_lines"

# Each pair is timed in three alternating rounds and the best round of each
# kept, so that a burst of other load on the machine does not land on one side.
best() { awk -v a="$1" -v b="$2" 'BEGIN { print (a == "" || b < a ? b : a) }'; }
tree_tool= tree_tool_cpu= tree_peer= tree_peer_cpu=
runs_tool= runs_tool_cpu= runs_peer= runs_peer_cpu=
for round in 1 2 3; do
  read -r wall cpu < <(measure "$tool" -R -g -l "$tree")
  tree_tool=$(best "$tree_tool" "$wall") tree_tool_cpu=$(best "$tree_tool_cpu" "$cpu")
  read -r wall cpu < <(measure getfattr -R -h -n security.zorv -e hex --absolute-names "$tree")
  tree_peer=$(best "$tree_peer" "$wall") tree_peer_cpu=$(best "$tree_peer_cpu" "$cpu")
  read -r wall cpu < <(measure runs "$tool" -g -o "$file")
  runs_tool=$(best "$runs_tool" "$wall") runs_tool_cpu=$(best "$runs_tool_cpu" "$cpu")
  read -r wall cpu < <(measure runs getfattr -n security.zorv "$file")
  runs_peer=$(best "$runs_peer" "$wall") runs_peer_cpu=$(best "$runs_peer_cpu" "$cpu")
done

row() {
  printf '%-40s %8s %8s %6s %8s %8s %6s %6s\n' "$@"
}
row "" "tool" "getfattr" "ratio" "tool" "getfattr" "ratio" "target"
row "" "wall ms" "wall ms" "" "cpu ms" "cpu ms" "" ""
row "whole tree, 100,000 labels (-R -g -l)" "$tree_tool" "$tree_peer" \
  "$(ratio "$tree_tool" "$tree_peer")" "$tree_tool_cpu" "$tree_peer_cpu" \
  "$(ratio "$tree_tool_cpu" "$tree_peer_cpu")" "1.0"
row "1,000 runs of -g -o FILE" "$runs_tool" "$runs_peer" "$(ratio "$runs_tool" "$runs_peer")" \
  "$runs_tool_cpu" "$runs_peer_cpu" "$(ratio "$runs_tool_cpu" "$runs_peer_cpu")" "2.0"
