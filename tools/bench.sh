#!/usr/bin/env bash
# Runs every benchmark program of a bench build; each prints its own figures.
set -euo pipefail
BUILD=${1:-build/bench}
export AMBREL_BENCH_DIR=${AMBREL_BENCH_DIR:-$BUILD/bench-data}
mkdir -p "$AMBREL_BENCH_DIR"
status=0
for b in "$BUILD"/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" || status=1
done
exit $status
