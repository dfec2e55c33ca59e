#!/usr/bin/env bash
# Installs the Debian packages that the build and the tests need, when any of
# them is missing. Sourced by run.sh and test.sh; runs apt-get update at most once.

# Qt 6 for the desktop program (kestrelbound): Widgets, its tools (moc, rcc),
# SVG for the pictures, the platform plugins (its tests run on "offscreen"),
# and a font for them to draw with; a virtual X server and a small window
# manager, for the one test that resizes and maximises the window as a
# desktop does. OpenSSL 3 for virtual-ta's TLS and identity keys, and its
# command, with which a test offers a handshake no tool would.
# rsvg-convert draws the icon's bitmaps from its SVG. The packages: dpkg-dev
# finds their dependencies from the programs (CPack's shlibdeps), lintian
# checks them, appstreamcli and desktop-file-validate check the desktop
# metadata, and man-db reads the manual pages.
KB_PACKAGES=(cmake ninja-build g++ libgtest-dev libgmock-dev clang-format clang-tidy
    qt6-base-dev qt6-base-dev-tools qt6-svg-dev qt6-qpa-plugins libgl-dev fonts-dejavu-core
    xvfb openbox libssl-dev openssl librsvg2-bin dpkg-dev lintian appstream desktop-file-utils man-db)

kb_missing_packages() {
    local missing=()
    for package in "${KB_PACKAGES[@]}" "$@"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    echo "${missing[@]}"
}

kb_ensure_packages() {
    local missing
    missing=$(kb_missing_packages "$@")
    [ -z "$missing" ] && return 0
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        sudo="sudo"
    fi
    echo "Installing: $missing"
    $sudo apt-get update
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends $missing
}
