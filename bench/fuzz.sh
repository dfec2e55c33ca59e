#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for a million inputs, or for the
# number given, each target or those named. Prints, per target, the inputs
# run, the time, the coverage and what was found; exits non-zero if anything
# was. Not part of ./test.sh.
#
#   bench/fuzz.sh [RUNS [TARGET...]]     TARGET: admission recovery tokens send_tokens
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/ensure-packages.sh
kb_ensure_packages clang libclang-rt-14-dev

runs=${1:-1000000}
shift || true
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
    targets=(admission recovery tokens send_tokens)
fi
build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKB_FUZZ=ON >/dev/null
cmake --build "$build" -j2

status=0
for target in "${targets[@]}"; do
    work="$build/runs/$target"
    rm -rf "$work"
    mkdir -p "$work/corpus"
    # A target's seeds, where it has some, start its corpus.
    if [ -d "fuzz/seeds/$target" ]; then
        cp "fuzz/seeds/$target/"* "$work/corpus/"
    fi
    start=$(date +%s)
    if (cd "$work" && "../../fuzz/${target}_fuzz" -runs="$runs" -print_final_stats=1 corpus \
        >log.txt 2>&1); then
        found="nothing found"
    else
        found="FOUND SOMETHING: $work/log.txt and the crash-* or leak-* files beside it"
        status=1
    fi
    seconds=$(($(date +%s) - start))
    executed=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$work/log.txt" | grep -o '[0-9]*$' || echo "?")
    coverage=$(grep -o 'cov: [0-9]*' "$work/log.txt" | tail -1 || true)
    echo "$target: ${executed} inputs in ${seconds} s, ${coverage:-cov: ?}, $found"
done
exit "$status"
