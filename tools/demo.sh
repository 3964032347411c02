#!/usr/bin/env bash
# The demo: a whole recovery of the bundled sample drive, made by our image
# builder into the build folder. Everything is only read from the drive image.
set -euo pipefail
BUILD=${1:-build/release}
CLI="$BUILD/app/cli/ambrel-cli"
MKIMAGE="$BUILD/tools/mkimage/ambrel-mkimage"
OUT="$BUILD/demo"
rm -rf "$OUT"
mkdir -p "$OUT"
step() { printf '\n== %s\n' "$*"; }

# GPT; a journaled HFS+ volume with documents, photos, music, a file with a
# resource fork and fragmented files, some files deleted (kept only in the
# journal's old catalog nodes) and some only as data in free space; and a
# second, HFSX volume.
step "The sample drive"
"$MKIMAGE" --demo -o "$OUT/demo-drive.img" --layout "$OUT/demo-drive.layout.json"
"$CLI" info "$OUT/demo-drive.img"

step "Volumes in its partition table"
"$CLI" partitions "$OUT/demo-drive.img"

step "The same drive with its partition table wiped: searching it for volumes"
cp --sparse=always "$OUT/demo-drive.img" "$OUT/wiped-drive.img"
dd if=/dev/zero of="$OUT/wiped-drive.img" bs=512 count=34 conv=notrunc status=none
"$CLI" info "$OUT/wiped-drive.img"
"$CLI" find-volumes --quick "$OUT/wiped-drive.img" 2>/dev/null
read -r start sectors < <("$CLI" find-volumes --quick --json "$OUT/wiped-drive.img" 2>/dev/null |
  python3 -c 'import json,sys; v=json.load(sys.stdin)[0]; print(v["Volume Start"], v["Volume Size In Sectors"])')
echo "Scanning the first volume found (sectors $start to $((start + sectors))):"
"$CLI" tree --start "$start" --sectors "$sectors" "$OUT/wiped-drive.img" 2>/dev/null | tail -n +2 | cut -f1 | head -5
echo "..."

step "Standard scan of volume 1 (the tree listing, first columns)"
"$CLI" tree --volume 1 "$OUT/demo-drive.img" --save-scan-info "$OUT/macintosh-hd.asi" 2>/dev/null | cut -f1,2,5

step "Advanced scan: catalog nodes found anywhere, deleted entries included"
"$CLI" tree --volume 1 --advanced "$OUT/demo-drive.img" 2>/dev/null | cut -f1,2,5 | grep -E 'Lost|Tax|Draft' || true

step "Deleted files by name: the old catalog nodes kept in the journal"
"$CLI" deleted --volume 1 "$OUT/demo-drive.img" 2>/dev/null | cut -f1,2,5,13
"$CLI" deleted --volume 1 "$OUT/demo-drive.img" --out "$OUT/deleted" 2>/dev/null | head -n 1
(cd "$OUT/deleted" && find . -type f -path '*Tax*' -o -type f -path '*Party*' -o -type f -name 'Draft*' | sort)

step "The scan info file kept from the standard scan"
"$CLI" scaninfo "$OUT/macintosh-hd.asi"

step "Recovering the photos and documents from the scan info file"
"$CLI" recover "$OUT/macintosh-hd.asi" --out "$OUT/recovered" --select '/Root/Photos*' --select '/Root/Documents*'
(cd "$OUT/recovered" && find . -type f | sort)

step "Recovering everything from the drive, then checking it byte for byte"
"$CLI" recover --volume 1 "$OUT/demo-drive.img" --out "$OUT/recovered-all" 2>/dev/null
if command -v icat >/dev/null; then
  checked=0
  while IFS=$'\t' read -r path type id _; do
    [ "$type" = file ] || continue
    rel=${path#/}
    [ -f "$OUT/recovered-all/$rel" ] || continue
    cmp -s <(icat -o 2048 "$OUT/demo-drive.img" "$id") "$OUT/recovered-all/$rel" || { echo "DIFFERS: $rel"; exit 1; }
    checked=$((checked + 1))
  done < <("$CLI" tree --volume 1 "$OUT/demo-drive.img" 2>/dev/null | tail -n +2)
  echo "$checked recovered files are identical to what The Sleuth Kit's icat reads."
fi
echo
echo "Demo files are in $OUT."

step "The desktop application"
GUI="$BUILD/app/qt/ambrel"
if [ ! -x "$GUI" ]; then
  echo "Not built (GUI=OFF). Build it with: make build GUI=ON"
elif [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  echo "Opening the sample drive in $GUI (the drive is selected on the first page: press Next)."
  "$GUI" "$OUT/demo-drive.img" >/dev/null 2>&1 &
else
  echo "No display here. On a desktop, open the sample drive in the application with:"
  echo "  $GUI $OUT/demo-drive.img"
  echo "or open its scan info file, which brings the tree back without scanning:"
  echo "  $GUI $OUT/macintosh-hd.asi"
fi
