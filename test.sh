#!/usr/bin/env bash
# Installs what is missing, builds Kestrelbound and runs every test.
# The exit status is that of the tests.
#
#   ./test.sh                the ordinary build, the style checks, every test,
#                            and the Debian package installed and purged
#   ./test.sh --sanitizers   every test under AddressSanitizer with
#                            UndefinedBehaviorSanitizer, then every test under
#                            ThreadSanitizer, each in a build of its own
set -euo pipefail
cd "$(dirname "$0")"

sanitizers=0
case "${1:-}" in
    "") ;;
    --sanitizers) sanitizers=1 ;;
    *)
        echo "usage: ./test.sh [--sanitizers]" >&2
        exit 2
        ;;
esac

source scripts/ensure-packages.sh
kb_ensure_packages

if [ "$sanitizers" -eq 0 ]; then
    build=build
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build "$build" -j2
    # The tree's layout, names and includes; a finding fails the run, after
    # the tests have had their say too.
    status=0
    scripts/check-style.sh "$build" || status=1
    # Four at once on two cores: the tests wait on the program's own limits
    # and timers far more than they compute (the whole suite takes some 17 s
    # of processor time), and the few that compile ask for both cores.
    ctest --test-dir "$build" --output-on-failure -j4 || status=1
    # The Debian package, made from this build, installed on the machine,
    # used and purged; the sanitized builds make no package.
    tests/package/check_package.sh "$build" || status=1
    exit "$status"
fi

# Builds with the sanitizers named and runs the tests. The tests start
# kbstation and virtual-ta from the same build, so those run sanitized too;
# every process writes its findings to a file of its own in the reports
# folder, and any file there fails the run, also when the process that found
# something was a child whose exit status no test looked at.
run_sanitized() {
    local build=$1 sanitize=$2
    local reports="$PWD/$build/sanitizer-reports"
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKB_SANITIZE="$sanitize"
    cmake --build "$build" -j2
    rm -rf "$reports"
    mkdir -p "$reports"
    local status=0
    # Two at once: sanitized processes are several times slower, so here the
    # tests' waits are no longer idle.
    ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:log_path=$reports/asan" \
        UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$reports/ubsan" \
        TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$reports/tsan" \
        ctest --test-dir "$build" --output-on-failure -j2 || status=$?
    if [ -n "$(ls -A "$reports")" ]; then
        echo "Sanitizer findings ($sanitize):" >&2
        cat "$reports"/* >&2
        status=1
    fi
    return "$status"
}

status=0
run_sanitized build-asan address,undefined || status=1
run_sanitized build-tsan thread || status=1
exit "$status"
