#!/usr/bin/env bash
# Kestrelbound against ZMODEM (lrzsz's sz and rz) on the same virtual-ta line,
# in one run: goodput at line rate on one channel and on two, unthrottled
# speed, 100 small files, a noisy line, processor time and memory, and the
# start-up time of a station on each adapter family; then Kestrelbound across
# two virtual-ta processes, over TLS and over plain TCP: goodput at line rate
# near and 100 ms and 300 ms away, unthrottled speed and the tools' processor
# time. Prints markdown tables and writes them, the raw figures and a plot of
# the noisy-line goodput to bench/results/ (or the folder given with --out).
# Exits non-zero, naming them, when a call across two tools fails or falls
# short of its goodput: 0.999 of the line rate near, 0.99 far away.
#
# Usage: bench/compare.sh [--quick] [--out FOLDER] [--table]
#   --quick   small files and one unthrottled run each: some four minutes,
#             for trying the script; the full run takes some 30 minutes.
#   --table   runs nothing: makes the table and the plot again from the raw
#             figures of an earlier run in the folder
set -euo pipefail
cd "$(dirname "$0")/.."
quick=0
table_only=0
out=bench/results
while [ $# -gt 0 ]; do
    case "$1" in
    --quick) quick=1 ;;
    --out) out="$2"; shift ;;
    --table) table_only=1 ;;
    *) echo "usage: bench/compare.sh [--quick] [--out FOLDER] [--table]" >&2; exit 2 ;;
    esac
    shift
done

source scripts/ensure-packages.sh
kb_ensure_packages lrzsz gnuplot-nox
bench=build/bench/kb_transfer_bench
raw="$out/raw"

rate=8000
if [ $table_only -eq 1 ]; then
    # The sizes of that run are in its figures.
    quick=$(cat "$raw/quick")
fi
if [ $quick -eq 1 ]; then
    small=65536 large=262144 huge=1048576 files=20 runs=1 across=1048576
else
    small=1048576 large=10485760 huge=104857600 files=100 runs=3 across=10485760
fi
delays="0 100 300"
transports="tls plain"

# One case: its figures go to $raw/NAME, what went wrong to $raw/NAME.err.
run_case() {
    local name=$1
    shift
    if ! "$bench" "$@" >"$raw/$name" 2>"$raw/$name.err"; then
        echo "failed: $name (see $raw/$name.err)" >&2
        : >"$raw/$name"
    fi
    [ -s "$raw/$name.err" ] || rm -f "$raw/$name.err"
}

# Runs every case; the figures go to $raw.
run_all() {
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build -j2 --target kb_transfer_bench kbstation virtual-ta
    rm -rf "$raw"
    mkdir -p "$raw"
    echo $quick >"$raw/quick"
    date -u +%Y-%m-%d >"$raw/date"

    # The line-rate cases take minutes and hardly any processor, so they run
    # side by side, each on a virtual-ta of its own.
    echo "line rate: $(date -u +%H:%M:%S), the longest case takes $(((large > across ? large : across) / rate)) s" >&2
    for program in kestrelbound zmodem; do
        for size in small large; do
            for channels in 1 2; do
                run_case "$program-$size-$channels" --program $program --rate $rate \
                    --channels $channels --size ${!size} &
            done
        done
        run_case "$program-files" --program $program --rate $rate --size 1024 --files $files &
        # Each garbled byte costs Kestrelbound seconds of recovery, so the
        # denser noise gets the smaller file, to keep the run within half an hour.
        run_case "$program-noise-1e-6" --program $program --rate $rate --channels 2 \
            --size $large --noise 1e-6 &
        run_case "$program-noise-1e-5" --program $program --rate $rate --channels 2 \
            --size $small --noise 1e-5 &
    done
    # Alice's adapter on one virtual-ta calls Bob's on another, near or
    # through a relay that holds each byte the delay long each way.
    for transport in $transports; do
        for delay in $delays; do
            run_case "across-$transport-$delay" --across $transport --delay $delay \
                --rate $rate --size $across &
        done
    done
    wait

    # The unthrottled cases measure processor work, so they run one at a time.
    echo "unthrottled: $(date -u +%H:%M:%S)" >&2
    for program in kestrelbound zmodem; do
        for size in small large; do
            for ((i = 1; i <= runs; ++i)); do
                run_case "$program-fast-$size-$i" --program $program --rate 0 --size ${!size}
            done
        done
    done
    run_case kestrelbound-fast-huge --program kestrelbound --rate 0 --size $huge
    # The largest file, so that the tools' processor time is many of the
    # clock's ticks.
    for transport in $transports; do
        for ((i = 1; i <= runs; ++i)); do
            run_case "across-$transport-fast-$i" --across $transport --rate 0 --size $huge
        done
    done
    run_case startup --startup
}
[ $table_only -eq 1 ] || run_all

