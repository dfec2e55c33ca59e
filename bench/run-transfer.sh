#!/usr/bin/env bash
# Builds and runs the transfer benchmark: a 1 MB file between two stations on
# virtual terminal adapters, at a line rate of 16000 B/s and unthrottled.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/ensure-packages.sh
kb_ensure_packages
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target kb_transfer_bench kbstation virtual-ta
exec build/bench/kb_transfer_bench "$@"
