#!/usr/bin/env bash
# Plants a small engine whose files call one another in two circles and shows
# that check_engine_cycles.sh names both, the shorter first, and not the way
# back through EndCall; then breaks the circles as a move of a function would
# and shows that the same engine passes.
#
#   tests/tree/engine_cycles_test.sh COMPILER AR NM WORK
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/fail.sh"
compiler=$1 ar_tool=$2 nm_tool=$3 work=$4
rm -rf "$work"
mkdir -p "$work"

# call_end.cpp's table runs Tidy of teardown.cpp, which ends the call itself
# when it must: that circle is the allowed one. transfer_engine.cpp and
# sending_session.cpp call each other; transfer_engine.cpp, dialing.cpp and
# pickup.cpp go round in three. Untangled, sending_session.cpp still names
# Start in a comment and a string and calls a Stop of its own class.
cat >"$work/engine.h" <<'SOURCE'
void EndCall(int reason);
void Tidy();
void Start();
void Stop();
void Feed();
void Dial();
void Pick();
void Answer();
SOURCE
# Each source of the planted engine, from standard input, behind engine.h.
plant() {
    { echo '#include "engine.h"' && cat; } >"$work/$1"
}
plant call_end.cpp <<<'void EndCall(int reason) { if (reason > 0) Tidy(); }'
plant teardown.cpp <<<'void Tidy() { EndCall(0); }'
plant transfer_engine.cpp <<<'void Start() { Feed(); Dial(); }
void Stop() {}
void Answer() { EndCall(1); }'
plant sending_session.cpp <<'SOURCE'
namespace {
struct Gauge {
    void Stop() { ++stops; }
    int stops = 0;
};
const char* Said() { return "Start()"; }
}  // namespace
// Start() is for the window to call.
void Feed() {
    Gauge gauge;
    gauge.Stop();
    if (Said()[gauge.stops] != 't') EndCall(2);
#ifndef UNTANGLED
    Stop();
#endif
}
SOURCE
plant dialing.cpp <<<'void Dial() { Pick(); }'
plant pickup.cpp <<<'void Pick() {
#ifndef UNTANGLED
    Answer();
#endif
}'

# Builds the planted engine with the given flags into one library, as the
# build makes the engine's, and checks it; out is what the check said.
check() {
    for source in "$work"/*.cpp; do
        "$compiler" -std=c++20 -O2 "$@" -c "$source" -o "$source.o" || exit 1
    done
    "$ar_tool" rc "$work/engine.a" "$work"/*.cpp.o || exit 1
    out=$("$here/check_engine_cycles.sh" "$nm_tool" "$work/engine.a" 2>&1)
}

check
[ $? -eq 1 ] || fail "the planted circles passed"
expected="  sending_session.cpp -> transfer_engine.cpp -> sending_session.cpp
  dialing.cpp -> pickup.cpp -> transfer_engine.cpp -> dialing.cpp"
[ "$(grep -e ' -> .*: ' -v <<<"$out" | grep '^  ')" = "$expected" ] ||
    fail "the check did not name exactly the two circles, the shorter first"
grep -q "^  sending_session.cpp -> transfer_engine.cpp: Stop$" <<<"$out" ||
    fail "the call that closes the shorter circle was not named"

# The same members again, rebuilt: the library holds the untangled engine.
check -DUNTANGLED || fail "an engine whose only way back is EndCall failed"
echo "The planted circles were found, the shorter first, and the untangled engine passed."