# A field of a case's figures ("" if the case failed).
field() {
    sed -n "s/.*\b$2=\([^ ]*\).*/\1/p" "$raw/$1" 2>/dev/null
}
# awk arithmetic on fields, "failed" when one is missing.
calc() {
    local expression=$1
    shift
    for value in "$@"; do
        [ -z "$value" ] && { echo failed; return; }
    done
    awk -v a="${1:-0}" -v b="${2:-0}" -v c="${3:-0}" "BEGIN { $expression }"
}
# The case among runs 1..$runs with the median time.
median_case() {
    for ((i = 1; i <= runs; ++i)); do
        local seconds
        seconds=$(field "$1-$i" seconds)
        if [ -n "$seconds" ]; then
            echo "$seconds $1-$i"
        fi
    done | sort -n | awk '{ line[NR] = $2 } END { if (NR) print line[int((NR + 1) / 2)] }'
}
goodput() {  # case, line rate in bytes per second[, decimals: 3]
    calc "printf \"%.${3:-3}f\", a / b / c" "$(field "$1" bytes)" "$(field "$1" seconds)" "$2"
}
# A note for a case whose transfer ended with a file that is not as sent.
damage() {
    [ "$(field "$1" identical)" = 0 ] && echo " (a file arrived damaged)"
    true
}
megabytes_per_second() {
    calc 'printf "%.1f MB/s", a / b / 1e6' "$(field "$1" bytes)" "$(field "$1" seconds)"
}
cpu_per_megabyte() {  # case, sender or receiver
    calc 'printf "%.3f", b / (a / 1e6)' "$(field "$1" bytes)" "$(field "$1" "$2_cpu")"
}
megabytes() {  # case, sender or receiver
    calc 'printf "%.1f MB", a / 1024' "$(field "$1" "$2_kb")"
}
size_name() {
    awk -v b="$1" 'BEGIN { if (b >= 1048576) printf "%g MB", b / 1048576; else printf "%g KB", b / 1024 }'
}

table="$out/table.md"
{
    echo "| $(cat "$raw/date")$([ $quick -eq 1 ] && echo ', quick run') | Kestrelbound | ZMODEM (lrzsz) |"
    echo "|---|---|---|"
    for size in small large; do
        for channels in 1 2; do
            line=$((rate * channels))
            echo "| goodput, $(size_name ${!size}), $channels channel$([ $channels -eq 2 ] && echo s) ($line B/s), of the line rate | $(goodput "kestrelbound-$size-$channels" $line) | $(goodput "zmodem-$size-$channels" $line) |"
        done
    done
    for size in small large; do
        k=$(median_case "kestrelbound-fast-$size")
        z=$(median_case "zmodem-fast-$size")
        echo "| unthrottled, $(size_name ${!size}), median of $runs | $(megabytes_per_second "$k") | $(megabytes_per_second "$z") |"
    done
    echo "| $files files of 1 KB at $rate B/s: time over the time of their bytes | $(calc 'printf "%.3f", b / (a / c)' "$(field kestrelbound-files bytes)" "$(field kestrelbound-files seconds)" $rate) | $(calc 'printf "%.3f", b / (a / c)' "$(field zmodem-files bytes)" "$(field zmodem-files seconds)" $rate) |"
    for noise in 1e-6 1e-5; do
        size=$([ $noise = 1e-6 ] && echo $large || echo $small)
        echo "| noisy line, P = $noise per byte, $(size_name $size), 2 channels: goodput | $(goodput kestrelbound-noise-$noise $((2 * rate)))$(damage kestrelbound-noise-$noise) | $(goodput zmodem-noise-$noise $((2 * rate)))$(damage zmodem-noise-$noise) |"
    done
    k=$(median_case kestrelbound-fast-large)
    z=$(median_case zmodem-fast-large)
    for side in sender receiver; do
        echo "| CPU seconds per MB, $side (unthrottled, $(size_name $large)) | $(cpu_per_megabyte "$k" $side) | $(cpu_per_megabyte "$z" $side) |"
    done
    for side in sender receiver; do
        echo "| peak memory, $side (unthrottled, $(size_name $large)) | $(megabytes "$k" $side) | $(megabytes "$z" $side) |"
    done
    echo "| peak memory of the sending station: $(size_name $small) / $(size_name $huge) | $(megabytes "$(median_case kestrelbound-fast-small)" sender) / $(megabytes kestrelbound-fast-huge sender) | |"
    while read -r family seconds; do
        echo "| start-up to \"Initializing Incoming\", $family | $seconds s | |"
    done <"$raw/startup"
} >"$table"
cat "$table"

