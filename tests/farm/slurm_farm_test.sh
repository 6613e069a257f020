#!/usr/bin/env bash
# Brings up a one-node Slurm cluster on 127.0.0.1 (munged, slurmctld, slurmd,
# all state under a temporary folder), renders 12 frames in 4 array tasks
# with kindlet-farm from an installed root and the recording renderer, kills
# one task's kindlet, and checks that its chunk was resubmitted and that every
# frame rendered exactly once. Every daemon it started is stopped on the way
# out, whatever happens. Exit 77 (skipped) only when the cluster can't start.
#   slurm_farm_test.sh ROOT
set -u
root=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; [ -n "${tmp:-}" ] && tail -n 20 "$tmp"/*.log 2>/dev/null; exit 1; }

[ "$(id -u)" = 0 ] || skip "slurmd must run as root"
for program in munged slurmctld slurmd sbatch squeue scontrol scancel sinfo python3; do
  command -v "$program" >/dev/null || skip "$program is not installed"
done

tmp=$(mktemp -d /tmp/kindlet-slurm.XXXXXX)
daemons=()
farm=""
stop_everything() {
  [ -n "$farm" ] && kill -TERM "$farm" 2>/dev/null && wait "$farm" 2>/dev/null
  for pid in "${daemons[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for pid in "${daemons[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
  rm -rf "$tmp"
}
trap stop_everything EXIT
trap 'exit 1' INT TERM

# munge: a fresh key and its own socket.
mkdir -p "$tmp/munge" "$tmp/state" "$tmp/spool"
chmod 700 "$tmp/munge"
head -c 1024 /dev/urandom > "$tmp/munge/munge.key"
chmod 400 "$tmp/munge/munge.key"
munged --foreground --force --key-file="$tmp/munge/munge.key" --socket="$tmp/munge/socket" \
  --pid-file="$tmp/munge/munged.pid" --seed-file="$tmp/munge/seed" --log-file="$tmp/munged.log" \
  >"$tmp/munged.out" 2>&1 &
daemons+=($!)

host=$(hostname -s)
port=$((20000 + RANDOM % 20000))
cat > "$tmp/slurm.conf" <<CONF
ClusterName=kindletfarmtest
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=$port
SlurmdPort=$((port + 1))
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$tmp/munge/socket
CredType=cred/munge
StateSaveLocation=$tmp/state
SlurmdSpoolDir=$tmp/spool
SlurmctldPidFile=$tmp/slurmctld.pid
SlurmdPidFile=$tmp/slurmd.pid
SlurmctldLogFile=$tmp/slurmctld.log
SlurmdLogFile=$tmp/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
SlurmdParameters=config_overrides
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
ReturnToService=2
SchedulerType=sched/builtin
MinJobAge=300
KillWait=5
# Clients give up on an absent controller after about a second, not nine.
MessageTimeout=3
NodeName=$host NodeAddr=127.0.0.1 CPUs=4 RealMemory=1000 State=UNKNOWN
PartitionName=farm Nodes=$host Default=YES MaxTime=INFINITE State=UP
CONF
export SLURM_CONF="$tmp/slurm.conf"

for _ in $(seq 50); do [ -S "$tmp/munge/socket" ] && break; sleep 0.1; done
[ -S "$tmp/munge/socket" ] || skip "munged did not start: $(cat "$tmp/munged.out" "$tmp/munged.log" 2>/dev/null)"
slurmctld -D -i -f "$SLURM_CONF" >"$tmp/slurmctld.out" 2>&1 &
daemons+=($!)
slurmd -D -f "$SLURM_CONF" -N "$host" >"$tmp/slurmd.out" 2>&1 &
daemons+=($!)
state=""
for _ in $(seq 100); do
  state=$(sinfo -h -o %T 2>/dev/null)
  [ "$state" = idle ] && break
  sleep 0.2
done
[ "$state" = idle ] || skip "the node did not come up (state \"$state\"): $(tail -n 5 "$tmp"/slurmctld.log "$tmp"/slurmd.log 2>&1)"

# Twelve frames whose scene names say which frame they are.
mkdir -p "$tmp/scene"
for frame in $(seq 12); do
  printf '{"optree": 1, "root": {"type": "root", "children": [{"name": "f%d"}]}}\n' "$frame" \
    > "$tmp/scene/shot.$(printf %06d "$frame").optree.json"
done

"$root/bin/kindlet-farm" --mode slurm --chunk-size 3 --retries 2 --poll 0.5 --job-dir "$tmp/job" -- \
  -selvaneRoot "$root" -tempDir "$tmp" -renderer recording -renderMethodName diskRender \
  -arbolite3OpTree "$tmp/scene/shot.*.optree.json" -t 1-12 \
  -recordFile "$tmp/record.txt" -startDelayMs 700 >"$tmp/farm.out" 2>"$tmp/farm.err" &
farm=$!

# Kill the kindlet of chunk 1's first attempt once it runs.
killed=""
for _ in $(seq 600); do
  control=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["controlPid"])' \
    "$tmp/job/chunk-0001/attempt-1/status.json" 2>/dev/null)
  kindlet=$([ -n "$control" ] && pgrep -P "$control")
  if [ -n "$kindlet" ]; then kill -KILL $kindlet; killed=$kindlet; break; fi
  kill -0 "$farm" 2>/dev/null || break
  sleep 0.1
done
# The controller goes away while the driver needs it: its scheduler commands
# fail and are tried again until the controller is back.
kill -TERM "${daemons[1]}"
wait "${daemons[1]}"
for _ in $(seq 300); do
  grep -q "failed (.*), trying again" "$tmp/farm.err" && break
  kill -0 "$farm" 2>/dev/null || break
  sleep 0.1
done
slurmctld -D -i -f "$SLURM_CONF" >>"$tmp/slurmctld.out" 2>&1 &
daemons[1]=$!
wait "$farm"
status=$?
farm=""
cat "$tmp/farm.err" "$tmp/farm.out"
grep -q "failed (.*), trying again" "$tmp/farm.err" || fail "no retry while the controller was away"
[ -n "$killed" ] || fail "never saw chunk 1's kindlet to kill it"
[ "$status" = 0 ] || fail "kindlet-farm exited with $status"
[ -d "$tmp/job/chunk-0001/attempt-2" ] || fail "chunk 1 was not resubmitted"
[ -d "$tmp/job/chunk-0000/attempt-2" ] && fail "chunk 0 ran twice though it succeeded"
python3 "$here/count_renders.py" "$tmp/record.txt" 12 || fail "frames were not rendered exactly once"
grep -q "12 of 12 frames rendered" "$tmp/farm.out" || fail "no summary line"

# A stop request cancels the array and returns only when no task is left.
"$root/bin/kindlet-farm" --mode slurm --chunk-size 3 --poll 0.5 --job-dir "$tmp/job2" -- \
  -selvaneRoot "$root" -tempDir "$tmp" -renderer recording -renderMethodName diskRender \
  -arbolite3OpTree "$tmp/scene/shot.*.optree.json" -t 1-12 \
  -recordFile "$tmp/record2.txt" -startDelayMs 5000 >"$tmp/farm2.out" 2>&1 &
farm=$!
for _ in $(seq 300); do [ -s "$tmp/record2.txt" ] && break; sleep 0.1; done
kill -INT "$farm"
wait "$farm"
status=$?
farm=""
[ "$status" = 130 ] || fail "interrupted kindlet-farm exited with $status: $(cat "$tmp/farm2.out")"
[ -z "$(squeue -h)" ] || fail "tasks are left after the stop: $(squeue)"
for pid in $(cut -d' ' -f2 "$tmp/record2.txt" | sort -u); do
  if [ -e "/proc/$pid" ] && ! grep -q '^[0-9]* ([^)]*) Z' "/proc/$pid/stat"; then fail "kindlet $pid outlived the stop"; fi
done
echo "PASSED"
