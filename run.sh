#!/usr/bin/env bash
# Installs what is missing and builds Kestrelbound. The demonstration with two
# stations on virtual terminal adapters joins as soon as the station program
# exists.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/ensure-packages.sh
kb_ensure_packages

build=build
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j2
echo
echo "Kestrelbound is built. The station program, which a demonstration of two"
echo "stations trading files over virtual terminal adapters will run, is not there yet."
