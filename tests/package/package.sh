#!/usr/bin/env bash
# The Debian package made from this build: it holds the executable, its desktop entry, icon
# and documentation, depends on the libraries the executable links and on the overlay's font,
# and the executable it installs records a movie.
# Usage: package.sh BUILD_FOLDER
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
check() {
    local what=$1; shift
    if "$@"; then echo "PASS: $what"; else echo "FAIL: $what"; failures=$((failures + 1)); fi
}

cpack --config "$1/CPackConfig.cmake" -B "$work" >"$work/cpack.out" 2>&1 ||
    { cat "$work/cpack.out"; exit 1; }
deb=$(find "$work" -maxdepth 1 -name 'orvane_*.deb')
depends=$(dpkg-deb -f "$deb" Depends)
for needed in fonts-dejavu-core libqt6gui6 libavformat libturbojpeg0; do
    check "depends on $needed" grep -qF "$needed" <<<"$depends"
done
dpkg-deb -x "$deb" "$work/root"
for file in bin/orvane share/applications/orvane.desktop share/doc/orvane/README.md \
    "share/icons/hicolor/scalable/apps/$(sed -n 's/^Icon=//p' "$work/root/usr/share/applications/orvane.desktop").svg"; do
    check "/usr/$file" test -s "$work/root/usr/$file"
done
check "the desktop entry starts orvane" grep -qx "Exec=orvane" \
    "$work/root/usr/share/applications/orvane.desktop"

export HOME=$work/home QT_QPA_PLATFORM=offscreen
"$work/root/usr/bin/orvane" test-recording --seconds 1 --size 320x180 --out "$work/movies" \
    >/dev/null 2>&1 || true
movie=$(find "$work/movies" -name '*.mov' 2>/dev/null | head -1)
frames=$(ffprobe -v error -select_streams v:0 -count_packets -show_entries \
    stream=nb_read_packets -of csv=p=0 "$movie" 2>/dev/null || echo 0)
check "the installed orvane records ($frames frames)" [ "${frames:-0}" -ge 25 ]
[ $failures -eq 0 ] && echo "package: all checks passed" || { echo "package: $failures failed"; exit 1; }
