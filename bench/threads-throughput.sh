#!/usr/bin/env bash
# Wall time of `quillo run` on one input with --threads 1 and --threads N (default 2), in
# gaussian and fast mode, saving included; the speed-up, the peak memory of each run, and a
# byte comparison of the outputs (every thread count must write the same files).
# Usage: bench/threads-throughput.sh QUILLO [INPUT.kq] [N]
#   without INPUT, the demo survey is simulated into a temporary folder first.
set -euo pipefail
quillo=$(realpath "$1")
threads=${3:-2}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
if [ -n "${2:-}" ]; then
  input=$(realpath "$2")
else
  input="$tmp/survey_210315_093000.kq"
  "$quillo" simulate --preset demo --quiet "$input" >/dev/null
fi

run() {  # run MODE THREADS: prints "seconds peak-MiB"; outputs land in $tmp/MODE-THREADS
  local out="$tmp/$1-$2" start end
  mkdir -p "$out"
  start=$(date +%s.%N)
  /usr/bin/time -f %M -o "$out.mem" "$quillo" run "$input" --mode "$1" --threads "$2" \
    --quiet --out-dir "$out" >/dev/null
  end=$(date +%s.%N)
  awk -v s="$start" -v e="$end" -v k="$(cat "$out.mem")" 'BEGIN { printf "%.1f %.0f", e - s, k / 1024 }'
}

same_outputs() {  # same_outputs MODE: "identical" when every output of both runs matches
  local f
  for f in "$tmp/$1-1"/*.kq; do
    cmp -s "$f" "$tmp/$1-$threads/$(basename "$f")" || { echo "DIFFERENT ($(basename "$f"))"; return; }
  done
  echo identical
}

printf 'input %s, %d CPUs, threads 1 and %d\n' "$(basename "$input")" "$(nproc)" "$threads"
printf '%-9s %12s %12s %8s %14s %14s  %s\n' mode "1 thread s" "$threads threads s" ratio \
  "1 thread MiB" "$threads threads MiB" outputs
for mode in gaussian fast; do
  read -r one one_mem <<<"$(run "$mode" 1)"
  read -r many many_mem <<<"$(run "$mode" "$threads")"
  printf '%-9s %12s %12s %8.2f %14s %14s  %s\n' "$mode" "$one" "$many" \
    "$(awk -v a="$one" -v b="$many" 'BEGIN { print a / b }')" "$one_mem" "$many_mem" \
    "$(same_outputs "$mode")"
done
