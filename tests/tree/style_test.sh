#!/usr/bin/env bash
# Plants a source that breaks each rule of scripts/check-style.sh and shows
# that the check finds every one of them; then shows that a clean source of
# the same layer passes.
#
#   tests/tree/style_test.sh BUILD WORK
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$1 work=$2
rm -rf "$work"
mkdir -p "$work/src/line"
. "$root/tests/tree/fail.sh"

planted=$work/src/line/planted.cpp
cat >"$planted" <<'SOURCE'
#include "../engine/transfer_engine.h"
#include "comm_port.h"
#include "engine/receiving_session_test_hooks.h"

namespace {
constexpr int kLimitMs = 100;
int  badlyLaidOut() { return kLimitMs; }
}  // namespace
SOURCE

# Results dropped apart: the includes not found end the first's parse early.
results=$work/src/line/results.cpp
cat >"$results" <<'SOURCE'
#include <algorithm>
#include <vector>

class Gauge {
public:
    int Level() const { return level_; }

private:
    int level_ = 0;
};

int DistinctCount(std::vector<int> values) {
    std::unique(values.begin(), values.end());
    return static_cast<int>(values.size());
}
SOURCE
out=$("$root/scripts/check-style.sh" "$build" "$planted" "$results" 2>&1) && fail "both passed"
grep -q "^format: .*planted.cpp" <<<"$out" || fail "its layout was not found"
grep -q "^includes: .*planted.cpp:1:.*climbs out" <<<"$out" || fail "its ../ include was not found"
grep -q "^includes: .*planted.cpp:2:.*layer's folder" <<<"$out" || fail "its bare include was not found"
grep -q "^includes: .*planted.cpp:3:.*test hook" <<<"$out" || fail "its test hook was not found"
grep -q "^names: .*'kLimitMs'" <<<"$out" || fail "its constant's name was not found"
grep -q "^names: .*'badlyLaidOut'" <<<"$out" || fail "its function's name was not found"
grep -q "^results: .*results.cpp:.*'Level'.*nodiscard" <<<"$out" || fail "its unmarked result was not found"
grep -q "^results: .*results.cpp:13:.*should be used" <<<"$out" || fail "its dropped result was not found"

clean=$work/src/line/clean.cpp
cat >"$clean" <<'SOURCE'
#include "line/comm_port.h"

namespace {

constexpr int LimitMs = 100;

}  // namespace

int CleanLimit() {
    return LimitMs;
}
SOURCE
out=$("$root/scripts/check-style.sh" "$build" "$clean" 2>&1) || fail "a clean source failed"
echo "Every planted breach of the tree's rules was found, and a clean source passed."
