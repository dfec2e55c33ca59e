#!/usr/bin/env bash
# Soak: many calls in a row between two stations on one virtual-ta (sends
# both ways, a retrieve now and then, a call cut off now and then), with the
# resident memory, open descriptors and threads of both stations and of
# virtual-ta sampled as the calls go. Writes the samples, a markdown table and
# a plot to bench/results/ (or the folder given with --out), and fails when
# anything has grown after the warm-up: memory by more than the margin,
# descriptors or threads at all.
#
# Usage: bench/soak.sh [--calls N] [--every N] [--warm-up N] [--margin-kb K]
#                      [--out FOLDER] [--table]
#   --calls      calls in the run (default 500; some 2 to 3 s each)
#   --every      a sample after every that many calls (default 25)
#   --warm-up    calls before the figures must stand still (default 100, or
#                a fifth of the calls when that is less)
#   --margin-kb  resident memory may grow by this much after the warm-up
#                (default 256)
#   --table      runs nothing: judges and draws the samples of an earlier run
set -euo pipefail
cd "$(dirname "$0")/.."
calls=500
every=25
warm_up=""
margin=256
out=bench/results
table_only=0
usage="usage: bench/soak.sh [--calls N] [--every N] [--warm-up N] [--margin-kb K] [--out FOLDER] [--table]"
while [ $# -gt 0 ]; do
    case "$1" in
    --calls) calls="$2"; shift ;;
    --every) every="$2"; shift ;;
    --warm-up) warm_up="$2"; shift ;;
    --margin-kb) margin="$2"; shift ;;
    --out) out="$2"; shift ;;
    --table) table_only=1 ;;
    *) echo "$usage" >&2; exit 2 ;;
    esac
    shift
done

source scripts/ensure-packages.sh
kb_ensure_packages gnuplot-nox
samples="$out/soak.dat"
mkdir -p "$out"

if [ $table_only -eq 0 ]; then
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build -j2 --target kb_soak kbstation virtual-ta
    date -u +%Y-%m-%d >"$out/soak.date"
    echo "soak: $calls calls from $(date -u +%H:%M:%S)" >&2
    if ! build/bench/kb_soak --calls "$calls" --every "$every" >"$samples.new"; then
        echo "soak: a call went wrong; the samples so far are in $samples.new" >&2
        exit 1
    fi
    mv "$samples.new" "$samples"
fi

# The run's own count of calls, from its last sample.
calls=$(awk 'NR > 1 { last = $1 } END { print last }' "$samples")
if [ -z "$warm_up" ]; then
    warm_up=$((calls / 5 < 100 ? calls / 5 : 100))
fi

# For each process: its figures at the first sample after the warm-up, at
# the end, and the most that each grew above the first meanwhile.
table="$out/soak.md"
flat=1
awk -v warm="$warm_up" -v margin="$margin" -v calls="$calls" -v date="$(cat "$out/soak.date" 2>/dev/null || echo '?')" '
    NR == 1 { next }
    $1 >= warm && !started { started = 1; for (i = 2; i <= NF; ++i) first[i] = $i; at = $1 }
    started { for (i = 2; i <= NF; ++i) { last[i] = $i; if ($i - first[i] > grown[i]) grown[i] = $i - first[i] } }
    END {
        if (!started) { print "no sample after the warm-up" > "/dev/stderr"; exit 2 }
        printf "| soak, %d calls, %s | Alice (kbstation) | Bob (kbstation) | virtual-ta |\n", calls, date
        printf "|---|---|---|---|\n"
        printf "| resident memory at call %d / at the end |", at
        for (p = 0; p < 3; ++p) printf " %.1f MB / %.1f MB |", first[2 + 3 * p] / 1024, last[2 + 3 * p] / 1024
        printf "\n| most growth of memory after call %d |", at
        for (p = 0; p < 3; ++p) printf " %d kB |", grown[2 + 3 * p]
        printf "\n| open descriptors at call %d / at the end |", at
        for (p = 0; p < 3; ++p) printf " %d / %d |", first[3 + 3 * p], last[3 + 3 * p]
        printf "\n| threads at call %d / at the end |", at
        for (p = 0; p < 3; ++p) printf " %d / %d |", first[4 + 3 * p], last[4 + 3 * p]
        flat = 1
        printf "\n| flat after the warm-up (memory within %d kB, descriptors and threads not more) |", margin
        for (p = 0; p < 3; ++p) {
            ok = grown[2 + 3 * p] <= margin && grown[3 + 3 * p] <= 0 && grown[4 + 3 * p] <= 0
            if (!ok) flat = 0
            printf " %s |", ok ? "yes" : "NO"
        }
        printf "\n"
        exit flat ? 0 : 1
    }' "$samples" >"$table" || flat=0
cat "$table"

# Lines that lie on each other (the two stations' descriptors) are told
# apart by their points.
gnuplot <<EOF
set terminal pngcairo size 880,560 font "DejaVu Sans,10"
set output "$out/soak.png"
set multiplot layout 2,1 title "Soak: $calls calls between two stations on one virtual-ta"
set key outside right
set xlabel "calls"
set offsets graph 0, 0, 0.15, 0
set ylabel "resident memory, MB"
set yrange [0:*]
plot "$samples" using 1:(\$2/1024) with linespoints pointtype 1 title "Alice", \
     "" using 1:(\$5/1024) with linespoints pointtype 2 title "Bob", \
     "" using 1:(\$8/1024) with linespoints pointtype 6 title "virtual-ta"
set ylabel "descriptors, threads"
plot "$samples" using 1:3 with linespoints pointtype 1 title "Alice's descriptors", \
     "" using 1:6 with linespoints pointtype 2 title "Bob's descriptors", \
     "" using 1:9 with linespoints pointtype 6 title "virtual-ta's descriptors", \
     "" using 1:4 with linespoints dashtype 2 pointtype 1 title "Alice's threads", \
     "" using 1:7 with linespoints dashtype 2 pointtype 2 title "Bob's threads", \
     "" using 1:10 with linespoints dashtype 2 pointtype 6 title "virtual-ta's threads"
unset multiplot
EOF
echo "wrote $table, $out/soak.png and the samples in $samples" >&2
if [ $flat -eq 0 ]; then
    echo "soak: something grew after the warm-up of $warm_up calls" >&2
    exit 1
fi
