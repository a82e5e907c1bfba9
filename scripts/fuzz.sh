#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer into build-fuzz, then fuzzes each one for a
# bounded time on a fresh copy of its seed corpus (build-fuzz/corpus/TARGET),
# printing executions and coverage per target. Exits non-zero when a target
# crashes or breaks an invariant; the input is kept in build-fuzz/artifacts.
#
# Usage: scripts/fuzz.sh [TARGET...]     (default: every target)
#   FUZZ_SECONDS   seconds per target (default 60)
#   FUZZ_BUILD_DIR build directory (default build-fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh

seconds=${FUZZ_SECONDS:-60}
build=${FUZZ_BUILD_DIR:-build-fuzz}
all_targets=(label_decode label_text path_safety wildcard_match wildcard_regex config)
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=("${all_targets[@]}")

# The longest input worth trying per target: just past each limit the code
# enforces (81-byte labels, 4095-byte paths, 1024-byte patterns).
declare -A max_len=(
    [label_decode]=100 [label_text]=400 [path_safety]=4200
    [wildcard_match]=600 [wildcard_regex]=1100 [config]=2000
)
for target in "${targets[@]}"; do
    [[ -n ${max_len[$target]:-} ]] || { echo "unknown target: $target" >&2; exit 2; }
done

for tool in clang-14 clang++-14; do
    command -v "$tool" >/dev/null ||
        { echo "$tool is missing: bash scripts/install-deps.sh" >&2; exit 2; }
done

mkdir -p "$build"
work_log=$build/configure.log
# --fresh: the tree must be configured for clang whatever was there before.
CC=clang-14 CXX=clang++-14 cmake --fresh -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZORV_FUZZ=ON -DZORV_BUILD_TESTS=OFF -DZORV_SANITIZE=ON \
    -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
    >"$work_log" 2>&1 || { cat "$work_log"; exit 1; }
cmake --build "$build" -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

# Scratch space in memory when there is some: the configuration target writes
# a file per input, which a busy disk slows down tenfold.
scratch=/dev/shm
[[ -d $scratch && -w $scratch ]] || scratch=${TMPDIR:-/tmp}
work=$(mktemp -d -p "$scratch")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/tmp"
# Logging costs nothing when only FATAL gets through; nothing goes to /var/log.
zorv_log_into "$work/fuzz.log" FATAL BasicLayout
export TMPDIR=$work/tmp
export UBSAN_OPTIONS=print_stacktrace=1

printf '%-16s %12s %8s %8s %8s  %s\n' target executions cov features corpus result
failures=0
for target in "${targets[@]}"; do
    corpus=$build/corpus/$target
    artifacts=$build/artifacts/$target
    rm -rf "$corpus"
    mkdir -p "$corpus" "$artifacts"
    cp fuzz/corpus/"$target"/* "$corpus"/
    log=$build/fuzz-$target.log
    status=0
    "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len="${max_len[$target]}" \
        -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1 || status=$?

    executions=$(grep -oE 'stat::number_of_executed_units: [0-9]+' "$log" | tail -1 | grep -oE '[0-9]+$' || true)
    cov=$(grep -oE ' cov: [0-9]+' "$log" | tail -1 | grep -oE '[0-9]+' || true)
    features=$(grep -oE ' ft: [0-9]+' "$log" | tail -1 | grep -oE '[0-9]+' || true)
    units=$(find "$corpus" -type f | wc -l)
    result=ok
    if [[ $status -ne 0 ]]; then
        result="FAILED (status $status, log $log)"
        failures=$((failures + 1))
    fi
    printf '%-16s %12s %8s %8s %8s  %s\n' "$target" "${executions:-?}" "${cov:-?}" \
        "${features:-?}" "$units" "$result"
    if [[ $status -ne 0 ]]; then
        grep -E 'invariant broken|ERROR: |SUMMARY|runtime error|Test unit written' "$log" | head -20
    fi
done
exit $((failures > 0))
