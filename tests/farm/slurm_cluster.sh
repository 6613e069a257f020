# Sourced by the Slurm tests: brings up a one-node Slurm cluster on 127.0.0.1
# (munged, slurmctld, slurmd, all state under $tmp) and exports SLURM_CONF.
# On the way out, whatever happens, $driver (a pid, if set) is stopped, then
# every daemon, and $tmp is removed. Needs skip() and fail() of the sourcing
# script; skips (77) when the cluster can't start.
[ "$(id -u)" = 0 ] || skip "slurmd must run as root"
for program in munged slurmctld slurmd sbatch squeue scontrol scancel sinfo python3; do
  command -v "$program" >/dev/null || skip "$program is not installed"
done

tmp=$(mktemp -d /tmp/kindlet-slurm.XXXXXX)
daemons=()
driver=""
stop_everything() {
  [ -n "$driver" ] && kill -TERM "$driver" 2>/dev/null && wait "$driver" 2>/dev/null
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
