#!/usr/bin/env bash
# Installs what is needed, builds and runs every test; then builds the same
# tree with AddressSanitizer and UndefinedBehaviorSanitizer into build-asan and
# runs every test again there; then builds the Debian packages and runs them
# through lintian and an install, upgrade and purge cycle
# (packaging/deb_check.sh); then fuzzes each fuzz target for a short while.
# Prints how long each stage took.
#
#   SANITIZE=0       skip the sanitizer build and its test run
#   PACKAGES=0       skip the Debian packages
#   FUZZ_SECONDS=N   seconds per fuzz target (default 60); 0 skips fuzzing
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
timings=()
stage_start=$SECONDS
stage_done() {
    timings+=("$(printf '%-22s %5d s' "$1" $((SECONDS - stage_start)))")
    stage_start=$SECONDS
}
report_timings() {
    echo "== check.sh stages"
    printf '%s\n' "${timings[@]}"
    printf '%-22s %5d s\n' total "$SECONDS"
}
trap report_timings EXIT

bash scripts/install-deps.sh
stage_done "dependencies"
bash scripts/build.sh
stage_done "build"
# The fault-injection test keeps one table per command there; they are
# printed whether the tests pass or not.
tables=build/tests/fault/fault-tables
rm -rf "$tables"
tests_status=0
ctest --test-dir build --output-on-failure -j"$jobs" || tests_status=$?
if compgen -G "$tables/*.txt" >/dev/null; then
    echo "== fault injection (tests/fault/syscall_fault_test.cc)"
    cat "$tables"/*.txt
fi
[[ $tests_status == 0 ]] || exit "$tests_status"
stage_done "tests"

if [[ ${SANITIZE:-1} != 0 ]]; then
    BUILD_DIR=build-asan bash scripts/build.sh -DZORV_SANITIZE=ON
    stage_done "sanitizer build"
    # Every finding fails its test: UBSan stops at the first report (the build
    # has -fno-sanitize-recover=all) and prints where, and leaks are checked
    # at the exit of every instrumented process, the tests and the tool they
    # run alike. The link-order check is off for the one program that is not
    # instrumented itself: the outside program the install test builds
    # against the installed (instrumented) library.
    ASAN_OPTIONS=detect_leaks=1:check_initialization_order=1:strict_init_order=1:verify_asan_link_order=0 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build-asan --output-on-failure -j"$jobs"
    stage_done "sanitizer tests"
fi

if [[ ${PACKAGES:-1} != 0 ]]; then
    bash packaging/deb_check.sh
    stage_done "Debian packages"
fi

if [[ ${FUZZ_SECONDS:-60} != 0 ]]; then
    bash scripts/fuzz.sh
    stage_done "fuzzing"
fi
