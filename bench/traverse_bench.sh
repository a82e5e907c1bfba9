#!/usr/bin/env bash
# Times traverseDirectory (through bench/traverse_bench) against
# `find TREE > /dev/null` on the same warm tree of 100,000 files in 4,221
# directories, best of three runs each, and prints both times and the ratio:
# wall clock, and the CPU time beside it.
#
# Usage: bench/traverse_bench.sh [BUILD_DIR]      (default ./build)
# With ZORV_BENCH_TREE=DIR an existing tree is reused and left in place;
# otherwise the tree is built under a temporary directory and removed.
set -euo pipefail

build_dir=${1:-./build}
bench_bin=$build_dir/bench/traverse_bench
if [[ ! -x $bench_bin ]]; then
  cmake --build "$build_dir" --target traverse_bench >/dev/null
fi

if [[ -n ${ZORV_BENCH_TREE:-} && -d ${ZORV_BENCH_TREE} ]]; then
  tree=$ZORV_BENCH_TREE
  echo "reusing tree $tree"
else
  work=$(mktemp -d "${TMPDIR:-/tmp}/zorv-traverse-bench-XXXXXX")
  trap 'rm -rf "$work"' EXIT
  tree=$work/tree
  # 20 x 10 x 20 leaf directories of 25 files each: 100,000 files, and with
  # the inner levels and the root 4,221 directories.
  echo "building tree $tree"
  mkdir -p "$tree"/top{01..20}/mid{01..10}/leaf{01..20}
  printf '%s\0' "$tree"/top{01..20}/mid{01..10}/leaf{01..20}/file_{0001..0025}.dat |
    xargs -0 touch
fi

# "WALL CPU" in milliseconds, each the smallest of three runs. The CPU time
# (user + system, all threads together) is printed beside the wall time: it
# shows the work done, which the reader threads of the walk spread out.
best_of_3() {
  local TIMEFORMAT='%3R %3U %3S' best_wall='' best_cpu='' real user sys wall cpu
  for _ in 1 2 3; do
    read -r real user sys < <({ time "$@" >/dev/null 2>&1; } 2>&1)
    wall=$(awk -v r="$real" 'BEGIN { printf "%.1f", r * 1000 }')
    cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.1f", (u + s) * 1000 }')
    if [[ -z $best_wall ]] || awk -v a="$wall" -v b="$best_wall" 'BEGIN { exit !(a < b) }'; then
      best_wall=$wall
    fi
    if [[ -z $best_cpu ]] || awk -v a="$cpu" -v b="$best_cpu" 'BEGIN { exit !(a < b) }'; then
      best_cpu=$cpu
    fi
  done
  echo "$best_wall $best_cpu"
}

# Warm the directory and inode caches (and page in both programs).
find_count=$(find "$tree" | wc -l)
bench_count=$("$bench_bin" "$tree")
echo "entries: find $find_count, traverseDirectory $bench_count"

read -r find_wall find_cpu < <(best_of_3 find "$tree")
read -r bench_wall bench_cpu < <(best_of_3 "$bench_bin" "$tree")

awk -v fw="$find_wall" -v fc="$find_cpu" -v bw="$bench_wall" -v bc="$bench_cpu" 'BEGIN {
  printf "find:              %8.1f ms wall %8.1f ms cpu\n", fw, fc
  printf "traverseDirectory: %8.1f ms wall %8.1f ms cpu\n", bw, bc
  printf "ratio:             %8.2f    wall %8.2f    cpu\n", bw / fw, (fc > 0 ? bc / fc : 0)
}'
