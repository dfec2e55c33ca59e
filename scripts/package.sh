#!/usr/bin/env bash
# Builds the Debian package of Kestrelbound from the tree as it is committed
# or changed, in a build folder of its own (build-package, Release), and
# prints the path of each .deb made.
#
#   scripts/package.sh [BUILD]     BUILD: another folder to build in
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/ensure-packages.sh
kb_ensure_packages

build=${1:-build-package}
# A clean tree each time: nothing of an earlier build or configuration
# reaches the package.
rm -rf "$build"
# Built with the flags Debian builds its packages with, every hardening
# included (dpkg-buildflags: -O2, the stack protector, _FORTIFY_SOURCE,
# relocations read-only and bound at start). The Release type adds only
# NDEBUG: at CMake's own -O3, g++ 12 warns of overlapping copies inside
# std::string that cannot happen, and warnings are errors here.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
    LDFLAGS="$(dpkg-buildflags --get LDFLAGS)" \
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG \
    -DBUILD_TESTING=OFF >&2
cmake --build "$build" -j2 >&2
(cd "$build" && cpack -G DEB >&2)
find "$PWD/$build" -maxdepth 1 -name '*.deb' -print
