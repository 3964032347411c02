#!/usr/bin/env bash
# Runs each libFuzzer harness of a fuzz build for a while, starting from its seeds.
set -euo pipefail
BUILD=${1:-build/fuzz}
SECONDS_EACH=${2:-60}
for f in "$BUILD"/tests/fuzz_*; do
  [ -x "$f" ] || continue
  name=$(basename "$f"); corpus="tests/fuzz/corpus/${name#fuzz_}"
  work="$BUILD/fuzz-corpus/${name#fuzz_}"; mkdir -p "$work"
  if [ "$SECONDS_EACH" = 0 ]; then
    # Seeds only: run each input once.
    "$f" -runs=0 "$corpus"
  else
    echo "== $name ($SECONDS_EACH s)"
    "$f" -max_total_time="$SECONDS_EACH" -max_len=65536 "$work" "$corpus"
  fi
done
