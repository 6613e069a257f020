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
. "$here/slurm_cluster.sh"

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
driver=$!

# Kill the kindlet of chunk 1's first attempt once it runs.
killed=""
for _ in $(seq 600); do
  control=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["controlPid"])' \
    "$tmp/job/chunk-0001/attempt-1/status.json" 2>/dev/null)
  kindlet=$([ -n "$control" ] && pgrep -P "$control")
  if [ -n "$kindlet" ]; then kill -KILL $kindlet; killed=$kindlet; break; fi
  kill -0 "$driver" 2>/dev/null || break
  sleep 0.1
done
# The controller goes away while the driver needs it: its scheduler commands
# fail and are tried again until the controller is back.
kill -TERM "${daemons[1]}"
wait "${daemons[1]}"
for _ in $(seq 300); do
  grep -q "failed (.*), trying again" "$tmp/farm.err" && break
  kill -0 "$driver" 2>/dev/null || break
  sleep 0.1
done
slurmctld -D -i -f "$SLURM_CONF" >>"$tmp/slurmctld.out" 2>&1 &
daemons[1]=$!
wait "$driver"
status=$?
driver=""
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
driver=$!
for _ in $(seq 300); do [ -s "$tmp/record2.txt" ] && break; sleep 0.1; done
kill -INT "$driver"
wait "$driver"
status=$?
driver=""
[ "$status" = 130 ] || fail "interrupted kindlet-farm exited with $status: $(cat "$tmp/farm2.out")"
[ -z "$(squeue -h)" ] || fail "tasks are left after the stop: $(squeue)"
for pid in $(cut -d' ' -f2 "$tmp/record2.txt" | sort -u); do
  if [ -e "/proc/$pid" ] && ! grep -q '^[0-9]* ([^)]*) Z' "/proc/$pid/stat"; then fail "kindlet $pid outlived the stop"; fi
done
echo "PASSED"
