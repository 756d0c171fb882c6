#!/usr/bin/env bash
# Runs every fuzz target of a build folder for FUZZ_SECONDS each, one after another, from a
# scratch copy of its seed corpus (the repository's corpus is left as it is), then lists
# what was found. Usage: fuzz/run-fuzzers.sh BUILD_DIR [target...]
# Exit status 1 when any target left a crash, timeout or out-of-memory input.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: run-fuzzers.sh BUILD_DIR [target...]}
shift
seconds=${FUZZ_SECONDS:-60}
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for program in "$build"/fuzz/fuzz_*; do targets+=("$(basename "$program" | sed 's/^fuzz_//')"); done
fi
work=$build/fuzz-work
export LSAN_OPTIONS="suppressions=$here/lsan.supp:print_suppressions=0${LSAN_OPTIONS:+:$LSAN_OPTIONS}"
found=0
for target in "${targets[@]}"; do
  program=$build/fuzz/fuzz_$target
  [ -x "$program" ] || { echo "fuzz: $program is missing" >&2; found=1; continue; }
  mkdir -p "$work/$target/corpus" "$work/$target/artifacts"
  cp -n "$here/corpus/$target"/* "$work/$target/corpus/" 2>/dev/null
  echo "fuzz: $target for ${seconds} s"
  "$program" "$work/$target/corpus" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len=131072 -print_final_stats=1 -artifact_prefix="$work/$target/artifacts/" \
    >"$work/$target/log" 2>&1
  grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$work/$target/log" | sed 's/^/  /'
  artifacts=$(find "$work/$target/artifacts" -type f | sort)
  if [ -n "$artifacts" ]; then
    found=1
    echo "  FOUND (log: $work/$target/log):"
    echo "$artifacts" | sed 's/^/    /'
  fi
done
[ $found -eq 0 ] && echo "fuzz: nothing found" || echo "fuzz: see the inputs above"
exit $found
