#!/usr/bin/env bash
# Draws the manual's pictures of the window anew, on Qt's offscreen platform:
#   window.png    an idle window that found its adapter, with a small
#                 directory
#   transfer.png  a window during a call, the picture the two-window test
#                 takes of Alice while her hot folder goes to Bob
# Run it after a build (./test.sh or ./run.sh), then look at both pictures.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
station=$PWD/$build/src/station/kbstation
window=$PWD/$build/src/ui/kestrelbound
adapters=$PWD/$build/tools/virtual-ta/virtual-ta
pictures=$PWD/src/ui/manual/pictures
mkdir -p "$pictures"

work=$(mktemp -d)
adapter_pid=
cleanup() {
    [ -n "$adapter_pid" ] && kill "$adapter_pid" 2>/dev/null
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

home=$work/alice
mkdir -p "$home"
for port in 2 3 4; do : >"$home/COM$port"; done
"$adapters" "$home/COM1=bitsurfr:5551001" >"$work/adapters.out" &
adapter_pid=$!
for _ in $(seq 100); do grep -q '^ready$' "$work/adapters.out" && break; sleep 0.1; done

# The directory, typed in as a user would.
{
    echo "wait Initializing Incoming 30"
    echo "name Bob's Bakery"
    echo "number 5552002"
    echo "entry add"
    echo "name Carol Design"
    echo "number 0301234567"
    echo "entry add"
    echo "name Harbour Print"
    echo "number 0407654321"
    echo "entry add"
    echo "quit"
} | (cd "$home" && "$station" >"$work/setup.out")
if grep -q '^error' "$work/setup.out"; then
    cat "$work/setup.out" >&2
    exit 1
fi

(cd "$home" && QT_QPA_PLATFORM=offscreen "$window" --screenshot "$pictures/window.png")
echo "written: $pictures/window.png"

ctest --test-dir "$build" -R 'TwoWindows.AHotFolder' --output-on-failure >/dev/null
cp "$build/screens/alice-during-transfer.png" "$pictures/transfer.png"
echo "written: $pictures/transfer.png"
