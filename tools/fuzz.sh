#!/usr/bin/env bash
# Runs each libFuzzer harness of a fuzz build for a while (the second argument,
# else FUZZ_SECONDS, else 600 s), starting from its seeds; 0 replays the seeds.
# A harness may keep extra libFuzzer flags (a smaller -max_len, say) in
# tests/fuzz/<harness>.flags; they come after the defaults and win over them.
set -euo pipefail
BUILD=${1:-build/fuzz}
SECONDS_EACH=${2:-${FUZZ_SECONDS:-600}}

# The harnesses are built with -fno-sanitize-recover=all so that undefined
# behaviour ends a run the way an ASan finding does; make sure it still does.
check="$BUILD/tests/ubsan_finding_stops_the_run"
if [ -x "$check" ]; then
  set +e
  out=$("$check" 2>&1)
  rc=$?
  set -e
  if [ $rc -eq 0 ] || ! grep -q "runtime error" <<<"$out" || grep -q "went on" <<<"$out"; then
    echo "fuzz build: an UndefinedBehaviorSanitizer finding does not stop the run (exit $rc):"
    echo "$out"
    exit 1
  fi
fi

for f in "$BUILD"/tests/fuzz_*; do
  [ -x "$f" ] || continue
  name=$(basename "$f"); corpus="tests/fuzz/corpus/${name#fuzz_}"
  work="$BUILD/fuzz-corpus/${name#fuzz_}"; mkdir -p "$work"
  flags=()
  [ -f "tests/fuzz/$name.flags" ] && read -r -a flags < "tests/fuzz/$name.flags"
  if [ "$SECONDS_EACH" = 0 ]; then
    # Seeds only: run each input once.
    "$f" -runs=0 "$corpus"
  else
    echo "== $name ($SECONDS_EACH s)"
    # -timeout: an input that runs away is a finding, not a stall of the run.
    "$f" -max_total_time="$SECONDS_EACH" -max_len=65536 -timeout=10 ${flags[@]+"${flags[@]}"} "$work" "$corpus"
  fi
done
