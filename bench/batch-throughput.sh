#!/usr/bin/env bash
# Strips per hour of `quillo batch` on this machine: `batch local --jobs 1` and `--jobs 2`, and
# the same plan as a job array through Slurm daemons started here (as in the `cluster` test);
# then Slurm's overhead per task: strips so short (2000 shots) that the run itself hardly
# counts, through Slurm and through `batch local`, both 2 at a time.
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

# Without the refinement (on by default in newer builds), as earlier figures were measured.
no_refine=()
"$quillo" batch plan --help | grep -q -- --no-refine && no_refine=(--no-refine)
plan() { "$quillo" batch plan "$tmp/$1"/*.kq --out-dir "$tmp/$2" "${no_refine[@]}" >/dev/null; }

slurm_run() {
  local job
  job=$("$quillo" batch slurm "$tmp/$1/plan.json" --mem 1G --max-parallel 2 --submit | job_of)
  wait_job "$job"
  "$quillo" batch status "$tmp/$1/plan.json" | grep -q "0 failed, 0 running, 0 missing" ||
    fail "not every Slurm task is done"
}

simulate_strips() {  # folder shots-per-strip
  mkdir -p "$tmp/$1"
  "$quillo" simulate --preset tiny --shots $((strips * $2)) --fragment-shots 20000 \
    --lines "$strips" --split-lines --quiet "$tmp/$1/b_210315_093000.kq" >/dev/null
}

simulate_strips strips "$shots"
simulate_strips short 2000
start_munge
write_slurm_conf
start_slurm
plan strips one && plan strips two && plan strips slurm
plan short short-local && plan short short-slurm
one=$(seconds_of "$quillo" batch local "$tmp/one/plan.json" --jobs 1 --quiet)
two=$(seconds_of "$quillo" batch local "$tmp/two/plan.json" --jobs 2 --quiet)
through_slurm=$(seconds_of slurm_run slurm)
short_local=$(seconds_of "$quillo" batch local "$tmp/short-local/plan.json" --jobs 2 --quiet)
short_slurm=$(seconds_of slurm_run short-slurm)
printf '%d strips of %d shots, %d CPUs\n' "$strips" "$shots" "$(nproc)"
printf 'batch local --jobs 1   %6.1f s  %6s strips/hour\n' "$one" "$(per_hour "$one")"
printf 'batch local --jobs 2   %6.1f s  %6s strips/hour\n' "$two" "$(per_hour "$two")"
printf 'Slurm, 2 at a time     %6.1f s  %6s strips/hour\n' "$through_slurm" \
  "$(per_hour "$through_slurm")"
printf 'short strips, 2 at a time: batch local %.1f s, Slurm %.1f s\n' "$short_local" "$short_slurm"
printf 'Slurm overhead per task: %.2f s\n' \
  "$(awk "BEGIN { print ($short_slurm - $short_local) * 2 / $strips }")"
printf 'peak memory per task: %s MiB\n' \
  "$(grep -h '"peak_memory_mib"' "$tmp"/two/*.task.json | tr -dc '0-9.\n' | sort -n | tail -n 1)"
uptime
