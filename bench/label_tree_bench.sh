#!/usr/bin/env bash
# Whole-tree labelling against a peer that writes the same attributes.
#
#   bash bench/label_tree_bench.sh [BUILD_DIR]      (default: build)
#
# Builds two identical trees of $FILES files (default 100000) in a temporary
# directory, then per round times
#   (a) our whole-tree labelling of tree A (first run: every label written),
#   (b) find B -print0 | xargs -0 setfattr ... (the same number of attribute
#       writes by a peer, on tree B),
#   (c) our second run over the unchanged tree A (nothing to write),
#   (d) a first run of tree A through labelTree, labels created before the
#       one stat() of each file where it likely has none,
#   (e) the same, with every label read before it is written,
# and prints the medians over $ROUNDS rounds (default 3) with the ratios a/b
# (target: at most 1.0), c/a (target: at most 0.4) and d/e (below 1.0 when
# creating first pays). Labels are removed
# between rounds, and each round starts from a state directory of its own, so
# that every (a) is a true first run: a run after labels were stripped behind
# a previous run's back is a different case (its cache no longer matches).
# Removes everything it made.
# The labels' package part comes from the system's dpkg database unless
# DPKG_DIR names another; loading it is a fixed cost of a run that has labels
# to compute, printed separately.
set -euo pipefail

build=${1:-build}
driver="$build/bench/label_tree_bench"
files=${FILES:-100000}
rounds=${ROUNDS:-3}
[[ -x $driver ]] || { echo "no $driver: build the label_tree_bench target first" >&2; exit 2; }
source "$(dirname "$0")/bench_tree.sh"
bench_workdir tree

make_tree "$work/A"
make_tree "$work/B"
entries=$(find "$work/A" | wc -l)

zeros=0x$(printf '00%.0s' $(seq 25))

as=() bs=() cs=() ds=() es=()
for ((round = 1; round <= rounds; round++)); do
  unlabel "$work/A"
  unlabel "$work/B"
  sync
  export ZORV_LABELMGR_STATE_DIR="$work/state-$round"
  t0=$(now)
  "$driver" "$work/A" >/dev/null
  t1=$(now)
  find "$work/B" -print0 | xargs -0 setfattr -n security.zorv -v "$zeros"
  t2=$(now)
  "$driver" "$work/A" >/dev/null
  t3=$(now)
  unlabel "$work/A"
  sync
  t4=$(now)
  ZORV_LABELMGR_STATE_DIR="$work/state-d-$round" "$driver" "$work/A" 0 >/dev/null
  t5=$(now)
  unlabel "$work/A"
  sync
  t6=$(now)
  ZORV_LABELMGR_STATE_DIR="$work/state-e-$round" "$driver" "$work/A" 0 read-first >/dev/null
  t7=$(now)
  as+=("$(elapsed "$t0" "$t1")") bs+=("$(elapsed "$t1" "$t2")") cs+=("$(elapsed "$t2" "$t3")")
  ds+=("$(elapsed "$t4" "$t5")") es+=("$(elapsed "$t6" "$t7")")
  printf 'round %d: a %.3f s, b %.3f s, c %.3f s, d %.3f s, e %.3f s\n' "$round" "${as[-1]}" \
    "${bs[-1]}" "${cs[-1]}" "${ds[-1]}" "${es[-1]}"
done

mkdir "$work/empty"
fixeds=()
for ((round = 1; round <= 3; round++)); do
  t0=$(now)
  ZORV_LABELMGR_STATE_DIR="$work/state-empty-$round" "$driver" "$work/empty" >/dev/null
  fixeds+=("$(elapsed "$t0" "$(now)")")
done
fixed=$(median "${fixeds[@]}")

a=$(median "${as[@]}") b=$(median "${bs[@]}") c=$(median "${cs[@]}")
d=$(median "${ds[@]}") e=$(median "${es[@]}")
dpkg=${DPKG_DIR:-/var/lib/dpkg}
lists=$(find "$dpkg/info" -maxdepth 1 -name '*.list' 2>/dev/null | wc -l)
printf 'tree: %d entries (%d files), medians of %d rounds\n' "$entries" "$files" "$rounds"
printf 'dpkg database: %s (%d file lists)\n' "$dpkg" "$lists"
show_time '(a) our whole-tree labelling, first run:' "$a"
show_time '(b) find | xargs setfattr, same writes:' "$b"
show_time '(c) our second run over the unchanged tree:' "$c"
printf 'of (a), a first run over an empty tree:     %.3f s (start-up, state database, dpkg index)\n' "$fixed"
show_time '(d) labelTree first run, creating first:' "$d"
show_time '(e) the same, reading every label first:' "$e"
show_ratio a/b "$a" "$b" 'target <= 1.0'
show_ratio c/a "$c" "$a" 'target <= 0.4'
show_ratio d/e "$d" "$e" 'creating first pays when below 1.0'
grep -h 'labelled the tree' "$work/bench.log" | tail -2 | sed 's/^/log: /'
