#!/usr/bin/env bash
# The Debian package as a person gets it: made from a finished build, checked
# by lintian, installed with apt-get, its programs and manual pages used where
# the package put them, and purged, after which nothing it installed is left.
# It installs into the machine itself, so ./test.sh runs it in the plain run
# only, as root or through sudo; a kestrelbound package installed before is
# purged with it.
#
#   tests/package/check_package.sh BUILD
#
# BUILD is a built folder (./test.sh's own): the package is made from it
# rather than from a build of its own, to keep the run short. With
# KB_PACKAGE_PICTURE=FILE the installed window's picture is kept there, to be
# looked at.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: tests/package/check_package.sh BUILD" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "package: $*" >&2
    exit 1
}

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || {
    cat "$work/cpack.log" >&2
    fail "cpack failed"
}
debs=("$work"/out/*.deb)
[ ${#debs[@]} -eq 1 ] || fail "expected one package, got: ${debs[*]}"
deb=${debs[0]}

# Errors and warnings fail; a warning that is right for this package is to
# be overridden, with the reason, in a file that the build installs as
# share/lintian/overrides/kestrelbound.
if ! lintian --fail-on error,warning "$deb" >"$work/lintian.log" 2>&1; then
    cat "$work/lintian.log" >&2
    fail "lintian finds errors or warnings"
fi

# Debian's container images keep manual pages out of every package
# (path-exclude in /etc/dpkg/dpkg.cfg.d). The test lets this package's own
# pages in, and only them, so that man finds what a desktop install gets.
mapfile -t pages < <(dpkg-deb -c "$deb" | awk '{print $NF}' | grep '^\./usr/share/man/.*\.gz$')
[ ${#pages[@]} -eq 3 ] || fail "expected three manual pages in the package, not: ${pages[*]}"
includes=()
for page in "${pages[@]}"; do
    includes+=(-o "DPkg::Options::=--path-include=${page#.}")
done

# A copy installed before, of the same version say, would make apt-get
# install nothing; the test starts from none.
if dpkg-query -W kestrelbound >/dev/null 2>&1; then
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -y kestrelbound >/dev/null 2>&1 ||
        fail "cannot purge the kestrelbound installed before"
fi
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
    "${includes[@]}" "$deb" >"$work/install.log" 2>&1 || {
    cat "$work/install.log" >&2
    fail "apt-get install failed"
}
mapfile -t installed < <(dpkg -L kestrelbound)
[ ${#installed[@]} -gt 0 ] || fail "dpkg lists no files of the package"

# The desktop metadata, as installed.
appstreamcli validate --no-net /usr/share/metainfo/org.kestrelbound.Kestrelbound.metainfo.xml ||
    fail "appstreamcli finds the metainfo invalid"
desktop-file-validate /usr/share/applications/kestrelbound.desktop >&2 ||
    fail "desktop-file-validate finds the menu entry invalid"

# The installed programs, by their installed paths: a copy under /usr/local
# must not stand in for them. The window starts on plain files for ports,
# finds no adapter, and pictures itself.
station="$work/station"
mkdir -p "$station"
for port in COM1 COM2 COM3 COM4; do
    : >"$station/$port"
done
(cd "$station" && KESTRELBOUND_LOCK_DIR="$station" QT_QPA_PLATFORM=offscreen \
    timeout 120 /usr/bin/kestrelbound --screenshot "$work/window.png" 2>"$work/window.log") || {
    cat "$work/window.log" >&2
    fail "the installed kestrelbound did not picture its window"
}
[ -s "$work/window.png" ] || fail "the window's picture is empty"
echo "package: the installed window pictured itself in $(stat -c %s "$work/window.png") bytes" >&2
if [ -n "${KB_PACKAGE_PICTURE:-}" ]; then
    cp "$work/window.png" "$KB_PACKAGE_PICTURE"
fi
# Read whole before looking into: a reader that stops at its match would
# break the writer's pipe and fail the pipeline.
help=$(/usr/bin/virtual-ta --help) || fail "the installed virtual-ta --help failed"
grep -q '^Usage: virtual-ta' <<<"$help" || fail "the installed virtual-ta --help shows no usage"
page=$(man -w kbstation) || fail "man finds no page for kbstation"
[ "$page" = /usr/share/man/man1/kbstation.1.gz ] || fail "man finds kbstation's page at $page"
shown=$(man kbstation 2>/dev/null) || fail "man cannot show kbstation's page"
grep -q 'kbstation - Kestrelbound without a window' <<<"$shown" ||
    fail "man does not show kbstation's page"
# The adapters' service runs the installed program, not the build's.
grep -qx 'ExecStart=/usr/bin/virtual-ta --config %h/.config/kestrelbound/line.conf' \
    /usr/lib/systemd/user/kestrelbound-line.service ||
    fail "the installed service does not run /usr/bin/virtual-ta"

$sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -y kestrelbound >"$work/purge.log" 2>&1 || {
    cat "$work/purge.log" >&2
    fail "apt-get purge failed"
}
# Whatever is still there must belong to another package (/usr/share/icons,
# say); anything else was left behind.
left=0
for path in "${installed[@]}"; do
    if [ -e "$path" ] && ! dpkg -S "$path" >/dev/null 2>&1; then
        echo "package: left behind after purge: $path" >&2
        left=1
    fi
done
[ "$left" -eq 0 ] || fail "the purge left files behind"
echo "package: built, lintian-clean, installed, used and purged without a trace" >&2
