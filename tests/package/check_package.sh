#!/usr/bin/env bash
# The Debian package as a person gets it: made from a finished build (BUILD,
# ./test.sh's own, to keep the run short), checked by lintian, installed with
# apt-get, its programs and manual pages used where the package put them, and
# purged without a trace. It installs into the machine itself, as root or
# through sudo, so ./test.sh runs it in the plain run only; a kestrelbound
# installed before is purged. KB_PACKAGE_PICTURE=FILE keeps the installed
# window's picture there, to be looked at.
#
#   tests/package/check_package.sh BUILD
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: tests/package/check_package.sh BUILD" >&2
    exit 2
fi
cd "$1"
sudo=$([ "$(id -u)" -eq 0 ] || echo sudo)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "package: $*" >&2
    exit 1
}
# Runs the command after the words that fail it, its output shown then.
logged() {
    local failure=$1
    shift
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        fail "$failure"
    }
}
apt() {
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get -y "$@"
}

logged "cpack failed" cpack -G DEB -B "$work/out"
debs=("$work"/out/*.deb)
[ ${#debs[@]} -eq 1 ] || fail "expected one package, got: ${debs[*]}"
deb=${debs[0]}

# Errors and warnings fail; a warning right for this package is overridden,
# with the reason, in share/lintian/overrides/kestrelbound, which it installs.
logged "lintian finds errors or warnings" lintian --fail-on error,warning "$deb"

# Debian's container images keep manual pages out of every package
# (path-exclude in /etc/dpkg/dpkg.cfg.d). The test lets this package's own
# pages in, and only them, so that man finds what a desktop install gets.
mapfile -t pages < <(dpkg-deb -c "$deb" | awk '{print $NF}' | grep '^\./usr/share/man/.*\.gz$')
[ ${#pages[@]} -eq 3 ] || fail "expected three manual pages in the package, not: ${pages[*]}"
includes=("${pages[@]/#./-oDPkg::Options::=--path-include=}")

# A copy installed before, of the same version say, would make apt-get
# install nothing; the test starts from none.
if dpkg-query -W kestrelbound >/dev/null 2>&1; then
    logged "cannot purge the kestrelbound installed before" apt purge kestrelbound
fi
logged "apt-get install failed" apt install --no-install-recommends "${includes[@]}" "$deb"
mapfile -t installed < <(dpkg -L kestrelbound)
[ ${#installed[@]} -gt 0 ] || fail "dpkg lists no files of the package"

appstreamcli validate --no-net /usr/share/metainfo/org.kestrelbound.Kestrelbound.metainfo.xml ||
    fail "appstreamcli finds the metainfo invalid"
desktop-file-validate /usr/share/applications/kestrelbound.desktop >&2 ||
    fail "desktop-file-validate finds the menu entry invalid"

# The installed programs, by their installed paths: a copy under /usr/local
# must not stand in for them. The window starts on plain files for ports,
# finds no adapter, and pictures itself.
station="$work/station"
mkdir -p "$station"
touch "$station"/COM{1,2,3,4}
logged "the installed kestrelbound did not picture its window" env -C "$station" \
    KESTRELBOUND_LOCK_DIR="$station" QT_QPA_PLATFORM=offscreen \
    timeout 120 /usr/bin/kestrelbound --screenshot "$work/window.png"
[ -s "$work/window.png" ] || fail "the window's picture is empty"
echo "package: the installed window pictured itself in $(stat -c %s "$work/window.png") bytes" >&2
if [ -n "${KB_PACKAGE_PICTURE:-}" ]; then
    cp "$work/window.png" "$KB_PACKAGE_PICTURE"
fi
# Read whole before looking into: a reader that stops at its match would
# break the writer's pipe and fail the pipeline.
help=$(/usr/bin/virtual-ta --help) || fail "the installed virtual-ta --help failed"
grep -q '^Usage: virtual-ta' <<<"$help" || fail "the installed virtual-ta --help shows no usage"
[ "$(man -w kbstation)" = /usr/share/man/man1/kbstation.1.gz ] || fail "man finds no kbstation.1.gz"
shown=$(man kbstation 2>/dev/null) || fail "man cannot show kbstation's page"
grep -q 'kbstation - Kestrelbound without a window' <<<"$shown" ||
    fail "man does not show kbstation's page"
# The adapters' service runs the installed program, not the build's.
grep -qx 'ExecStart=/usr/bin/virtual-ta --config %h/.config/kestrelbound/line.conf' \
    /usr/lib/systemd/user/kestrelbound-line.service ||
    fail "the installed service does not run /usr/bin/virtual-ta"

logged "apt-get purge failed" apt purge kestrelbound
# Whatever is still there must belong to another package (/usr/share/icons,
# say); anything else was left behind.
for path in "${installed[@]}"; do
    if [ -e "$path" ] && ! dpkg -S "$path" >/dev/null 2>&1; then
        fail "the purge left $path behind"
    fi
done
echo "package: built, lintian-clean, installed, used and purged without a trace" >&2
