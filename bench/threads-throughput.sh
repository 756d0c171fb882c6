#!/usr/bin/env bash
# Wall time of `quillo run` on one input with --threads 1 and --threads N (default 2), in
# gaussian and fast mode, saving included; the speed-up, the peak memory of each run, and a
# byte comparison of the outputs (every thread count must write the same files). Run it on an
# otherwise idle machine: the ratio only means something when the cores are free.
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

# The module's own speed, without the refinement (on by default in newer builds), so that
# figures compare with those of earlier builds.
no_refine=()
"$quillo" run --help | grep -q -- --no-refine && no_refine=(--no-refine)

run() {  # run MODE THREADS: prints "wall-s cpu-s peak-MiB"; outputs go to $tmp/MODE-THREADS
  local out="$tmp/$1-$2" start end
  mkdir -p "$out"
  start=$(date +%s.%N)
  /usr/bin/time -f "%M %U %S" -o "$out.time" "$quillo" run "$input" --mode "$1" --threads "$2" \
    "${no_refine[@]}" --quiet --verbose --out-dir "$out" >/dev/null 2>"$out.err" || { cat "$out.err" >&2; exit 1; }
  end=$(date +%s.%N)
  read -r kib user sys <"$out.time"
  awk -v s="$start" -v e="$end" -v k="$kib" -v u="$user" -v y="$sys" \
    'BEGIN { printf "%.1f %.1f %.0f", e - s, u + y, k / 1024 }'
}

same_outputs() {  # same_outputs MODE: "identical" when every output of both runs matches
  local f
  for f in "$tmp/$1-1"/*.kq; do
    cmp -s "$f" "$tmp/$1-$threads/$(basename "$f")" || { echo "DIFFERENT ($(basename "$f"))"; return; }
  done
  echo identical
}

printf 'input %s, %d CPUs, threads 1 and %d, load average %s\n' "$(basename "$input")" "$(nproc)" \
  "$threads" "$(cut -d' ' -f1 /proc/loadavg)"
printf '%-9s %8s %8s %6s %8s %8s %8s %8s  %s\n' mode "wall 1" "wall $threads" ratio "cpu 1" \
  "cpu $threads" "MiB 1" "MiB $threads" outputs
for mode in gaussian fast; do
  read -r one one_cpu one_mem <<<"$(run "$mode" 1)"
  read -r many many_cpu many_mem <<<"$(run "$mode" "$threads")"
  printf '%-9s %8s %8s %6.2f %8s %8s %8s %8s  %s\n' "$mode" "$one" "$many" \
    "$(awk -v a="$one" -v b="$many" 'BEGIN { print a / b }')" "$one_cpu" "$many_cpu" \
    "$one_mem" "$many_mem" "$(same_outputs "$mode")"
done
echo "(wall and cpu in seconds, cpu = user + system of all threads; MiB = peak resident memory)"
for mode in gaussian fast; do  # the input check, and how the N-thread runs shared the work
  for n in 1 "$threads"; do
    printf '%s, %s thread(s): %s\n' "$mode" "$n" "$(grep -o 'checked in.*' "$tmp/$mode-$n.err" || true)"
  done
  printf '%s: %s\n' "$mode" "$(grep -o '[0-9]* threads:.*' "$tmp/$mode-$threads.err" || true)"
done
