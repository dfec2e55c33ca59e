#!/usr/bin/env bash
# Installs what is missing, builds Kestrelbound, and runs it on two virtual
# terminal adapters: Alice and Bob, each in a folder of its own under demo/
# with an adapter of a different family on COM1, and a folder of sample
# pictures beside them.
#
# With a display, each directory holds the other station, the two windows
# open and you send from one to the other yourself. Without one, the demonstration runs by itself: Alice calls Bob
# and sends him the samples, both logs scroll by, every file that arrived is
# compared with its original, and pictures of both windows are written into
# demo/ (Qt's offscreen platform) and named.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/ensure-packages.sh
kb_ensure_packages

build=build
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target kbstation virtual-ta kestrelbound

demo=$PWD/demo
station=$PWD/$build/src/station/kbstation
window=$PWD/$build/src/ui/kestrelbound
adapters=$PWD/$build/tools/virtual-ta/virtual-ta
samples="$demo/samples/Holiday Photos"

# A fresh pair of stations on every run; the samples are made once.
rm -rf "$demo/alice" "$demo/bob" "$demo/run"
mkdir -p "$demo/alice" "$demo/bob" "$demo/run"
for name in alice bob; do
    # COM2 to COM4 are plain files, so that no search ever touches a real
    # serial port of this machine.
    for port in 2 3 4; do : >"$demo/$name/COM$port"; done
done
if [ ! -d "$samples" ]; then
    mkdir -p "$samples"
    head -c 90000 /dev/urandom >"$samples/beach.jpg"
    head -c 131071 /dev/urandom >"$samples/harbour.jpg"
    head -c 8191 /dev/urandom >"$samples/map.png"
    printf 'Dear Bob,\r\nhere are the pictures of our week by the sea.\r\nAlice\r\n' >"$samples/letter.txt"
fi

pids=()
cleanup() {
    exec 3>&- 4>&- 2>/dev/null || true
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT

# Two adapters of different families, on a 64K line of 8000 bytes a second.
"$adapters" --rate 8000 "$demo/alice/COM1=bitsurfr:5551001" "$demo/bob/COM1=zyxel-2864:5552002" \
    >"$demo/run/adapters.out" &
pids+=($!)
for _ in $(seq 100); do grep -q '^ready$' "$demo/run/adapters.out" && break; sleep 0.1; done

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
    # Alice's directory knows Bob and Bob's knows Alice, so that either can
    # send at once: drop the samples on the file list and press Send.
    printf 'name Bob\nnumber 5552002\nentry add\nquit\n' |
        (cd "$demo/alice" && "$station" >"$demo/run/alice-setup.out")
    printf 'name Alice\nnumber 5551001\nentry add\nquit\n' |
        (cd "$demo/bob" && "$station" >"$demo/run/bob-setup.out")
    echo "Two windows open: Alice (demo/alice) and Bob (demo/bob)."
    echo "Drag files from $demo/samples onto Alice's file list, choose Bob and press Send."
    echo "Close both windows to end."
    (cd "$demo/alice" && exec "$window") &
    pids+=($!)
    (cd "$demo/bob" && exec "$window") &
    pids+=($!)
    wait "${pids[1]}" "${pids[2]}" || true
    exit 0
fi

start_station() {  # name, file descriptor for its commands
    local name=$1
    mkfifo "$demo/run/$name.in"
    (cd "$demo/$name" && exec "$station" <"$demo/run/$name.in" >"$demo/run/$name.out") &
    pids+=($!)
    eval "exec $2>\"$demo/run/$name.in\""
    # Its log and messages, as they come.
    tail -n +1 -f "$demo/run/$name.out" 2>/dev/null |
        sed -u -n "s/^log: /$(printf '%-5s' "$name") | /p; s/^message: /$(printf '%-5s' "$name") ! /p" &
    pids+=($!)
}
: >"$demo/run/alice.out"
: >"$demo/run/bob.out"
start_station bob 4
start_station alice 3

# Sends a command to a station and waits for its answer.
answers() { grep -c -E '^(ok|error: .*)$' "$demo/run/$1.out" || true; }
command() {  # name, command
    local name=$1 fd before
    fd=$([ "$name" = alice ] && echo 3 || echo 4)
    before=$(answers "$name")
    echo "$2" >&"$fd"
    while [ "$(answers "$name")" -le "$before" ]; do sleep 0.1; done
    local answer
    answer=$(grep -E '^(ok|error: .*)$' "$demo/run/$name.out" | tail -n 1)
    if [ "$answer" != ok ]; then
        echo "$name: $2: $answer" >&2
        exit 1
    fi
}

command bob "wait Initializing Incoming 30"
command alice "wait Initializing Incoming 30"
command alice "name Bob"
command alice "number 555 2002"
command alice "add $samples"
command alice "send"
command alice "wait All files sent. 300"
command bob "wait All files received. 60"
command bob "wait-state idle 60"
command alice "wait-state idle 60"

received="$demo/bob/Incoming Files/Holiday Photos"
echo
if diff -r "$samples" "$received" >/dev/null; then
    echo "Every file arrived identical in $received"
    status=0
else
    echo "The files that arrived differ from the originals:" >&2
    diff -r "$samples" "$received" >&2 || true
    status=1
fi
command alice quit
command bob quit

# The two windows as they come up in the stations' folders now, pictured on
# Qt's offscreen platform: each finds its adapter and shows its log.
for name in alice bob; do
    if (cd "$demo/$name" && QT_QPA_PLATFORM=offscreen "$window" --screenshot "$demo/$name-window.png" \
        2>"$demo/run/$name-window.err"); then
        echo "A picture of $name's window: $demo/$name-window.png"
    else
        echo "No picture of $name's window (see $demo/run/$name-window.err)" >&2
        status=1
    fi
done
exit $status
