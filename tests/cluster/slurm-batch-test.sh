#!/usr/bin/env bash
# `quillo batch` through a real Slurm: starts munged, slurmctld and slurmd in a temporary folder
# (one node with this machine's CPUs, ports of its own), runs a plan of 4 small strips as a job
# array and checks that its outputs are byte-identical to `batch local`'s; then a plan in which
# one task is cancelled mid-run and one input is unreadable: status and report name both,
# `status --resubmit` completes the cancelled one. Skipped (exit 77, with the reason) where the
# daemons cannot run. The daemons are stopped by their process ids and the folder is removed
# also when a check fails.
set -euo pipefail
quillo=$(realpath "$1")
source "$(dirname "$0")/slurm-daemons.sh"
trap 'echo "FAILED at line $LINENO: $BASH_COMMAND"' ERR

expect() {  # expect TEXT FILE: the file (a command's output) contains the text
  grep -qF -- "$1" "$2" || { cat "$2"; fail "expected \"$1\" in the output above"; }
}

make_strips() {
  mkdir -p "$tmp/strips" "$tmp/other"
  timeout 300 "$quillo" simulate --preset tiny --shots 24000 --fragment-shots 3000 --lines 4 \
    --split-lines --quiet "$tmp/strips/s_210315_093000.kq" >/dev/null
  timeout 300 "$quillo" simulate --preset tiny --shots 400000 --fragment-shots 20000 --quiet \
    "$tmp/other/long_210315_100000.kq" >/dev/null
  cp "$tmp/strips/s_210315_093000_line0.kq" "$tmp/other/bad_210315_093000.kq"
}

same_outputs_as_local() {
  local plan_local=$tmp/local/plan.json plan_slurm=$tmp/slurm/plan.json job
  timeout 300 "$quillo" batch plan "$tmp"/strips/*.kq --out-dir "$tmp/local" >/dev/null
  timeout 300 "$quillo" batch plan "$tmp"/strips/*.kq --out-dir "$tmp/slurm" >/dev/null
  timeout 600 "$quillo" batch local "$plan_local" --jobs 2 --quiet >/dev/null
  job=$(timeout 60 "$quillo" batch slurm "$plan_slurm" --mem 1G --max-parallel 2 --submit | job_of)
  [ -n "$job" ] || fail "batch slurm --submit printed no job id"
  wait_job "$job"
  timeout 60 "$quillo" batch status "$plan_slurm" >"$tmp/status.out"
  expect "4 tasks: 4 done, 0 failed, 0 running, 0 missing" "$tmp/status.out"
  local count=0
  for output in "$tmp"/local/*.kq; do
    cmp -s "$output" "$tmp/slurm/$(basename "$output")" ||
      fail "$(basename "$output") differs between batch local and Slurm"
    count=$((count + 1))
  done
  [ "$count" -eq 8 ] || fail "expected 8 outputs of 4 strips, found $count"
  echo "ok: the Slurm outputs are byte-identical to batch local's ($count files)"
}

long_task_running() {
  squeue -h -j "$1_0" -o '%T' | grep -q RUNNING && grep -q '"running"' "$2"
}

cancelled_and_failed_tasks() {
  local plan=$tmp/mixed/plan.json job report
  timeout 300 "$quillo" batch plan "$tmp/other/long_210315_100000.kq" \
    "$tmp/other/bad_210315_093000.kq" "$tmp/strips/s_210315_093000_line1.kq" \
    --out-dir "$tmp/mixed" >/dev/null
  head -c 4096 /dev/urandom >"$tmp/other/bad_210315_093000.kq"  # unreadable since planned
  job=$(timeout 60 "$quillo" batch slurm "$plan" --mem 1G --submit | job_of)
  report=$tmp/mixed/long_210315_100000.task.json
  wait_for "task 0 to run" long_task_running "$job" "$report"
  sleep 1
  scancel "${job}_0"
  wait_job "$job"
  for output in "$tmp"/mixed/long_210315_100000_*.kq; do
    [ -e "$output" ] || continue
    timeout 60 "$quillo" verify --compare-fragments "$output" >/dev/null ||
      fail "the cancelled task left a broken output: $output"
  done
  timeout 60 "$quillo" batch status "$plan" >"$tmp/status.out"
  expect "task 0 missing long_210315_100000.kq: started" "$tmp/status.out"
  expect "task 1 failed bad_210315_093000.kq: " "$tmp/status.out"
  expect "cannot be read" "$tmp/status.out"
  expect "task 2 done" "$tmp/status.out"
  timeout 60 "$quillo" batch report "$plan" >"$tmp/report.out"
  expect "failed: task 1 $tmp/other/bad_210315_093000.kq: " "$tmp/report.out"
  expect "cannot be read" "$tmp/report.out"
  echo "ok: status and report name the cancelled and the failed task"
  timeout 60 "$quillo" batch status "$plan" --resubmit >"$tmp/resubmit.out"
  expect "resubmitted tasks 0-1 as job" "$tmp/resubmit.out"
  wait_job "$(job_of <"$tmp/resubmit.out")"
  timeout 60 "$quillo" batch status "$plan" >"$tmp/status.out"
  expect "3 tasks: 2 done, 1 failed, 0 running, 0 missing" "$tmp/status.out"
  for output in "$tmp"/mixed/long_210315_100000_*.kq; do
    timeout 60 "$quillo" verify --compare-fragments "$output" >/dev/null
  done
  echo "ok: status --resubmit completed the cancelled task"
}

start_munge
write_slurm_conf
start_slurm
make_strips
same_outputs_as_local
cancelled_and_failed_tasks
echo "PASSED"
