#!/usr/bin/env bash
# Screenshots of every page of the desktop application, for the README: the
# GUI tests walk the pages under a virtual X server and save each one.
# Usage: tools/screenshots.sh [BUILD_DIR] [OUT_DIR]   (needs xvfb-run: make deps)
set -euo pipefail
BUILD=${1:-build/release}
OUT=${2:-docs/screenshots}
command -v xvfb-run >/dev/null || { echo "xvfb-run is missing: apt-get install xvfb xauth" >&2; exit 1; }
cmake --build "$BUILD" --target test_qt
mkdir -p "$OUT"
rm -f "$OUT"/*.png
OUT_ABS=$(cd "$OUT" && pwd)
# The X platform plugin loads libdbus, whose caches the leak checker of a
# sanitized build would report.
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0} AMBREL_SCREENSHOTS="$OUT_ABS" QT_QPA_PLATFORM=xcb \
  xvfb-run -a -s "-screen 0 1280x900x24" "$BUILD/tests/qt/test_qt" >/dev/null
ls "$OUT_ABS"/*.png
