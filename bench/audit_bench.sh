#!/usr/bin/env bash
# zorv-label-audit against the runs it stands in for.
#
#   bash bench/audit_bench.sh [BUILD_DIR]      (default: build)
#
# Builds a tree of $FILES files (default 100000) in a temporary directory and
# labels it once with the tool, then per round times
#   (a) the tool's whole-tree rerun over the unchanged tree (cache trusted),
#   (b) `check` of the same tree, trusting the same cache,
#   (c) the tool's first whole-tree run (no cache, every label written),
#   (d) `check --no-cache` (every label read and compared),
#   (e) 1,000 separate runs of `zorv-label-manager-tool -g -l PATH`,
#   (f) one `explain -0` of the same 1,000 paths,
# and prints the medians over $ROUNDS rounds (default 3) with the ratios b/a
# (target <= 1.0), d/c (target <= 1.0) and f/e (target <= 0.1). Removes
# everything it made. The package part of labels comes from the system's
# dpkg database unless DPKG_DIR names another.
set -euo pipefail

build=${1:-build}
tool="$build/cli/zorv-label-manager-tool"
audit="$build/audit/zorv-label-audit"
files=${FILES:-100000}
rounds=${ROUNDS:-3}
for program in "$tool" "$audit"; do
  [[ -x $program ]] || { echo "no $program: build it first" >&2; exit 2; }
done
source "$(dirname "$0")/bench_tree.sh"
bench_workdir audit
export ZORV_LABELMGR_EXCLUDE_DIR="$work/exclude.d"

make_tree "$work/A"
entries=$(find "$work/A" | wc -l)
find "$work/A" -type f | shuf -n 1000 --random-source=<(yes) >"$work/paths"
tr '\n' '\0' <"$work/paths" >"$work/paths0"

timed() {  # timed COMMAND...: the seconds it took; its output is dropped
  local t0
  t0=$(now)
  "$@" >/dev/null 2>&1 || [[ $? -eq 1 ]]
  elapsed "$t0" "$(now)"
}
show_each() { while read -r path; do "$tool" -g -l "$path"; done <"$work/paths"; }

as=() bs=() cs=() ds=() es=() fs=()
for ((round = 1; round <= rounds; round++)); do
  unlabel "$work/A"
  sync
  export ZORV_LABELMGR_STATE_DIR="$work/state-$round"
  cs+=("$(timed "$tool" -a -s "$work/A")")
  ds+=("$(timed "$audit" check --no-cache "$work/A")")
  as+=("$(timed "$tool" -a -s "$work/A")")
  bs+=("$(timed "$audit" check "$work/A")")
  es+=("$(timed show_each)")
  fs+=("$(timed "$audit" explain -0 <"$work/paths0")")
  printf 'round %d: a %.3f s, b %.3f s, c %.3f s, d %.3f s, e %.3f s, f %.3f s\n' "$round" \
    "${as[-1]}" "${bs[-1]}" "${cs[-1]}" "${ds[-1]}" "${es[-1]}" "${fs[-1]}"
done
"$audit" check "$work/A" >/dev/null || { echo "check found differences after a run" >&2; exit 1; }

a=$(median "${as[@]}") b=$(median "${bs[@]}") c=$(median "${cs[@]}")
d=$(median "${ds[@]}") e=$(median "${es[@]}") f=$(median "${fs[@]}")
printf 'tree: %d entries (%d files), medians of %d rounds\n' "$entries" "$files" "$rounds"
show_time '(a) whole-tree rerun, cache trusted:' "$a"
show_time '(b) check, cache trusted:' "$b"
show_time '(c) whole-tree first run, no cache:' "$c"
show_time '(d) check --no-cache:' "$d"
show_time '(e) 1,000 runs of -g -l PATH:' "$e"
show_time '(f) explain -0 of the same 1,000 paths:' "$f"
show_ratio b/a "$b" "$a" 'target <= 1.0'
show_ratio d/c "$d" "$c" 'target <= 1.0'
show_ratio f/e "$f" "$e" 'target <= 0.1' 3
