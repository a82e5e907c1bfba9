#!/usr/bin/env bash
# Times traverseDirectory (through bench/traverse_bench) against
# `find TREE > /dev/null` on the same warm tree of 100,000 files in 4,221
# directories, best of three runs each, and prints both times and the ratio.
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

# Microseconds of the fastest of three runs of the command.
best_of_3() {
  local best=0 start end took
  for _ in 1 2 3; do
    start=$(date +%s%N)
    "$@" >/dev/null
    end=$(date +%s%N)
    took=$(((end - start) / 1000))
    if ((best == 0 || took < best)); then best=$took; fi
  done
  echo "$best"
}

# Warm the directory and inode caches (and page in both programs).
find_count=$(find "$tree" | wc -l)
bench_count=$("$bench_bin" "$tree")
echo "entries: find $find_count, traverseDirectory $bench_count"

find_us=$(best_of_3 find "$tree")
bench_us=$(best_of_3 "$bench_bin" "$tree")

awk -v f="$find_us" -v b="$bench_us" 'BEGIN {
  printf "find:              %8.1f ms\n", f / 1000
  printf "traverseDirectory: %8.1f ms\n", b / 1000
  printf "ratio:             %8.2f\n", b / f
}'
