#!/usr/bin/env bash
# Strips per hour of `quillo batch` on this machine: `batch local --jobs 1` and `--jobs 2`, and
# the same plan as a job array through Slurm daemons started here (as in the `cluster` test),
# then Slurm's overhead per task against `batch local` at the same parallelism.
# Usage: bench/batch-throughput.sh QUILLO [STRIPS] [SHOTS_PER_STRIP]
set -euo pipefail
quillo=$(realpath "$1")
strips=${2:-8}
shots=${3:-100000}
WAIT_SECONDS=3600
source "$(dirname "$0")/../tests/cluster/slurm-daemons.sh"

seconds_of() {  # seconds_of COMMAND...: wall time of the command
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null
  end=$(date +%s.%N)
  awk "BEGIN { print $end - $start }"
}

per_hour() { awk "BEGIN { printf \"%.0f\", $strips * 3600 / $1 }"; }

plan() { "$quillo" batch plan "$tmp"/strips/*.kq --out-dir "$tmp/$1" >/dev/null; }

slurm_run() {
  local job
  job=$("$quillo" batch slurm "$tmp/slurm/plan.json" --mem 1G --max-parallel 2 --submit | job_of)
  wait_job "$job"
}

mkdir -p "$tmp/strips"
"$quillo" simulate --preset tiny --shots $((strips * shots)) --fragment-shots 20000 \
  --lines "$strips" --split-lines --quiet "$tmp/strips/b_210315_093000.kq" >/dev/null
start_munge
write_slurm_conf
start_slurm
plan one && plan two && plan slurm
one=$(seconds_of "$quillo" batch local "$tmp/one/plan.json" --jobs 1 --quiet)
two=$(seconds_of "$quillo" batch local "$tmp/two/plan.json" --jobs 2 --quiet)
through_slurm=$(seconds_of slurm_run)
"$quillo" batch status "$tmp/slurm/plan.json" | tail -n 1
printf '%d strips of %d shots, %d CPUs\n' "$strips" "$shots" "$(nproc)"
printf 'batch local --jobs 1   %6.1f s  %6s strips/hour\n' "$one" "$(per_hour "$one")"
printf 'batch local --jobs 2   %6.1f s  %6s strips/hour\n' "$two" "$(per_hour "$two")"
printf 'Slurm, 2 at a time     %6.1f s  %6s strips/hour\n' "$through_slurm" \
  "$(per_hour "$through_slurm")"
printf 'Slurm overhead per task (2 at a time): %.2f s\n' \
  "$(awk "BEGIN { print ($through_slurm - $two) * 2 / $strips }")"
