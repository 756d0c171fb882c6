# Starts munged, slurmctld and slurmd for one test or benchmark in a temporary folder: one node
# with this machine's CPUs, ports of its own, no accounting. Sourced; the caller sets `quillo`.
# The daemons are stopped by their process ids and the folder removed when the caller exits;
# where they cannot run, `skip` exits 77 with the reason.
readonly SKIP=77 WAIT_SECONDS=${WAIT_SECONDS:-240}

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


install_if_missing