# Across two tools: each figure over TLS and over plain TCP.
across_table="$out/across.md"
{
    echo "| $(cat "$raw/date")$([ $quick -eq 1 ] && echo ', quick run'), Kestrelbound across two virtual-ta on loopback | TLS | plain TCP |"
    echo "|---|---|---|"
    for delay in $delays; do
        where=$([ $delay = 0 ] && echo "near" || echo "$delay ms each way")
        echo "| goodput, $(size_name $across), 1 channel ($rate B/s), $where, of the line rate | $(goodput across-tls-$delay $rate 4)$(damage across-tls-$delay) | $(goodput across-plain-$delay $rate 4)$(damage across-plain-$delay) |"
    done
    for delay in $delays; do
        where=$([ $delay = 0 ] && echo "near" || echo "$delay ms each way")
        echo "| call set-up to the first file, $where | $(calc 'printf "%.2f s", a' "$(field across-tls-$delay set_up)") | $(calc 'printf "%.2f s", a' "$(field across-plain-$delay set_up)") |"
    done
    t=$(median_case across-tls-fast)
    p=$(median_case across-plain-fast)
    echo "| unthrottled, $(size_name $huge), median of $runs | $(megabytes_per_second "$t")$(damage "$t") | $(megabytes_per_second "$p")$(damage "$p") |"
    echo "| CPU seconds per MB, both virtual-ta together (unthrottled, $(size_name $huge)) | $(cpu_per_megabyte "$t" tools) | $(cpu_per_megabyte "$p" tools) |"
} >"$across_table"
cat "$across_table"

# The noisy-line plot: goodput on the clean line and at each probability.
{
    echo "line Kestrelbound ZMODEM"
    echo "\"clean, $(size_name $large)\" $(goodput kestrelbound-large-2 $((2 * rate))) $(goodput zmodem-large-2 $((2 * rate)))"
    echo "\"1e-6, $(size_name $large)\" $(goodput kestrelbound-noise-1e-6 $((2 * rate))) $(goodput zmodem-noise-1e-6 $((2 * rate)))"
    echo "\"1e-5, $(size_name $small)\" $(goodput kestrelbound-noise-1e-5 $((2 * rate))) $(goodput zmodem-noise-1e-5 $((2 * rate)))"
} | sed 's/failed/0/g' >"$out/noise.dat"
gnuplot <<EOF
set terminal pngcairo size 640,400 font "DejaVu Sans,10"
set output "$out/noise.png"
set title "Goodput on a noisy line, two channels ($((2 * rate)) B/s)"
set ylabel "goodput, fraction of the line rate"
set xlabel "probability that a byte is garbled"
set yrange [0:1.05]
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set key top right
plot "$out/noise.dat" using 2:xtic(1) title columnheader(2), "" using 3 title columnheader(3)
EOF
echo "wrote $table, $across_table, $out/noise.png and the raw figures in $raw" >&2

# The calls across two tools must fill the line: near, to 0.999 of its rate;
# far away, where each confirmation comes a round trip late, to 0.99. A call
# far away is set up at least a round trip later than one near, or the relay
# held nothing and the case measured no distance.
short=0
for transport in $transports; do
    if [ -z "$(median_case across-$transport-fast)" ]; then
        echo "below threshold: across-$transport-fast failed in every run (see $raw)" >&2
        short=1
    fi
    near=$(field across-$transport-0 set_up)
    for delay in $delays; do
        name=across-$transport-$delay
        least=$([ $delay = 0 ] && echo 0.999 || echo 0.99)
        later=$(calc 'printf "%.3f", b - a' "$near" "$(field $name set_up)")
        if [ $delay != 0 ] && [ "$later" != failed ] &&
            awk -v s="$later" -v d=$delay 'BEGIN { exit !(s < 2 * d / 1000) }'; then
            echo "below threshold: $name set up only $later s later than near, less than a round trip" >&2
            short=1
        fi
        got=$(goodput $name $rate 6)
        if [ "$got" = failed ]; then
            echo "below threshold: $name failed (see $raw/$name.err)" >&2
            short=1
        elif [ "$(field $name identical)" != 1 ]; then
            echo "below threshold: $name delivered a damaged file" >&2
            short=1
        elif awk -v g="$got" -v l="$least" 'BEGIN { exit !(g < l) }'; then
            echo "below threshold: $name goodput $got of the line rate, less than $least" >&2
            short=1
        fi
    done
done
exit $short
