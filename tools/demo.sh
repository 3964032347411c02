#!/usr/bin/env bash
# The demo: what the program can do today, run on real images.
set -euo pipefail
BUILD=${1:-build/release}
CLI="$BUILD/app/cli/ambrel-cli"
OUT="$BUILD/demo"
mkdir -p "$OUT"

echo "== Tarnwell Ambrel demo =="
# A small GPT drive made by sgdisk, and an Apple partition map made by xorriso.
truncate -s 8M "$OUT/gpt-drive.img"
sgdisk --clear --new=1:2048:+4M --typecode=1:AF00 "$OUT/gpt-drive.img" >/dev/null
echo "-- $OUT/gpt-drive.img"
"$CLI" info "$OUT/gpt-drive.img"
mkdir -p "$OUT/tree/Documents"
echo "hello from a Mac volume" > "$OUT/tree/Documents/readme.txt"
xorriso -as mkisofs -quiet -hfsplus -o "$OUT/apm-drive.iso" "$OUT/tree" 2>/dev/null
echo "-- $OUT/apm-drive.iso"
"$CLI" info "$OUT/apm-drive.iso"

# The sample drive of our own image builder: GPT, a journaled HFS+ volume with
# a small tree (some files deleted and kept only in the journal's old catalog
# nodes, some only as data in free space) and a second, HFSX volume.
"$BUILD/tools/mkimage/ambrel-mkimage" --demo -o "$OUT/demo-drive.img" --layout "$OUT/demo-drive.layout.json"
echo "-- $OUT/demo-drive.img"
"$CLI" info "$OUT/demo-drive.img"
"$CLI" partitions "$OUT/demo-drive.img"
