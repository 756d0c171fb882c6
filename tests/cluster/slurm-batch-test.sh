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
readonly SKIP=77 WAIT_SECONDS=240

skip() { echo "SKIPPED: $*"; exit "$SKIP"; }
fail() { echo "FAILED: $*"; exit 1; }

install_if_missing() {
  command -v slurmctld >/dev/null && command -v slurmd >/dev/null && command -v munged >/dev/null &&
    return 0
  [ "$(id -u)" -eq 0 ] || skip "slurm-wlm and munge are not installed and this user cannot install them"
  echo "installing slurm-wlm and munge"
  timeout 600 apt-get install -y -qq --no-install-recommends slurm-wlm munge >/dev/null 2>&1 ||
    { timeout 600 apt-get update -qq && timeout 600 apt-get install -y -qq \
      --no-install-recommends slurm-wlm munge >/dev/null 2>&1; } ||
    skip "slurm-wlm and munge could not be installed with apt-get"
}
install_if_missing

tmp=$(mktemp -d /tmp/quillo-cluster.XXXXXX)
chmod 755 "$tmp"
pids=()
cleanup() {
  local status=$?
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
  done
  if [ "$status" -ne 0 ] && [ "$status" -ne "$SKIP" ]; then
    for log in "$tmp"/*.log; do [ -f "$log" ] && { echo "== $log"; tail -n 20 "$log"; }; done
  fi
  rm -rf "$tmp"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

free_port() {  # a TCP port nothing listens on
  local port
  for _ in $(seq 100); do
    port=$((20000 + RANDOM % 20000))
    ss -ltn 2>/dev/null | grep -q ":$port " || { echo "$port"; return; }
  done
  skip "no free TCP port found"
}

# Waits up to WAIT_SECONDS for a shell condition.
wait_for() {
  local what=$1 deadline=$((SECONDS + WAIT_SECONDS))
  shift
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$deadline" ] || fail "timed out after ${WAIT_SECONDS}s waiting for $what"
    sleep 0.5
  done
}

start_munge() {
  dd if=/dev/urandom of="$tmp/munge.key" bs=1024 count=1 status=none
  chmod 400 "$tmp/munge.key"
  munged -F --force --key-file="$tmp/munge.key" --socket="$tmp/munge.sock" \
    --pid-file="$tmp/munged.pid" --log-file="$tmp/munged.log" --seed-file="$tmp/munge.seed" \
    >"$tmp/munged.out.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 50); do [ -S "$tmp/munge.sock" ] && return; sleep 0.1; done
  skip "munged does not start here: $(tail -n 3 "$tmp/munged.out.log" "$tmp/munged.log" 2>/dev/null | tr '\n' ' ')"
}

write_slurm_conf() {
  local node user cpus memory
  node=$(hostname -s)
  user=$(id -un)
  cpus=$(nproc)
  memory=$(awk '/MemTotal/ {print int($2 / 1024 * 0.9)}' /proc/meminfo)
  mkdir -p "$tmp/state" "$tmp/spool"
  cat >"$tmp/slurm.conf" <<CONF
ClusterName=quillotest
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$(free_port)
SlurmdPort=$(free_port)
SlurmUser=$user
SlurmdUser=$user
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$tmp/munge.sock
StateSaveLocation=$tmp/state
SlurmdSpoolDir=$tmp/spool
SlurmctldPidFile=$tmp/slurmctld.pid
SlurmdPidFile=$tmp/slurmd.pid
SlurmctldLogFile=$tmp/slurmctld.log
SlurmdLogFile=$tmp/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MpiDefault=none
ReturnToService=2
NodeName=$node NodeAddr=127.0.0.1 CPUs=$cpus RealMemory=$memory State=UNKNOWN
PartitionName=quillo Nodes=$node Default=YES MaxTime=INFINITE State=UP
CONF
  export SLURM_CONF=$tmp/slurm.conf
}

node_idle() { sinfo -h -o '%t' | grep -Eq '^(idle|mix|alloc)'; }

start_slurm() {
  slurmctld -D -i -f "$SLURM_CONF" >"$tmp/slurmctld.out.log" 2>&1 &
  pids+=($!)
  slurmd -D -f "$SLURM_CONF" >"$tmp/slurmd.out.log" 2>&1 &
  pids+=($!)
  local deadline=$((SECONDS + 60))
  until node_idle 2>/dev/null; do
    for pid in "${pids[@]}"; do
      kill -0 "$pid" 2>/dev/null ||
        skip "a Slurm daemon does not run here: $(tail -n 3 "$tmp"/slurm*.log 2>/dev/null | tr '\n' ' ')"
    done
    [ "$SECONDS" -lt "$deadline" ] ||
      skip "the Slurm node did not come up within 60 s: $(sinfo 2>&1 | tr '\n' ' ')"
    sleep 0.5
  done
}

# Waits until the queue lists no task of the job.
job_gone() { [ -z "$(squeue -h -j "$1" 2>/dev/null)" ]; }
wait_job() { wait_for "job $1 to leave the queue" job_gone "$1"; }

job_of() { sed -n 's/^submitted job \([0-9]*\)$/\1/p; s/^resubmitted .* as job \([0-9]*\)$/\1/p'; }

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
