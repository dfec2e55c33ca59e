#!/usr/bin/env bash
# Installs what is missing, builds Kestrelbound and runs every test.
# The exit status is that of the tests.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/ensure-packages.sh
kb_ensure_packages

build=build
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j2
ctest --test-dir "$build" --output-on-failure -j2
